// The tables of cipher suites and named groups, against themselves and against the local OpenSSL.
#include "tls/registry.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "files.h"

namespace kelotls::test {
namespace {

using kelotlsctl::all_groups;
using kelotlsctl::all_suites;
using kelotlsctl::KeyExchange;

using ContextOwner = std::unique_ptr<SSL_CTX, Release<SSL_CTX_free>>;
using SslOwner = std::unique_ptr<SSL, Release<SSL_free>>;
using Groups = std::vector<std::uint16_t>;

constexpr unsigned kSupportedGroups = 10;  // the extension of a hello
constexpr unsigned kExplicitCurves = 0xff00;

template <typename Row>
void expect_ascending_numbers(const std::vector<Row>& rows) {
  for (std::size_t i = 1; i < rows.size(); ++i) {
    EXPECT_LT(rows[i - 1].number, rows[i].number) << rows[i].name;
  }
}

/// A suite whose two spellings are the same has that name once.
template <typename Row>
void expect_names_of_one_row_each(const std::vector<Row>& rows) {
  std::set<std::string> names;
  for (const Row& row : rows) {
    EXPECT_TRUE(names.insert(row.name).second) << row.name;
    EXPECT_TRUE(names.insert(row.iana_name).second || std::string(row.name) == row.iana_name)
        << row.iana_name;
  }
}

/// Two equal bytes that end in "a", as the values of RFC 8701 alone have them.
bool is_grease(std::uint16_t number) {
  return (number & 0x0f0f) == 0x0a0a && (number >> 8) == (number & 0xff);
}

TEST(Registry, HasEachNumberOnceInAscendingOrder) {
  expect_ascending_numbers(all_suites());
  expect_ascending_numbers(all_groups());
  EXPECT_EQ(all_suites().size(), 368U);
  EXPECT_EQ(all_groups().size(), 55U);
}

TEST(Registry, HasEachNameOnce) {
  expect_names_of_one_row_each(all_suites());
  expect_names_of_one_row_each(all_groups());
}

TEST(Registry, TakesSignalsAndGreaseForNoSuites) {
  for (const unsigned number : {0x0000U, 0x00ffU, 0x5600U}) {
    EXPECT_EQ(kelotlsctl::find_suite(static_cast<std::uint16_t>(number)), nullptr) << number;
  }
  for (const auto& suite : all_suites()) {
    EXPECT_FALSE(is_grease(suite.number)) << suite.name;
  }
  for (const auto& group : all_groups()) {
    EXPECT_FALSE(is_grease(group.number)) << group.name;
  }
}

TEST(Registry, FindsEachRowByItsNumberAndByBothSpellings) {
  for (const auto& suite : all_suites()) {
    EXPECT_EQ(kelotlsctl::find_suite(suite.number), &suite);
    EXPECT_EQ(kelotlsctl::suite_name(suite.number), suite.name);
    EXPECT_EQ(kelotlsctl::suite_number(suite.name), suite.number);
    EXPECT_EQ(kelotlsctl::suite_number(suite.iana_name), suite.number);
  }
  for (const auto& group : all_groups()) {
    EXPECT_EQ(kelotlsctl::find_group(group.number), &group);
    EXPECT_EQ(kelotlsctl::group_name(group.number), group.name);
    EXPECT_EQ(kelotlsctl::group_number(group.name), group.number);
    EXPECT_EQ(kelotlsctl::group_number(group.iana_name), group.number);
  }
}

TEST(Registry, ShowsAnUnknownNumberAsANumber) {
  EXPECT_EQ(kelotlsctl::suite_name(0x0a0a), "0x0a0a");
  EXPECT_EQ(kelotlsctl::suite_name(0), "0x0000");
  EXPECT_EQ(kelotlsctl::group_name(0xffff), "0xffff");
  EXPECT_EQ(kelotlsctl::find_group(0xffff), nullptr);
  EXPECT_EQ(kelotlsctl::suite_number("0x0a0a"), 0);
  EXPECT_EQ(kelotlsctl::suite_number(""), 0);
  EXPECT_EQ(kelotlsctl::group_number("secp256"), 0);
}

// What OpenSSL has with nothing switched off: it must not know better than the table.

TEST(Registry, SpellsSuitesAsTheLocalOpenSslDoes) {
  const ContextOwner context(SSL_CTX_new(TLS_server_method()));
  SSL_CTX_set_security_level(context.get(), 0);
  ASSERT_EQ(SSL_CTX_set_cipher_list(context.get(), "ALL:COMPLEMENTOFALL"), 1);
  ASSERT_EQ(SSL_CTX_set_ciphersuites(context.get(),
                                     "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:"
                                     "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_CCM_SHA256:"
                                     "TLS_AES_128_CCM_8_SHA256"),
            1);
  const STACK_OF(SSL_CIPHER)* const ciphers = SSL_CTX_get_ciphers(context.get());

  ASSERT_GT(sk_SSL_CIPHER_num(ciphers), 100);
  for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
    const SSL_CIPHER* const cipher = sk_SSL_CIPHER_value(ciphers, i);
    const auto* const suite = kelotlsctl::find_suite(SSL_CIPHER_get_protocol_id(cipher));
    ASSERT_NE(suite, nullptr) << SSL_CIPHER_get_name(cipher);
    EXPECT_STREQ(suite->name, SSL_CIPHER_get_name(cipher));
    EXPECT_STREQ(suite->iana_name, SSL_CIPHER_standard_name(cipher));
  }
}

int keep_groups(SSL* server, int* /*alert*/, void* kept) {
  const unsigned char* bytes = nullptr;
  std::size_t size = 0;
  if (SSL_client_hello_get0_ext(server, kSupportedGroups, &bytes, &size) == 1) {
    for (std::size_t i = 2; i + 1 < size; i += 2) {
      static_cast<Groups*>(kept)->push_back(
          static_cast<std::uint16_t>(bytes[i] << 8 | bytes[i + 1]));
    }
  }
  return SSL_CLIENT_HELLO_ERROR;
}

/// The groups of a hello of the client's context.
Groups groups_in_hello(SSL_CTX* of_client) {
  Groups groups;
  const ContextOwner of_server(SSL_CTX_new(TLS_server_method()));
  SSL_CTX_set_client_hello_cb(of_server.get(), keep_groups, &groups);
  const SslOwner client(SSL_new(of_client));
  const SslOwner server(SSL_new(of_server.get()));
  BIO* ours = nullptr;
  BIO* theirs = nullptr;
  BIO_new_bio_pair(&ours, 1 << 16, &theirs, 1 << 16);
  SSL_set_bio(client.get(), ours, ours);
  SSL_set_bio(server.get(), theirs, theirs);
  SSL_connect(client.get());
  SSL_accept(server.get());
  return groups;
}

ContextOwner lenient_client() {
  ContextOwner context(SSL_CTX_new(TLS_client_method()));
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_cipher_list(context.get(), "ALL");
  return context;
}

TEST(Registry, NumbersGroupsAsTheLocalOpenSslDoes) {
  std::set<std::string> known;
  for (const auto& group : all_groups()) {
    const ContextOwner client = lenient_client();
    if (SSL_CTX_set1_groups_list(client.get(), group.name) == 1) {
      known.insert(group.name);
      // OpenSSL may know a group by name for certificates alone, and then offers none.
      const Groups offered = groups_in_hello(client.get());
      EXPECT_TRUE(offered.empty() || offered == Groups{group.number}) << group.name;
    }
  }
  for (const char* const name : {"prime256v1", "secp384r1", "secp521r1", "X25519", "X448"}) {
    EXPECT_EQ(known.count(name), 1U) << name;
  }
}

TEST(Registry, KnowsTheGroupsThatTheLocalOpenSslOffers) {
  const Groups offered = groups_in_hello(lenient_client().get());

  EXPECT_GE(offered.size(), 5U);
  for (const std::uint16_t number : offered) {
    EXPECT_NE(kelotlsctl::find_group(number), nullptr) << number;
  }
}

#if OPENSSL_VERSION_NUMBER >= 0x30000000L
TEST(Registry, SpellsGroupsAsTheLocalOpenSslDoes) {
  const ContextOwner context = lenient_client();
  const SslOwner connection(SSL_new(context.get()));
  int known = 0;
  for (unsigned number = 1; number < kExplicitCurves; ++number) {
    const char* const name =
        SSL_group_to_name(connection.get(), static_cast<int>(TLSEXT_nid_unknown | number));
    if (name != nullptr) {
      ++known;
      const auto* const group = kelotlsctl::find_group(static_cast<std::uint16_t>(number));
      ASSERT_NE(group, nullptr) << name;
      EXPECT_STREQ(group->iana_name, name);
    }
  }
  EXPECT_GE(known, 30);
}
#endif

struct Example {
  const char* suite;
  KeyExchange key_exchange;
};

TEST(Registry, TellsTheKeyExchangeOfASuite) {
  // clang-format off
  const Example examples[] = {
      {"ECDHE-ECDSA-AES128-GCM-SHA256",             KeyExchange::kEcdheEcdsa},
      {"ECDHE-ECDSA-CHACHA20-POLY1305",             KeyExchange::kEcdheEcdsa},
      {"ECDHE-RSA-AES256-GCM-SHA384",               KeyExchange::kEcdheRsa},
      {"ECDHE-RSA-CHACHA20-POLY1305-OLD",           KeyExchange::kEcdheRsa},
      {"DHE-RSA-AES128-GCM-SHA256",                 KeyExchange::kDheRsa},
      {"EXP-DHE-RSA-DES-CBC-SHA",                   KeyExchange::kDheRsa},
      {"DHE-DSS-AES256-SHA",                        KeyExchange::kDheDss},
      {"EXP1024-DHE-DSS-RC4-SHA",                   KeyExchange::kDheDss},
      {"AES128-SHA",                                KeyExchange::kRsa},
      {"EXP-RC4-MD5",                               KeyExchange::kRsa},
      {"NULL-SHA256",                               KeyExchange::kRsa},
      {"SSL_RSA_FIPS_WITH_3DES_EDE_CBC_SHA",        KeyExchange::kRsa},
      {"ADH-AES128-SHA",                            KeyExchange::kDhAnon},
      {"EXP-ADH-RC4-MD5",                           KeyExchange::kDhAnon},
      {"AECDH-AES128-SHA",                          KeyExchange::kEcdhAnon},
      {"DH-RSA-AES128-SHA",                         KeyExchange::kStaticDh},
      {"DH-DSS-AES128-SHA",                         KeyExchange::kStaticDh},
      {"ECDH-RSA-AES128-SHA",                       KeyExchange::kStaticEcdh},
      {"ECDH-ECDSA-AES128-SHA",                     KeyExchange::kStaticEcdh},
      {"PSK-AES128-CBC-SHA",                        KeyExchange::kPsk},
      {"RSA-PSK-AES128-CBC-SHA",                    KeyExchange::kPsk},
      {"DHE-PSK-AES128-CBC-SHA",                    KeyExchange::kPsk},
      {"DHE-PSK-AES128-CCM8",                       KeyExchange::kPsk},
      {"ECDHE-PSK-AES128-CBC-SHA",                  KeyExchange::kPsk},
      {"SRP-RSA-AES-128-CBC-SHA",                   KeyExchange::kSrp},
      {"EXP-KRB5-RC4-MD5",                          KeyExchange::kKrb5},
      {"GOST2001-GOST89-GOST89",                    KeyExchange::kGost},
      {"GOST2012-MAGMA-MAGMAOMAC",                  KeyExchange::kGost},
      {"TLS_ECCPWD_WITH_AES_128_GCM_SHA256",        KeyExchange::kOther},
      {"TLS_ECJPAKE_WITH_AES_128_CCM_8",            KeyExchange::kOther},
      {"TLS_AES_128_GCM_SHA256",                    KeyExchange::kLeftOpen},
      {"TLS_SM4_GCM_SM3",                           KeyExchange::kLeftOpen},
      {"TLS_SHA256_SHA256",                         KeyExchange::kLeftOpen},
      {"TLS_GOSTR341112_256_WITH_MAGMA_MGM_S",      KeyExchange::kLeftOpen},
  };
  // clang-format on
  for (const Example& example : examples) {
    const auto* const suite = kelotlsctl::find_suite(kelotlsctl::suite_number(example.suite));
    ASSERT_NE(suite, nullptr) << example.suite;
    EXPECT_EQ(kelotlsctl::key_exchange_of(*suite), example.key_exchange) << example.suite;
  }
}

TEST(Registry, LeavesTheKeyExchangeOfTwoFamiliesAloneToOthers) {
  for (const auto& suite : all_suites()) {
    const std::string name = suite.iana_name;
    const bool is_known =
        name.find("ECCPWD") == std::string::npos && name.find("ECJPAKE") == std::string::npos;
    EXPECT_EQ(kelotlsctl::key_exchange_of(suite) != KeyExchange::kOther, is_known) << name;
  }
}

}  // namespace
}  // namespace kelotls::test
