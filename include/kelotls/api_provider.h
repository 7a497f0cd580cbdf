// The management and serving operations of the TLS profile framework.
#ifndef KELOTLS_API_PROVIDER_H
#define KELOTLS_API_PROVIDER_H

#include <openssl/ssl.h>

#include <string>

namespace kelotls {

/// Holds no state and takes no lock: make one whenever you need one. Contexts may be acquired and
/// released from any thread at any time; whoever changes the framework serialises its own calls.
class __attribute__((visibility("default"))) APIProvider {
 public:
  /// Makes a new server context configured for the service's level: protocol versions, cipher
  /// list, ciphersuites, groups, temporary DH parameters. It carries no certificate, key,
  /// verification mode, session cache or callback.
  ///
  /// Reads the data store and, except for level modern, one DH parameter file.
  /// Result: the context, the caller's until it is passed to release_context; null when the
  /// service has no entry, the data store is unusable, its level is negative or OpenSSL refuses a
  /// setting. All but a negative level are logged.
  /// Only logged: DH parameters that cannot be had; the context then offers no DHE suite.
  /// Passes through: std::bad_alloc, and jsoncpp's exception for a level that is no integer or a
  /// service entry that is no object.
  SSL_CTX* acquire_server_context(const std::string& service) const;

  /// Frees a context. Null is accepted and does nothing.
  void release_context(SSL_CTX* context) const;
};

}  // namespace kelotls

#endif
