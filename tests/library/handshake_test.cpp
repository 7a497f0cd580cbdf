// What a client meets: versions, suites, groups and temporary DH parameters, by real handshakes.
#include "tls_client.h"

#include <openssl/crypto.h>

#include <utility>

namespace kelotls::test {
namespace {

struct LevelCase {
  int level;
  Lines versions;
};

constexpr int kVersions[] = {TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION};
const LevelCase kLevels[] = {
    {1, {"TLSv1.3"}},
    {2, {"TLSv1.2", "TLSv1.3"}},
    {3, {"TLSv1", "TLSv1.1", "TLSv1.2", "TLSv1.3"}},
    {7, {"TLSv1.2", "TLSv1.3"}},
};

class Handshake : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    write_dh_files();
  }
};

/// At security level 0, where a level is fully itself on every OpenSSL.
class LiftedHandshake : public Handshake {
 protected:
  void SetUp() override {
    Handshake::SetUp();
    lift_security_level();
  }
};

int security_level() { return SSL_CTX_get_security_level(plain_context().get()); }

/// TLS 1.0 and 1.1 sign with SHA-1, which OpenSSL 3 takes for too weak above security level 0.
bool serves_tls_1_0() {
  return security_level() <= (OpenSSL_version_num() >= 0x30000000UL ? 0 : 1);
}

std::string title(int level, const std::string& rest) {
  return "level " + std::to_string(level) + ", " + rest + ": ";
}

std::string certificate_for(const std::string& suite) {
  return suite.find("ECDSA") != std::string::npos ? "ecdsa" : "rsa";
}

bool openssl_has(const std::string& suite) {
  return SSL_CTX_set_cipher_list(plain_context().get(), (suite + ":@SECLEVEL=0").c_str()) == 1;
}

/// Those of the suites that the level accepts from a client that offers nothing else.
Lines accepted(int level, int version, const Lines& suites) {
  const Context context = acquire(level);
  Lines names;
  for (const std::string& suite : suites) {
    if (version != TLS1_3_VERSION && !openssl_has(suite)) {
      continue;
    }
    if (shake_hands(context.get(), certificate_for(suite), {version, suite}).suite == suite) {
      names.push_back(suite);
    }
  }
  return names;
}

/// The same for a server that accepts all of them: a suite that only the level refuses is refused
/// because of the level.
Lines accepted_by_the_willing(int version, const Lines& suites) {
  Lines names;
  for (const std::string& suite : suites) {
    const Context context = willing_context(version, suite);
    names.push_back(shake_hands(context.get(), certificate_for(suite), {version, suite}).suite);
  }
  return names;
}

std::string key_exchange(int level, const Client& client) {
  return shake_hands(acquire(level).get(), "rsa", client).key_exchange;
}

// Versions

/// Every version with every level and kind of certificate, as far as OpenSSL itself allows it.
void expect_versions_of_levels() {
  Lines got;
  Lines want;
  for (const LevelCase& expected : kLevels) {
    const Context context = acquire(expected.level);
    for (const char* certificate : {"rsa", "ecdsa"}) {
      Lines versions;
      for (const int version : kVersions) {
        const Connection connection = shake_hands(context.get(), certificate, {version});
        if (connection.succeeded) {
          versions.push_back(connection.version);
        }
      }
      for (const std::string& version : versions) {
        got.push_back(title(expected.level, certificate) + version);
      }
      for (const std::string& version : expected.versions) {
        if (serves_tls_1_0() || version >= "TLSv1.2") {
          want.push_back(title(expected.level, certificate) + version);
        }
      }
    }
  }
  EXPECT_EQ(got, want);
}

TEST_F(Handshake, AcceptsTheVersionsOfTheLevel) { expect_versions_of_levels(); }

TEST_F(LiftedHandshake, AcceptsTheVersionsOfTheLevel) {
  ASSERT_TRUE(serves_tls_1_0());

  expect_versions_of_levels();
}

// TLS 1.2 suites

TEST_F(LiftedHandshake, AcceptsEverySuiteOfTheIntermediateList) {
  const Lines suites = split(kIntermediateList);

  EXPECT_EQ(accepted(2, TLS1_2_VERSION, suites), suites);
  EXPECT_EQ(accepted(7, TLS1_2_VERSION, suites), suites);
}

