// Owns Diffie-Hellman parameters.
#include "levels/dh_parameters.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "output/console.h"
#include "paths.h"
#include "tls/openssl.h"

namespace kelotlsctl {

namespace {

using Number = std::unique_ptr<BIGNUM, Release<BN_free>>;
using Room = std::unique_ptr<BN_CTX, Release<BN_CTX_free>>;

constexpr int kMaxBits = 10000;  // OpenSSL uses no larger modulus
// A number that is no prime gets past one round in four times at most, whoever has chosen it.
constexpr int kRounds = 12;
constexpr char kNoPrime[] = "the modulus is no prime";

/// The moduli of RFC 2409, 3526 and 7919.
bool is_named(const BIGNUM* modulus) {
  for (BIGNUM* (*const group)(BIGNUM*) :
       {BN_get_rfc2409_prime_1024, BN_get_rfc3526_prime_1536, BN_get_rfc3526_prime_2048,
        BN_get_rfc3526_prime_3072, BN_get_rfc3526_prime_4096, BN_get_rfc3526_prime_6144,
        BN_get_rfc3526_prime_8192}) {
    if (BN_cmp(Number(group(nullptr)).get(), modulus) == 0) {
      return true;
    }
  }
  for (const int group :
       {NID_ffdhe2048, NID_ffdhe3072, NID_ffdhe4096, NID_ffdhe6144, NID_ffdhe8192}) {
    const DhOwner named(DH_new_by_nid(group));
    if (named != nullptr && BN_cmp(DH_get0_p(named.get()), modulus) == 0) {
      return true;
    }
  }
  return false;
}

/// A round of Miller and Rabin: whether base^(odd * 2^i) is such as only a prime gives for every
/// base.
bool passes(const BIGNUM* base, const BIGNUM* odd, int twos, const BIGNUM* number, BN_CTX* room) {
  const Number last(BN_dup(number));
  const Number power(BN_new());
  BN_sub_word(last.get(), 1);
  BN_mod_exp(power.get(), base, odd, number, room);
  bool has_passed = BN_is_one(power.get()) != 0 || BN_cmp(power.get(), last.get()) == 0;
  for (int index = 1; index < twos && !has_passed; ++index) {
    BN_mod_sqr(power.get(), power.get(), number, room);
    has_passed = BN_cmp(power.get(), last.get()) == 0;
  }
  return has_passed;
}

/// Whether an odd number above 4 is prime. DH_check asks the same of OpenSSL, which takes 64 rounds
/// at least for each of two numbers: a third of a second for 2048 bits on a fast machine.
bool is_prime(const BIGNUM* number, BN_CTX* room) {
  const Number span(BN_dup(number));
  const Number odd(BN_dup(number));
  const Number base(BN_new());
  int twos = 0;
  BN_sub_word(span.get(), 3);
  BN_sub_word(odd.get(), 1);
  for (; BN_is_odd(odd.get()) == 0; ++twos) {
    BN_rshift1(odd.get(), odd.get());
  }
  for (int round = 0; round < kRounds; ++round) {
    if (BN_rand_range(base.get(), span.get()) != 1) {
      return false;
    }
    BN_add_word(base.get(), 2);
    if (!passes(base.get(), odd.get(), twos, number, room)) {
      return false;
    }
  }
  return true;
}

/// Whether twice a large prime and one is prime: by Pocklington's theorem one round tells.
bool is_prime_above(const BIGNUM* number, BN_CTX* room) {
  const Number two(BN_new());
  const Number power(BN_dup(number));
  BN_set_word(two.get(), 2);
  BN_sub_word(power.get(), 1);
  BN_mod_exp(power.get(), two.get(), power.get(), number, room);
  return BN_is_one(power.get()) != 0 && BN_mod_word(number, 3) != 0;
}

std::string modulus_fault(const BIGNUM* modulus) {
  if (is_named(modulus)) {
    return {};
  }
  const Room room(BN_CTX_new());
  const Number half(BN_new());
  BN_rshift1(half.get(), modulus);
  if (BN_is_negative(modulus) != 0 || BN_is_odd(modulus) == 0 || BN_num_bits(modulus) < 4) {
    return kNoPrime;
  }
  if (BN_is_odd(half.get()) != 0 && is_prime(half.get(), room.get())) {
    return is_prime_above(modulus, room.get()) ? "" : kNoPrime;
  }
  return is_prime(modulus, room.get()) ? "the modulus is no safe prime" : kNoPrime;
}

/// Between 1 and the modulus less 1, both excluded: these generate next to nothing.
bool is_in_range(const BIGNUM* generator, const BIGNUM* modulus) {
  const Number last(BN_dup(modulus));
  BN_sub_word(last.get(), 1);
  return BN_is_negative(generator) == 0 && BN_is_zero(generator) == 0 &&
         BN_is_one(generator) == 0 && BN_cmp(generator, last.get()) < 0;
}

bool has_sound_subgroup(const DH* parameters) {
  int faults = 0;
  return DH_check(parameters, &faults) == 1 && faults == 0;
}

std::string pem_of(const DH* parameters) {
  const BioOwner bio(BIO_new(BIO_s_mem()));
  if (parameters == nullptr || PEM_write_bio_DHparams(bio.get(), parameters) != 1) {
    throw Failure(kFailed, "OpenSSL makes no DH parameters");
  }
  return text_of(bio.get());
}

}  // namespace

DhOwner parse_dh_parameters(const std::string& text, std::string* reason) {
  ERR_clear_error();
  const BioOwner bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  DhOwner parameters(PEM_read_bio_DHparams(bio.get(), nullptr, nullptr, nullptr));
  const std::string taken = take_openssl_reason();
  if (reason != nullptr) {
    *reason = taken;
  }
  return parameters;
}

std::string dh_fault(const DH* parameters) {
  const BIGNUM* const modulus = DH_get0_p(parameters);
  if (BN_num_bits(modulus) > kMaxBits) {
    return "the modulus has more than " + std::to_string(kMaxBits) + " bits";
  }
  if (!is_in_range(DH_get0_g(parameters), modulus)) {
    return "the generator is out of range";
  }
  // With a subgroup of their own (X9.42) the modulus need be no safe prime.
  if (DH_get0_q(parameters) != nullptr && !is_named(modulus)) {
    return has_sound_subgroup(parameters) ? "" : "the subgroup is none";
  }
  return modulus_fault(modulus);
}

std::string dh_pipe_fault(int level) {
  const char* const name = kelotls::profile_of_level(level).dh_file;
  const std::string path = name != nullptr ? std::string(kelotls::kDhParamDir) + name : "";
  struct stat status = {};
  const bool waits = level >= 0 && ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) &&
                     !S_ISDIR(status.st_mode);
  return waits ? path + " is no regular file" : std::string();
}

