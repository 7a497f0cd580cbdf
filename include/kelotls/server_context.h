/*
 * The C interface: a TLS server context for a named service. Valid C and C++.
 *
 * Neither function adds checks, log lines or error translation of its own, keeps state or takes a
 * lock; any thread may call either at any time.
 *
 * Exceptions of the C++ underneath (std::bad_alloc, std::logic_error for a null name, jsoncpp's
 * own for a data store field of the wrong type) leave through these functions. A C caller that
 * wants such an exception to pass through its frames, into a C++ caller further up, compiles with
 * -fexceptions; without it the process ends there (32-bit ARM cannot unwind such a frame at all).
 */
#ifndef KELOTLS_SERVER_CONTEXT_H
#define KELOTLS_SERVER_CONTEXT_H

#include <openssl/ssl.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Makes a new server context configured for the level that the data store holds for the service:
 * protocol versions, cipher list, ciphersuites, groups, temporary DH parameters. It carries no
 * certificate, key, verification mode, session cache or callback; those are the caller's to set.
 *
 * Reads /usr/kelo/etc/security-profile/tls-profile/datastore.json and, except for level modern,
 * one DH parameter file in /usr/kelo/etc/ssl/. Writes nothing.
 *
 * service: the name, NUL-terminated, borrowed for the call. Null raises std::logic_error.
 * Result: the context, the caller's until it passes it to KELOTLS_release_context; or null, with
 * the reason in the system log (a negative stored level alone gives null without a line).
 * Only logged: a DH parameter file that is missing or unreadable; the context is then returned
 * all the same and offers no DHE suite.
 */
__attribute__((visibility("default"))) SSL_CTX* KELOTLS_acquire_server_context(const char* service);

/* Gives a context back. Null is accepted and does nothing. Connections made from it live on. */
__attribute__((visibility("default"))) void KELOTLS_release_context(SSL_CTX* context);

#ifdef __cplusplus
}
#endif

#endif