TEST_F(LiftedHandshake, AcceptsEverySuiteOfTheOldListThatOpenSslHas) {
  Lines suites = split(kOldList);
  const Lines got = accepted(3, TLS1_2_VERSION, suites);

  if (!openssl_has("DES-CBC3-SHA")) {
    ASSERT_EQ(suites.back(), "DES-CBC3-SHA");
    suites.pop_back();  // OpenSSL is usually built without
  }
  EXPECT_EQ(got, suites);
}

TEST_F(LiftedHandshake, AcceptsOldSuitesInOldVersions) {
  const Lines suites = {"ECDHE-ECDSA-AES128-SHA", "ECDHE-RSA-AES256-SHA", "AES128-SHA"};

  EXPECT_EQ(accepted(3, TLS1_VERSION, suites), suites);
  EXPECT_EQ(accepted(3, TLS1_1_VERSION, suites), suites);
}

TEST_F(LiftedHandshake, RefusesAnIntermediateServiceASuiteOutsideItsList) {
  const Lines suites = {"AES256-SHA",
                        "AES128-GCM-SHA256",
                        "ECDHE-RSA-AES128-SHA",
                        "ECDHE-ECDSA-AES256-SHA384",
                        "DHE-RSA-CHACHA20-POLY1305",
                        "DHE-RSA-AES128-SHA256"};
  ASSERT_EQ(accepted_by_the_willing(TLS1_2_VERSION, suites), suites);

  EXPECT_EQ(accepted(2, TLS1_2_VERSION, suites), Lines());
  EXPECT_EQ(accepted(7, TLS1_2_VERSION, suites), Lines());
}

TEST_F(LiftedHandshake, RefusesAnOldServiceASuiteOutsideItsList) {
  const Lines suites = {"CAMELLIA256-SHA",    "AES128-CCM",         "ECDHE-ECDSA-AES128-CCM",
                        "DHE-RSA-AES128-SHA", "DHE-RSA-AES256-SHA", "ARIA128-GCM-SHA256"};
  ASSERT_EQ(accepted_by_the_willing(TLS1_2_VERSION, suites), suites);

  EXPECT_EQ(accepted(3, TLS1_2_VERSION, suites), Lines());
}

TEST_F(Handshake, LeavesTheChoiceAmongItsSuitesToTheClient) {
  const Lines suites = split(kIntermediateList);
  const Context context = acquire(2);

  for (const auto& [first, second] : {std::pair(1, 3), std::pair(3, 1)}) {
    const std::string offer = suites[size_t(first)] + ":" + suites[size_t(second)];
    EXPECT_EQ(shake_hands(context.get(), "rsa", {TLS1_2_VERSION, offer}).suite,
              suites[size_t(first)]);
  }
}

// TLS 1.3 ciphersuites

TEST_F(Handshake, AcceptsTheThreeCiphersuitesAtEveryLevel) {
  const Lines suites = split(kCiphersuites);

  for (const LevelCase& expected : kLevels) {
    EXPECT_EQ(accepted(expected.level, TLS1_3_VERSION, suites), suites) << expected.level;
  }
}

TEST_F(Handshake, RefusesOtherCiphersuitesAtEveryLevel) {
  const Lines suites = {"TLS_AES_128_CCM_SHA256", "TLS_AES_128_CCM_8_SHA256"};
  ASSERT_EQ(accepted_by_the_willing(TLS1_3_VERSION, suites), suites);

  for (const LevelCase& expected : kLevels) {
    EXPECT_EQ(accepted(expected.level, TLS1_3_VERSION, suites), Lines()) << expected.level;
  }
}

TEST_F(Handshake, LeavesTheChoiceAmongItsCiphersuitesToTheClient) {
  const Context context = acquire(1);

  for (const char* offer : {"TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256",
                            "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256"}) {
    EXPECT_EQ(shake_hands(context.get(), "rsa", {TLS1_3_VERSION, offer}).suite,
              split(offer).front());
  }
}

// Groups

TEST_F(Handshake, AcceptsTheThreeCurvesAtEveryLevel) {
  for (const LevelCase& expected : kLevels) {
    const Context context = acquire(expected.level);
    for (const std::string& group : split(kGroups)) {
      SCOPED_TRACE(title(expected.level, group));
      EXPECT_EQ(shake_hands(context.get(), "rsa", {TLS1_3_VERSION, "", group}).key_exchange, group);
      if (expected.level != 1) {
        const Client client = {TLS1_2_VERSION, "ECDHE-RSA-AES128-GCM-SHA256", group};
        EXPECT_EQ(shake_hands(context.get(), "rsa", client).key_exchange, group);
      }
    }
  }
}