DhFile read_dh_file(const kelotls::Profile& profile) {
  DhFile file;
  file.path = std::string(kelotls::kDhParamDir) + profile.dh_file;
  std::string text;
  if (!kelotls::read_file(file.path, text)) {
    file.error = errno;
    file.fault = errno == EINVAL ? "is no regular file"
                                 : std::string("cannot be opened: ") + std::strerror(errno);
    return file;
  }
  std::string reason;
  file.parameters = parse_dh_parameters(text, &reason);
  if (file.parameters == nullptr) {
    file.fault = "holds no DH parameters: " + reason;
    return file;
  }
  const std::string fault = dh_fault(file.parameters.get());
  const int bits = DH_bits(file.parameters.get());
  file.is_unsafe = !fault.empty();
  if (file.is_unsafe) {
    file.fault = "holds unsafe DH parameters: " + fault;
  } else if (bits != profile.dh_bits) {
    file.fault = "holds parameters of " + std::to_string(bits) + " bits, not " +
                 std::to_string(profile.dh_bits);
  }
  return file;
}

std::string named_dh_text() { return pem_of(DhOwner(DH_new_by_nid(NID_ffdhe2048)).get()); }

std::string generated_dh_text(int bits) {
  const DhOwner parameters(DH_new());
  const bool is_made =
      DH_generate_parameters_ex(parameters.get(), bits, DH_GENERATOR_2, nullptr) == 1;
  return pem_of(is_made ? parameters.get() : nullptr);
}

}  // namespace kelotlsctl
