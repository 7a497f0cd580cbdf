// Owns handshakes: a client that can do whatever this machine's OpenSSL can, and what it shakes
// hands with, which is a server context in memory or a running server.
#pragma once

#include <json/value.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "profile.h"

namespace kelotlsctl {

using kelotls::ContextOwner;
using kelotls::Release;
using BioOwner = std::unique_ptr<BIO, Release<BIO_free>>;
using SslOwner = std::unique_ptr<SSL, Release<SSL_free>>;

constexpr char kTriedGroups[] = "prime256v1:secp384r1:secp521r1:X25519:X448";

// By kind of certificate. DSA is left out: making a key for a trial takes longer than everything
// else, and nobody has one.
constexpr char kEcdsaSignatures[] =
    "ECDSA+SHA256:ECDSA+SHA384:ECDSA+SHA512:ed25519:ed448:ECDSA+SHA224:ECDSA+SHA1";
constexpr char kRsaSignatures[] =
    "RSA-PSS+SHA256:RSA-PSS+SHA384:RSA-PSS+SHA512:RSA+SHA256:RSA+SHA384:RSA+SHA512:RSA+SHA224:"
    "RSA+SHA1";

constexpr auto kVersionOptions =
    SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3;

/// What a client requests. An empty list leaves all that the client has, version 0 any version.
struct Hello {
  int version;
  std::string suites;
  std::string groups;
  std::string signature_algorithms;
};

struct Outcome {
  bool accepted = false;
  std::string suite;
  std::string group;  // "" without elliptic curves
  int dh_bits = 0;    // 0 without DHE
  std::string certificate_kind;
  std::string reason;  // why it was not accepted, in OpenSSL's words or the system's
};

struct Suite {
  std::string name;
  std::string certificate_kind;  // "" where any serves, or none is needed
};

/// Carries what the client has written, at the wire, to what it shakes hands with, and back what
/// that answers to a client that is waiting. Returns why this failed, or an empty text.
using Exchange = std::function<std::string(BIO* wire, bool is_waiting)>;

/// A client with no security level, no limit of version, and all suites. The system-wide
/// configuration restrains the servers that it talks to, not the client itself.
class Client {
 public:
  Client();

  /// The suites that it can offer with the version.
  std::vector<Suite> suites(int version) const;

  /// A handshake through the exchange. Without a name no SNI is sent. Throws std::runtime_error for
  /// a suite or group that this machine's OpenSSL does not have.
  Outcome shake_hands(const Hello& hello, const std::string& server_name,
                      const Exchange& exchange) const;

  /// A handshake in memory. Each has an object of its own, with throw-away RSA and ECDSA
  /// certificates and without a resumable session; the context keeps its settings. adjust changes
  /// those of the object.
  Outcome shake_hands(const Hello& hello, SSL_CTX* context,
                      const std::function<void(SSL* server)>& adjust = nullptr) const;

 private:
  SslOwner connection_for(const Hello& hello) const;

  ContextOwner context_;
};

using ShakeHands = std::function<Outcome(const Hello&)>;

/// Handshakes with a running server, each over a TCP connection of its own, to the first address
/// that answers. Looks the name up, over IPv6 and IPv4. Throws std::runtime_error when there is
/// none; a handshake throws it when no address answers within two seconds. A handshake that takes
/// longer is refused. The client has to outlive them.
ShakeHands handshakes_with(const Client& client, const std::string& host, const std::string& port);

/// The names of the context's suites, in its order of preference.
Json::Value suites_of(SSL_CTX* context);

/// The oldest reason in OpenSSL's error queue, which is then empty.
std::string take_openssl_reason();

/// Throws std::runtime_error with the text and OpenSSL's reason unless the step succeeded.
void require(bool succeeded, const char* what);

}  // namespace kelotlsctl
