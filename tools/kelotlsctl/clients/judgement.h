// Owns what a level does to a client: a recorded ClientHello, played to a context in memory.
#pragma once

#include <openssl/ssl.h>

#include <string>
#include <vector>

#include "clients/client_hello.h"
#include "tls/certificates.h"

namespace kelotlsctl {

// What of a hello does not go with a level.
constexpr char kLacksVersion[] = "version";
constexpr char kLacksSuite[] = "cipher-suite";
constexpr char kLacksGroup[] = "group";
constexpr char kLacksSignature[] = "signature-algorithm";
constexpr char kLacksOther[] = "other";

struct Judgement {
  bool is_answered = false;

  // Of one that is answered: what is negotiated. 0, or empty: nothing of the kind is needed.
  std::uint16_t version = 0;
  std::uint16_t suite = 0;
  std::uint16_t group = 0;
  std::string signature;     ///< such as "RSA-PSS+SHA256"
  bool after_retry = false;  ///< the server asks for a key share that the hello offers without one

  // Of one that is refused.
  std::vector<std::string> lacks;  ///< the fewest that would have to be more for an answer
  std::string text;                ///< why, for people
};

/// Plays hellos to a context, which keeps its settings.
class Judge {
 public:
  /// The context has to outlive it. Each hello finds throw-away certificates with keys like these.
  /// Throws std::runtime_error where no such key can be made.
  Judge(SSL_CTX* context, std::vector<CertificateFacts> certificates);

  /// Of a ClientHello message as it was recorded. Why it is refused is found by playing it again
  /// with more suites, groups or signature algorithms.
  Judgement judge(const Bytes& hello) const;

  /// Whether judge would say that it is answered, in a fraction of the time; but the keys of its
  /// key shares are taken for good ones.
  bool answers(const Bytes& hello) const;

 private:
  void explain(const ClientHello& hello, bool is_about_version, const std::string& reason,
               Judgement& judgement) const;

  SSL_CTX* context_;
  std::vector<CertificateFacts> certificates_;
};

/// Whether a key like the certificate's can be made here.
bool can_be_made(const CertificateFacts& certificate);

/// "RSA 2048", "ECDSA prime256v1".
std::string certificate_text(const CertificateFacts& certificate);

}  // namespace kelotlsctl
