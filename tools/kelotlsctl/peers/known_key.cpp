// Owns an RSA key that protects nothing and is there at once.
#include "peers/known_key.h"

#include <openssl/bn.h>
#include <openssl/rsa.h>

#include <array>
#include <utility>

namespace kelotlsctl {

namespace {

using Number = std::unique_ptr<BIGNUM, kelotls::Release<BN_free>>;
using Memory = std::unique_ptr<BN_CTX, kelotls::Release<BN_CTX_free>>;
using RsaKey = std::unique_ptr<RSA, kelotls::Release<RSA_free>>;

/// Computes with numbers, and remembers whether a step failed.
class Arithmetic {
 public:
  Number product(const Number& left, const Number& right) {
    Number result(BN_new());
    note(BN_mul(result.get(), left.get(), right.get(), memory_.get()) == 1);
    return result;
  }

  Number less_one(const Number& number) {
    Number result(BN_dup(number.get()));
    note(BN_sub_word(result.get(), 1) == 1);
    return result;
  }

  Number remainder(const Number& number, const Number& modulus) {
    Number result(BN_new());
    note(BN_nnmod(result.get(), number.get(), modulus.get(), memory_.get()) == 1);
    return result;
  }

  Number inverse(const Number& number, const Number& modulus) {
    Number result(BN_mod_inverse(nullptr, number.get(), modulus.get(), memory_.get()));
    note(result != nullptr);
    return result;
  }

  void note(bool has_succeeded) { is_right_ = is_right_ && has_succeeded; }
  bool is_right() const { return is_right_; }

 private:
  const Memory memory_{BN_CTX_new()};
  bool is_right_ = true;
};

/// Hands the number over where the call that takes it succeeds.
template <typename Set, typename... Numbers>
void hand_over(Arithmetic& arithmetic, const Set& set, Numbers&... numbers) {
  const bool is_taken = set(numbers.get()...) == 1;
  arithmetic.note(is_taken);
  if (is_taken) {
    (static_cast<void>(numbers.release()), ...);
  }
}

void set_numbers(RSA* key, Arithmetic& arithmetic, std::array<Number, 3>& primes) {
  auto& [first, second, third] = primes;
  const Number both = arithmetic.product(first, second);
  const Number orders[] = {arithmetic.less_one(first), arithmetic.less_one(second),
                           arithmetic.less_one(third)};
  Number exponent(BN_new());
  arithmetic.note(BN_set_word(exponent.get(), RSA_F4) == 1);
  Number secret = arithmetic.inverse(
      exponent, arithmetic.product(arithmetic.product(orders[0], orders[1]), orders[2]));
  Number rests[] = {arithmetic.remainder(secret, orders[0]),
                    arithmetic.remainder(secret, orders[1]),
                    arithmetic.remainder(secret, orders[2])};
  Number of_second = arithmetic.inverse(second, first);
  Number of_both = arithmetic.inverse(both, third);
  Number modulus = arithmetic.product(both, third);

  const auto set_key = [&](auto* n, auto* e, auto* d) { return RSA_set0_key(key, n, e, d); };
  hand_over(arithmetic, set_key, modulus, exponent, secret);
  const auto set_two = [&](auto* one, auto* two) { return RSA_set0_factors(key, one, two); };
  hand_over(arithmetic, set_two, first, second);
  const auto set_rests = [&](auto* one, auto* two, auto* inverse) {
    return RSA_set0_crt_params(key, one, two, inverse);
  };
  hand_over(arithmetic, set_rests, rests[0], rests[1], of_second);
  const auto set_third = [&](BIGNUM* prime, BIGNUM* rest, BIGNUM* inverse) {
    return RSA_set0_multi_prime_params(key, &prime, &rest, &inverse, 1);
  };
  hand_over(arithmetic, set_third, third, rests[2], of_both);
}

}  // namespace

std::unique_ptr<EVP_PKEY, kelotls::Release<EVP_PKEY_free>> make_known_rsa_key() {
  Arithmetic arithmetic;
  std::array<Number, 3> primes = {Number(BN_get_rfc2409_prime_1024(nullptr)),
                                  Number(BN_get_rfc2409_prime_768(nullptr)),
                                  Number(BN_dup(BN_get0_nist_prime_521()))};
  const RsaKey key(RSA_new());
  std::unique_ptr<EVP_PKEY, kelotls::Release<EVP_PKEY_free>> result(EVP_PKEY_new());
  set_numbers(key.get(), arithmetic, primes);
  arithmetic.note(EVP_PKEY_set1_RSA(result.get(), key.get()) == 1);
  return arithmetic.is_right() ? std::move(result) : nullptr;
}

}  // namespace kelotlsctl
