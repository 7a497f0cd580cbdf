// Owns keys that protect nothing, are there at once, and sign in no time.
#include "peers/blank_key.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/rsa.h>

#include <algorithm>

namespace kelotlsctl {

namespace {

using Number = std::unique_ptr<BIGNUM, Release<BN_free>>;
using RsaKey = std::unique_ptr<RSA, Release<RSA_free>>;
using EcKey = std::unique_ptr<EC_KEY, Release<EC_KEY_free>>;

int sign_blank_rsa(int, const unsigned char*, unsigned char* signature, RSA* key, int) {
  std::fill_n(signature, RSA_size(key), '\0');
  return RSA_size(key);
}

int sign_blank_ecdsa(int, const unsigned char*, int, unsigned char* signature, unsigned* length,
                     const BIGNUM*, const BIGNUM*, EC_KEY* key) {
  *length = static_cast<unsigned>(ECDSA_size(key));
  std::fill_n(signature, *length, '\0');
  return 1;
}

// The methods are never freed: keys may be used until the process ends.

const RSA_METHOD* rsa_method() {
  static const RSA_METHOD* const method = [] {
    RSA_METHOD* const made = RSA_meth_dup(RSA_get_default_method());
    require(made != nullptr && RSA_meth_set_priv_enc(made, sign_blank_rsa) == 1,
            "no key can be made");
    return made;
  }();
  return method;
}

const EC_KEY_METHOD* ecdsa_method() {
  static const EC_KEY_METHOD* const method = [] {
    EC_KEY_METHOD* const made = EC_KEY_METHOD_new(EC_KEY_get_default_method());
    require(made != nullptr, "no key can be made");
    EC_KEY_METHOD_set_sign(made, sign_blank_ecdsa, nullptr, nullptr);
    return made;
  }();
  return method;
}

/// The largest that has as many bits. That it is no product of two primes concerns nobody.
Number make_modulus(int bits) {
  Number number(BN_new());
  require(
      number != nullptr && BN_set_bit(number.get(), bits) == 1 && BN_sub_word(number.get(), 1) == 1,
      "no key of this strength can be made");
  return number;
}

Number make_exponent() {
  Number number(BN_new());
  require(number != nullptr && BN_set_word(number.get(), RSA_F4) == 1, "no key can be made");
  return number;
}

}  // namespace

KeyOwner make_blank_rsa_key(int bits) {
  Number modulus = make_modulus(bits);
  Number exponent = make_exponent();
  const RsaKey key(RSA_new());
  require(key != nullptr && RSA_set_method(key.get(), rsa_method()) == 1 &&
              RSA_set0_key(key.get(), modulus.get(), exponent.get(), nullptr) == 1,
          "no key of this strength can be made");
  static_cast<void>(modulus.release());
  static_cast<void>(exponent.release());
  KeyOwner result(EVP_PKEY_new());
  require(result != nullptr && EVP_PKEY_set1_RSA(result.get(), key.get()) == 1,
          "no key can be made");
  return result;
}

KeyOwner make_blank_ecdsa_key(int curve) {
  const EcKey key(EC_KEY_new_by_curve_name(curve));
  require(key != nullptr, "no key on this curve can be made");
  EC_KEY* const raw = key.get();
  require(EC_KEY_set_method(raw, ecdsa_method()) == 1 &&
              EC_KEY_set_private_key(raw, BN_value_one()) == 1 &&
              EC_KEY_set_public_key(raw, EC_GROUP_get0_generator(EC_KEY_get0_group(raw))) == 1,
          "no key on this curve can be made");
  KeyOwner result(EVP_PKEY_new());
  require(result != nullptr && EVP_PKEY_set1_EC_KEY(result.get(), raw) == 1, "no key can be made");
  return result;
}

}  // namespace kelotlsctl
