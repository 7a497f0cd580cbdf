// Owns keys that protect nothing, are there at once, and sign in no time.
#pragma once

#include "tls/openssl.h"

namespace kelotlsctl {

/// For handshakes within this process in which nobody verifies a signature: theirs are zeros, of
/// the length that a real one would have. Such a handshake takes a fraction of the time, and no
/// primes are looked for. Throws std::runtime_error where OpenSSL makes none.
KeyOwner make_blank_rsa_key(int bits);
KeyOwner make_blank_ecdsa_key(int curve);

}  // namespace kelotlsctl
