// Real TLS handshakes, in memory, with the contexts that the library makes.
#ifndef KELOTLS_TESTS_BED_TLS_CLIENT_H
#define KELOTLS_TESTS_BED_TLS_CLIENT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "private_tree.h"

namespace kelotls::test {

// The real lists, written out once more so that a changed constant in the library shows.
constexpr char kIntermediateList[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
    "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384";
constexpr char kOldList[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
    "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:DHE-RSA-CHACHA20-POLY1305:"
    "ECDHE-ECDSA-AES128-SHA256:ECDHE-RSA-AES128-SHA256:ECDHE-ECDSA-AES128-SHA:"
    "ECDHE-RSA-AES128-SHA:ECDHE-ECDSA-AES256-SHA384:ECDHE-RSA-AES256-SHA384:"
    "ECDHE-ECDSA-AES256-SHA:ECDHE-RSA-AES256-SHA:DHE-RSA-AES128-SHA256:DHE-RSA-AES256-SHA256:"
    "AES128-GCM-SHA256:AES256-GCM-SHA384:AES128-SHA256:AES256-SHA256:AES128-SHA:AES256-SHA:"
    "DES-CBC3-SHA";
constexpr char kCiphersuites[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr char kGroups[] = "prime256v1:secp384r1:secp521r1";

/// The items of a list with colons.
Lines split(const std::string& list);

using Options = decltype(SSL_CTX_get_options(nullptr));

// Contexts

struct ReleaseContext {
  void operator()(SSL_CTX* context) const;
};
using Context = std::unique_ptr<SSL_CTX, ReleaseContext>;

/// What the library makes for a service of this level, following the default where it is 0.
Context acquire(int level, int default_level = 2);

/// What OpenSSL makes, without the library.
Context plain_context();

/// The same at security level 0, with this one suite and every group: it refuses nothing that
/// OpenSSL can offer at all.
Context willing_context(int version, const std::string& suite);

/// Lifts OpenSSL's security level and protocol limits; before the process's first use of OpenSSL.
void lift_security_level();

/// TLS 1.2 suites or TLS 1.3 ciphersuites that a context holds, in order.
Lines suites_of(const SSL_CTX* context, bool tls13);

/// Options, protocol limits and suites: all that can be read from a context.
Lines settings_of(const SSL_CTX* context);

// Handshakes

/// What a client offers. It is at security level 0, so that it is never the one to refuse.
struct Client {
  int version;
  std::string suites = "";  // empty: OpenSSL's own
  std::string groups = "";
};

/// What came of a handshake; "refused" in each text when it failed.
struct Connection {
  bool succeeded = false;
  std::string version = "refused";       // "TLSv1.2"
  std::string suite = "refused";         // "AES128-SHA"
  std::string key_exchange = "refused";  // "prime256v1", "DH 2048", or empty for RSA
  std::size_t ticket_bytes = 0;
};

/// Connects a client to a server that has the named certificate, "rsa" or "ecdsa", and sends it a
/// byte. Fails the test at once when the client cannot even offer what it should.
Connection shake_hands(SSL_CTX* server, const std::string& certificate, const Client& client);

}  // namespace kelotls::test

#endif
