// Owns asking a server context in memory, with throw-away certificates.
#pragma once

#include <openssl/ssl.h>

#include <functional>
#include <vector>

#include "tls/answer.h"

namespace kelotlsctl {

/// The context's answer to the hello. Each gets a connection object of its own with an RSA and an
/// ECDSA certificate; the context keeps its settings and its sessions, and only its count of
/// handshakes grows. adjust changes the settings of the object. An answer that is not known tells
/// OpenSSL's reason. Throws std::runtime_error where OpenSSL makes no connection or certificate.
Answer ask_context(SSL_CTX* context, const Hello& hello,
                   const std::function<void(SSL* server)>& adjust = nullptr);

/// The certificates that the context is asked with, in DER.
std::vector<Bytes> throw_away_certificates(SSL_CTX* context);

}  // namespace kelotlsctl
