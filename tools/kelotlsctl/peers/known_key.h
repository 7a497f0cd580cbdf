// Owns an RSA key that protects nothing and is there at once.
#pragma once

#include <openssl/evp.h>

#include <memory>

#include "files.h"

namespace kelotlsctl {

/// Of 2313 bits, out of primes that everybody knows, for handshakes within this process: looking
/// for primes takes longer than all that a change of one service's level does besides. Null where
/// OpenSSL gives none.
std::unique_ptr<EVP_PKEY, kelotls::Release<EVP_PKEY_free>> make_known_rsa_key();

}  // namespace kelotlsctl
