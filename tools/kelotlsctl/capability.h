// What a level asks for, and what this machine's OpenSSL gives of it.
#ifndef KELOTLSCTL_CAPABILITY_H
#define KELOTLSCTL_CAPABILITY_H

#include <json/value.h>
#include <openssl/ssl.h>

#include <ostream>

#include "owners.h"

namespace kelotlsctl {

/// A level of 0 or above that names none is intermediate, here as in the library.

/// What the level asks for:
///   {"level", "name", "protocols": ["TLS 1.2"...], "cipher-suites": [for TLS 1.2 and older, none
///   at modern], "tls13-suites", "groups", "dh-file": path or null, "dh-bits": number or null,
///   "oldest-clients": [those that connect when all of it is offered, given an RSA certificate]}
Json::Value describe_level(int level);

/// A new server context with the level's settings, made as the library makes a service's: for a
/// level that no service stands at. Reads the level's DH parameter file; a file that cannot be
/// used leaves the context without DHE. Throws std::runtime_error when OpenSSL refuses a setting.
ContextOwner make_level_context(int level);

/// What the context offers of its level, found by handshakes with it:
///   {"level", "name", "openssl": its version, "security-level": number,
///    "offers": {"protocols", "cipher-suites", "tls13-suites", "groups", "dh-bits"},
///    "differences": [{"what": "TLS 1.0", "kind": "missing" or "extra",
///       "cause": "security-level", "minimum-version", "maximum-version", "dh-file-missing",
///                "dh-file-refused", "dh-file-unreadable", "suite-unavailable" or "other",
///       "text": a sentence or two for an administrator}],
///    "oldest-clients": [those that connect to what is offered, given an RSA certificate],
///    "lost-clients": [those of the level that do not]}
/// The context keeps its settings and its sessions; only its count of handshakes grows. Reads the
/// level's DH parameter file when DHE fails. Throws std::runtime_error when OpenSSL gives no
/// client to try with.
Json::Value explain_context(SSL_CTX* context, int level);

/// Tables of at most 80 columns.
void print_level(std::ostream& out, const Json::Value& description, bool colour);
void print_explanation(std::ostream& out, const Json::Value& explanation, bool colour);

}  // namespace kelotlsctl

#endif