TEST_F(Handshake, RefusesOtherGroupsAtEveryLevel) {
  const Client tls13 = {TLS1_3_VERSION, "TLS_AES_128_GCM_SHA256", "X25519:X448"};
  const Client tls12 = {TLS1_2_VERSION, "ECDHE-RSA-AES128-GCM-SHA256", "X25519:X448"};
  for (const Client& client : {tls12, tls13}) {
    const Context willing = willing_context(client.version, client.suites);
    ASSERT_EQ(shake_hands(willing.get(), "rsa", client).key_exchange, "X25519");
  }

  for (const LevelCase& expected : kLevels) {
    for (const Client& client : {tls12, tls13}) {
      EXPECT_EQ(key_exchange(expected.level, client), "refused") << expected.level;
    }
  }
}

TEST_F(Handshake, MakesAClientThatStartsWithAnotherGroupTryAgain) {
  const Client client = {TLS1_3_VERSION, "", "X25519:secp384r1"};

  EXPECT_EQ(key_exchange(1, client), "secp384r1");
}

// Temporary DH parameters

const Client kDheClient = {TLS1_2_VERSION, "DHE-RSA-AES128-GCM-SHA256"};
const Client kEcdheClient = {TLS1_2_VERSION, "ECDHE-RSA-AES128-GCM-SHA256", "prime256v1"};

TEST_F(LiftedHandshake, ServesDheWithTheParametersOfTheLevel) {
  EXPECT_EQ(key_exchange(2, kDheClient), "DH 2048");
  EXPECT_EQ(key_exchange(3, kDheClient), "DH 1024");
  EXPECT_EQ(key_exchange(7, kDheClient), "DH 2048");
  EXPECT_EQ(log(), Lines());
}

TEST_F(Handshake, ServesOldDheAsFarAsTheSecurityLevelAllows) {
  EXPECT_EQ(key_exchange(2, kDheClient), "DH 2048");
  EXPECT_EQ(key_exchange(3, kDheClient), security_level() >= 2 ? "refused" : "DH 1024");
  EXPECT_EQ(key_exchange(3, kEcdheClient), "prime256v1");
  EXPECT_EQ(log(), Lines());
}

TEST_F(LiftedHandshake, OffersNoDheWithoutTheLevelsOwnFile) {
  for (const auto& [level, file] : {std::pair(2, "dh2048.pem"), std::pair(3, "dh1024.pem")}) {
    write_dh_files();
    remove_all(std::string(kSslDir) + file);
    EXPECT_EQ(key_exchange(level, kDheClient), "refused") << level;
    EXPECT_EQ(key_exchange(level, kEcdheClient), "prime256v1") << level;
  }
}

TEST_F(LiftedHandshake, OffersNoDheWithACorruptFile) {
  write_file(std::string(kSslDir) + "dh2048.pem", "no parameters");

  EXPECT_EQ(key_exchange(2, kDheClient), "refused");
  EXPECT_EQ(key_exchange(2, kEcdheClient), "prime256v1");
}

// Sessions

TEST_F(Handshake, KeepsSessionsToItselfInsteadOfSealingThemInTickets) {
  const Context plain = plain_context();
  ASSERT_GT(shake_hands(plain.get(), "rsa", {TLS1_2_VERSION}).ticket_bytes, 100u);
  ASSERT_GT(shake_hands(plain.get(), "rsa", {TLS1_3_VERSION}).ticket_bytes, 100u);

  for (const LevelCase& expected : kLevels) {
    const Context context = acquire(expected.level);
    EXPECT_EQ(shake_hands(context.get(), "rsa", {TLS1_2_VERSION}).ticket_bytes, 0u);
    // What TLS 1.3 calls a ticket is then no more than a number.
    const Connection connection = shake_hands(context.get(), "rsa", {TLS1_3_VERSION});
    EXPECT_EQ(connection.ticket_bytes, std::size_t{SSL_MAX_SSL_SESSION_ID_LENGTH});
  }
}

}  // namespace
}  // namespace kelotls::test
