// The verdict on Diffie-Hellman parameters, and the parameters that kelotlsctl dh makes.
#include "levels/dh_parameters.h"

#include <openssl/bn.h>
#include <openssl/objects.h>
#include <sys/stat.h>

#include "framework.h"
#include "private_tree.h"

namespace kelotls::test {
namespace {

using kelotlsctl::dh_fault;
using kelotlsctl::DhOwner;
using kelotlsctl::read_dh_file;

using Number = std::unique_ptr<BIGNUM, Release<BN_free>>;

class DhParameters : public PrivateTree {};

constexpr char kFile[] = "/usr/kelo/etc/ssl/dh2048.pem";
constexpr char kNoPrime[] = "the modulus is no prime";
constexpr char kNoSafePrime[] = "the modulus is no safe prime";
constexpr char kBadGenerator[] = "the generator is out of range";

Number number(const char* decimal) {
  BIGNUM* result = nullptr;
  BN_dec2bn(&result, decimal);
  return Number(result);
}

/// Takes the modulus over.
std::string fault_of(Number modulus, Number generator) {
  const DhOwner parameters(DH_new());
  DH_set0_pqg(parameters.get(), modulus.release(), nullptr, generator.release());
  return dh_fault(parameters.get());
}

Number modulus_of(const std::string& name) {
  const DhOwner parameters = kelotlsctl::parse_dh_parameters(test_data("bed/data/" + name));
  return Number(BN_dup(DH_get0_p(parameters.get())));
}

TEST_F(DhParameters, FindsNothingWrongWithSafePrimes) {
  for (const char* const name : {"dh1024.pem", "dh2048.pem"}) {
    for (const char* const generator : {"2", "5"}) {
      EXPECT_EQ(fault_of(modulus_of(name), number(generator)), "") << name;
    }
  }
}

TEST_F(DhParameters, KnowsTheNamedGroups) {
  for (const int group :
       {NID_ffdhe2048, NID_ffdhe3072, NID_ffdhe4096, NID_ffdhe6144, NID_ffdhe8192}) {
    EXPECT_EQ(dh_fault(DhOwner(DH_new_by_nid(group)).get()), "") << OBJ_nid2sn(group);
  }
  for (BIGNUM* (*const group)(BIGNUM*) :
       {BN_get_rfc2409_prime_1024, BN_get_rfc3526_prime_1536, BN_get_rfc3526_prime_2048,
        BN_get_rfc3526_prime_3072, BN_get_rfc3526_prime_4096, BN_get_rfc3526_prime_6144,
        BN_get_rfc3526_prime_8192}) {
    EXPECT_EQ(fault_of(Number(group(nullptr)), number("2")), "");
  }
}

TEST_F(DhParameters, RefusesAModulusWithSmallFactors) {
  for (const BN_ULONG factor : {3u, 5u, 65537u}) {
    Number modulus = modulus_of("dh1024.pem");
    BN_mul_word(modulus.get(), factor);
    EXPECT_EQ(fault_of(std::move(modulus), number("2")), kNoPrime);
  }
  Number even = modulus_of("dh2048.pem");
  BN_add_word(even.get(), 1);
  EXPECT_EQ(fault_of(std::move(even), number("2")), kNoPrime);
}

TEST_F(DhParameters, RefusesTheProductOfTwoPrimes) {
  Number product(BN_new());
  const std::unique_ptr<BN_CTX, Release<BN_CTX_free>> room(BN_CTX_new());
  BN_sqr(product.get(), modulus_of("dh1024.pem").get(), room.get());
  EXPECT_EQ(fault_of(std::move(product), number("2")), kNoPrime);
}

TEST_F(DhParameters, RefusesAPrimeThatIsNotSafe) {
  Number prime(BN_new());
  do {
    BN_generate_prime_ex(prime.get(), 512, 0, nullptr, nullptr, nullptr);
  } while (BN_mod_word(prime.get(), 3) == 2 && BN_mod_word(prime.get(), 12) == 11);
  EXPECT_EQ(fault_of(std::move(prime), number("2")), kNoSafePrime);
}

TEST_F(DhParameters, RefusesAGeneratorOutOfRange) {
  Number last = modulus_of("dh1024.pem");
  BN_sub_word(last.get(), 1);
  Number beyond = modulus_of("dh1024.pem");
  BN_add_word(beyond.get(), 2);
  EXPECT_EQ(fault_of(modulus_of("dh1024.pem"), number("0")), kBadGenerator);
  EXPECT_EQ(fault_of(modulus_of("dh1024.pem"), number("1")), kBadGenerator);
  EXPECT_EQ(fault_of(modulus_of("dh1024.pem"), number("-2")), kBadGenerator);
  EXPECT_EQ(fault_of(modulus_of("dh1024.pem"), std::move(last)), kBadGenerator);
  EXPECT_EQ(fault_of(modulus_of("dh1024.pem"), std::move(beyond)), kBadGenerator);
  EXPECT_EQ(fault_of(Number(BN_get_rfc3526_prime_2048(nullptr)), number("1")), kBadGenerator);
}

TEST_F(DhParameters, RefusesSmallAndHugeNumbers) {
  for (const char* const modulus : {"0", "1", "2", "3", "4", "-23"}) {
    EXPECT_NE(fault_of(number(modulus), number("2")), "") << modulus;
  }
  Number huge(BN_new());
  BN_set_bit(huge.get(), 20000);
  BN_add_word(huge.get(), 1);
  EXPECT_EQ(fault_of(std::move(huge), number("2")), "the modulus has more than 10000 bits");
}

TEST_F(DhParameters, RefusesABadSubgroup) {
  const DhOwner parameters(DH_new());
  DH_set0_pqg(parameters.get(), modulus_of("dh1024.pem").release(), number("15").release(),
              number("2").release());
  EXPECT_EQ(dh_fault(parameters.get()), "the subgroup is none");
}

std::string fault_of_file() { return read_dh_file(profile_of_level(2)).fault; }

TEST_F(DhParameters, ReadsAFileAndSaysWhatIsWrongWithIt) {
  write_file(kFile, test_data("bed/data/dh2048.pem"));
  EXPECT_EQ(fault_of_file(), "");
  write_file(kFile, test_data("bed/data/dh1024.pem"));
  EXPECT_EQ(fault_of_file(), "holds parameters of 1024 bits, not 2048");
  write_file(kFile, "none");
  EXPECT_EQ(fault_of_file(), "holds no DH parameters: no start line");
  remove_all(kFile);
  EXPECT_EQ(fault_of_file(), "cannot be opened: No such file or directory");
  make_directories(kFile);
  EXPECT_EQ(fault_of_file(), "cannot be opened: Is a directory");
}

TEST_F(DhParameters, DoesNotWaitForAPipe) {
  ASSERT_EQ(::mkfifo(kFile, 0600), 0);
  EXPECT_EQ(fault_of_file(), "is no regular file");
}

TEST_F(DhParameters, OfTheNamedGroupAreThoseOfItsStandard) {
  const DhOwner made = kelotlsctl::parse_dh_parameters(kelotlsctl::named_dh_text());
  ASSERT_NE(made, nullptr);
  const DhOwner named(DH_new_by_nid(NID_ffdhe2048));
  EXPECT_EQ(BN_cmp(DH_get0_p(made.get()), DH_get0_p(named.get())), 0);
  EXPECT_TRUE(BN_is_word(DH_get0_g(made.get()), 2));
}

TEST_F(DhParameters, ThatAreGeneratedAreSoundAndNew) {
  const DhOwner one = kelotlsctl::parse_dh_parameters(kelotlsctl::generated_dh_text(512));
  const DhOwner other = kelotlsctl::parse_dh_parameters(kelotlsctl::generated_dh_text(512));
  EXPECT_EQ(DH_bits(one.get()), 512);
  EXPECT_EQ(dh_fault(one.get()), "");
  EXPECT_NE(BN_cmp(DH_get0_p(one.get()), DH_get0_p(other.get())), 0);
}

}  // namespace
}  // namespace kelotls::test
