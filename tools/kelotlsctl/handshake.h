// Single handshakes: a client of ours with a context in memory, and what came of it.
#ifndef KELOTLSCTL_HANDSHAKE_H
#define KELOTLSCTL_HANDSHAKE_H

#include <openssl/ssl.h>

#include <optional>
#include <string>
#include <vector>

#include "level_profile.h"
#include "owners.h"

namespace kelotlsctl {

/// What a client asks for. An empty list leaves all that the client has.
struct Hello {
  int version = 0;  // 0: any
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

// Without DSA: making a key for a trial takes longer than everything else, and nobody has one.
constexpr char kEcdsaSignatures[] =
    "ECDSA+SHA256:ECDSA+SHA384:ECDSA+SHA512:ed25519:ed448:ECDSA+SHA224:ECDSA+SHA1";
constexpr char kRsaSignatures[] =
    "RSA-PSS+SHA256:RSA-PSS+SHA384:RSA-PSS+SHA512:RSA+SHA256:RSA+SHA384:RSA+SHA512:RSA+SHA224:"
    "RSA+SHA1";

/// A suite as the client has it.
struct Suite {
  std::string name;
  std::string certificate_kind;  // "" where any serves, or none is needed
  bool dhe = false;
};

/// A client that can do whatever this machine's OpenSSL can: no security level, no limit of
/// version, all suites. The system-wide configuration restrains servers that it talks to, not it.
class Client {
 public:
  /// Throws std::runtime_error when OpenSSL refuses.
  Client();

  /// The suites that it can offer with the version.
  std::vector<Suite> suites(int version) const;

  /// A connection that has not begun. Throws std::runtime_error for a suite or group that this
  /// machine's OpenSSL does not have.
  SslOwner connect(const Hello& hello) const;

 private:
  ContextOwner context_;
};

/// The groups that are tried.
extern const char* const kTriedGroups[5];

enum class Step { kDone, kWaiting, kFailed };

/// Takes a handshake as far as it goes without new data.
Step advance(SSL* connection);

/// What the client knows after a complete handshake.
Outcome outcome_of(SSL* client);

/// The oldest reason in OpenSSL's error queue, which is then empty.
std::string take_openssl_reason();

/// Settings lifted for one handshake, to find out which of them stands in the way.
struct Lifts {
  bool minimum_version = false;
  bool maximum_version = false;
  bool version_options = false;       // SSL_OP_NO_TLSv1 and the like
  std::optional<int> security_level;  // this one instead of the context's
};

/// Someone to shake hands with.
class Peer {
 public:
  virtual ~Peer() = default;
  virtual Outcome shake_hands(const Hello& hello) = 0;
};

/// A server context, in memory. Each handshake has an object of its own, with throw-away RSA and
/// ECDSA certificates and without a resumable session; the context keeps its settings.
class ContextPeer : public Peer {
 public:
  ContextPeer(const Client& client, SSL_CTX* context) : client_(client), context_(context) {}

  Outcome shake_hands(const Hello& hello) override { return shake_hands(hello, Lifts()); }
  Outcome shake_hands(const Hello& hello, const Lifts& lifts) const;

  SSL_CTX* context() const { return context_; }

 private:
  const Client& client_;
  SSL_CTX* context_;
};

}  // namespace kelotlsctl

#endif
