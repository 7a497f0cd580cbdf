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

/// Gives the connection object a throw-away certificate with a key of this kind (EVP_PKEY_RSA...).
/// strength: of an RSA key its least bits, on a curve the curve, else 0. Throws std::runtime_error
/// where OpenSSL makes none.
void use_throw_away_certificate(SSL* server, int kind, int strength);

/// The certificates that the context is asked with, in DER.
std::vector<Bytes> throw_away_certificates(SSL_CTX* context);

}  // namespace kelotlsctl
