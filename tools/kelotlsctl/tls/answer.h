// Owns what a server answers to one ClientHello: reading its first flight as far as it is in the
// clear, and what that means.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tls/hello.h"

namespace kelotlsctl {

enum class Verdict {
  kAccepted,  ///< the server chose something and had all that it needs for it
  kRefused,   ///< an alert says that nothing of the offer will do
  kNotKnown,  ///< anything else: another alert, silence, a lost connection
};

/// The reason of an answer that ends without another.
constexpr char kClosed[] = "the server closed the connection";

struct Answer {
  Verdict verdict = Verdict::kNotKnown;
  std::string reason;  ///< why it was not accepted

  // What the server chose, even where it refused or fell silent afterwards; 0: nothing.
  std::uint16_t version = 0;
  std::uint16_t suite = 0;
  std::uint16_t group = 0;  ///< of an elliptic curve, or any group of TLS 1.3
  int dh_bits = 0;          ///< of the prime that DHE is done with, up to TLS 1.2

  bool is_alert = false;          ///< the server ended it with an alert
  bool is_about_version = false;  ///< the alert is about the protocol version
  bool wants_key_share = false;   ///< a HelloRetryRequest
  bool has_session_id = false;
  bool compression = false;
  bool session_ticket = false;
  bool secure_renegotiation = false;
  bool extended_master_secret = false;

  std::vector<Bytes> certificates;  ///< DER, the server's own first; in TLS 1.3 they are hidden
};

/// Takes the bytes of a connection as they come. What it keeps is bounded: a flight of more than
/// 256 KiB is not known.
class AnswerReader {
 public:
  explicit AnswerReader(const Hello& hello) : hello_(hello) {}

  /// Whether the answer is complete; it then takes no more.
  bool take(const Bytes& bytes);

  /// What has come so far. Unless it is complete, the reason says that it stopped there, as how:
  /// "the server closed the connection".
  Answer finish(const std::string& how);

 private:
  void take_records();
  void take_ssl2();
  void take_record(unsigned char kind, const Bytes& body);
  void take_alert(const Bytes& body);
  void take_messages();
  void take_message(unsigned char kind, const Bytes& body);
  void take_server_hello(const Bytes& body);
  void take_extension(std::uint16_t kind, const Bytes& body);
  void take_certificates(const Bytes& body);
  void take_key_exchange(const Bytes& body);
  void end(Verdict verdict, const std::string& reason = {});

  const Hello hello_;
  Answer answer_;
  Bytes pending_;    // of a record that is not whole yet
  Bytes handshake_;  // of a message that is not whole yet
  std::size_t taken_ = 0;
  bool is_complete_ = false;
};

}  // namespace kelotlsctl
