// Owns the first message of a client: a ClientHello, written byte by byte, so that what it can
// offer has none of the limits of this machine's OpenSSL.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelotlsctl {

/// Octets as they are on the wire.
using Bytes = std::string;

using Numbers = std::vector<std::uint16_t>;

// The wire's own numbers of protocol versions.
constexpr std::uint16_t kSsl2 = 0x0002;
constexpr std::uint16_t kSsl3 = 0x0300;
constexpr std::uint16_t kTls10 = 0x0301;
constexpr std::uint16_t kTls11 = 0x0302;
constexpr std::uint16_t kTls12 = 0x0303;
constexpr std::uint16_t kTls13 = 0x0304;

/// Every signature algorithm that a certificate of a server could need.
const Numbers& all_signature_algorithms();

/// What a client offers. TLS 1.3 is offered alone: a hello for several versions hides which of them
/// the server would take.
struct Hello {
  std::uint16_t version = kTls12;
  Numbers suites;
  Numbers groups;      ///< none: no such extension
  Numbers key_shares;  ///< of these groups, in TLS 1.3; none: the server has to ask for one
  Numbers signature_algorithms = all_signature_algorithms();
  std::string server_name;  ///< empty: no such extension
  std::vector<std::string> alpn;
  bool compression = false;
  bool session_ticket = false;
  bool extended_master_secret = false;
};

/// In the form of its version: a record with a ClientHello, without extensions in SSL 3; in SSL 2
/// its own CLIENT-HELLO with every cipher kind of that protocol. A key share is a point of its
/// group that anybody knows: nobody derives a key. Groups that have none here are left out of the
/// shares.
Bytes write_hello(const Hello& hello);

/// Whether the handshake message is such a hello, of TLS or SSL 3: its random says so. Who records
/// clients is not to count those who only ask what a server offers.
bool is_own_hello(const Bytes& message);

}  // namespace kelotlsctl
