// Hellos of real clients, changed at random: what the level does to each, against a client of
// OpenSSL that offers the same where one can, and always against the rules of the protocol, written
// a second time.
//
// KELOTLS_HELLOS: how many, else a few hundred. KELOTLS_SEED: the seed, which is printed.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "clients/judgement.h"
#include "clients/rewriting.h"
#include "framework.h"
#include "levels/report.h"
#include "loopback_server.h"
#include "private_tree.h"
#include "system/hexadecimal.h"
#include "tls/openssl.h"
#include "tls/registry.h"

namespace kelotls::test {
namespace {

using kelotlsctl::Bytes;
using kelotlsctl::ClientHello;
using kelotlsctl::ContextOwner;
using kelotlsctl::Numbers;
using kelotlsctl::SslOwner;

constexpr std::uint16_t kTls10 = 0x0301;
constexpr std::uint16_t kTls11 = 0x0302;
constexpr std::uint16_t kTls12 = 0x0303;
constexpr std::uint16_t kTls13 = 0x0304;
constexpr std::uint16_t kFallback = 0x5600;
constexpr std::uint16_t kRenegotiation = 0x00ff;

bool has(const Numbers& numbers, std::uint16_t number) {
  return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

// What clients offer

const std::map<std::uint16_t, const char*>& openssl_groups() {
  static const std::map<std::uint16_t, const char*> names = {{0x0017, "P-256"},
                                                             {0x0018, "P-384"},
                                                             {0x0019, "P-521"},
                                                             {0x001d, "X25519"},
                                                             {0x001e, "X448"},
                                                             {0x0100, "ffdhe2048"},
                                                             {0x0101, "ffdhe3072"},
                                                             {0x0102, "ffdhe4096"},
                                                             {0x0103, "ffdhe6144"},
                                                             {0x0104, "ffdhe8192"},
                                                             {0x001a, "brainpoolP256r1"},
                                                             {0x001b, "brainpoolP384r1"},
                                                             {0x001c, "brainpoolP512r1"},
                                                             {0x0016, "secp256k1"}};
  return names;
}

const std::map<std::uint16_t, const char*>& openssl_signatures() {
  static const std::map<std::uint16_t, const char*> names = {{0x0403, "ECDSA+SHA256"},
                                                             {0x0503, "ECDSA+SHA384"},
                                                             {0x0603, "ECDSA+SHA512"},
                                                             {0x0804, "rsa_pss_rsae_sha256"},
                                                             {0x0805, "rsa_pss_rsae_sha384"},
                                                             {0x0806, "rsa_pss_rsae_sha512"},
                                                             {0x0809, "rsa_pss_pss_sha256"},
                                                             {0x0401, "RSA+SHA256"},
                                                             {0x0501, "RSA+SHA384"},
                                                             {0x0601, "RSA+SHA512"},
                                                             {0x0201, "RSA+SHA1"},
                                                             {0x0203, "ECDSA+SHA1"},
                                                             {0x0807, "ed25519"},
                                                             {0x0808, "ed448"},
                                                             {0x0301, "RSA+SHA224"},
                                                             {0x0303, "ECDSA+SHA224"},
                                                             {0x080a, "rsa_pss_pss_sha384"},
                                                             {0x080b, "rsa_pss_pss_sha512"},
                                                             {0x0202, "DSA+SHA1"},
                                                             {0x0302, "DSA+SHA224"},
                                                             {0x0402, "DSA+SHA256"},
                                                             {0x0502, "DSA+SHA384"},
                                                             {0x0602, "DSA+SHA512"}};
  return names;
}

template <typename Map>
Numbers numbers_in(const Map& map) {
  Numbers numbers;
  for (const auto& entry : map) {
    numbers.push_back(entry.first);
  }
  return numbers;
}

Numbers all_suite_numbers() {
  Numbers numbers = {kFallback};
  for (const auto& suite : kelotlsctl::all_suites()) {
    numbers.push_back(suite.number);
  }
  return numbers;
}

Numbers all_group_numbers() {
  Numbers numbers;
  for (const auto& group : kelotlsctl::all_groups()) {
    numbers.push_back(group.number);
  }
  return numbers;
}

/// A hello as what it offers.
struct Offered {
  ClientHello base;
  Numbers suites;
  Numbers versions;
  Numbers groups;
  Numbers signatures;
  Numbers shares;  // the groups of the key shares
  bool has_versions = false;
  bool has_groups = false;
  bool has_signatures = false;
  bool has_shares = false;
};

Offered offered_by(const ClientHello& hello) {
  Offered offered;
  offered.base = hello;
  offered.suites = hello.suites;
  offered.versions = hello.versions;
  offered.groups = hello.groups;
  offered.signatures = hello.signature_algorithms;
  for (const auto& share : hello.key_shares) {
    offered.shares.push_back(share.group);
  }
  offered.has_versions = hello.find(kelotlsctl::kVersionsExtension) != nullptr;
  offered.has_groups = hello.find(kelotlsctl::kGroupsExtension) != nullptr;
  offered.has_signatures = hello.find(kelotlsctl::kSignatureAlgorithmsExtension) != nullptr;
  offered.has_shares = hello.find(kelotlsctl::kKeySharesExtension) != nullptr;
  return offered;
}

class Mutator {
 public:
  explicit Mutator(unsigned seed) : random_(seed) {}

  std::size_t below(std::size_t limit) { return random_() % limit; }
  bool chance(unsigned percent) { return below(100) < percent; }

  /// Leaves out, adds or reorders. A hello without any is none.
  void change(Numbers& numbers, const Numbers& common, const Numbers& all) {
    const std::size_t kind = below(4);
    if (kind == 0 && numbers.size() > 1) {
      const unsigned percent = chance(50) ? 20 : 90;
      Numbers kept;
      for (const std::uint16_t number : numbers) {
        if (!chance(percent)) {
          kept.push_back(number);
        }
      }
      numbers = kept.empty() ? Numbers{numbers[below(numbers.size())]} : kept;
    } else if (kind == 1) {
      std::shuffle(numbers.begin(), numbers.end(), random_);
    } else {
      const Numbers& source = chance(80) ? common : all;
      const std::uint16_t number = source[below(source.size())];
      if (!has(numbers, number)) {
        numbers.insert(numbers.begin() + static_cast<std::ptrdiff_t>(below(numbers.size() + 1)),
                       number);
      }
    }
  }

  Offered mutate(Offered offered, const Numbers& common_suites) {
    for (std::size_t changes = 1 + below(5); changes != 0; --changes) {
      change_once(offered, common_suites);
    }
    Numbers shares;  // of what is not offered none may be sent
    for (const std::uint16_t share : offered.shares) {
      if (has(offered.groups, share)) {
        shares.push_back(share);
      }
    }
    offered.shares = shares;
    return offered;
  }

 private:
  void change_once(Offered& offered, const Numbers& common_suites) {
    static const Numbers groups = numbers_in(openssl_groups());
    static const Numbers all_groups = all_group_numbers();
    static const Numbers signatures = numbers_in(openssl_signatures());
    static const Numbers versions = {kTls10, kTls11, kTls12, kTls13};
    static const Numbers all_suites = all_suite_numbers();
    switch (below(10)) {
      case 0:
        offered.has_groups = offered.has_groups && !chance(20);
        break;
      case 1:
        offered.has_signatures = offered.has_signatures && !chance(20);
        break;
      case 2:
        offered.has_versions = offered.has_versions && !chance(40);
        break;
      case 3:
        offered.base.version = versions[below(3)];
        break;
      case 4:
        change(offered.versions, versions, versions);
        break;
      case 5:
      case 6:
        change(offered.groups, groups, all_groups);
        break;
      case 7:
        change(offered.signatures, signatures, {0x0101, 0x081a, 0x0a0a});
        break;
      default:
        change(offered.suites, common_suites, all_suites);
    }
  }

  std::mt19937 random_;
};

/// A point of a group that has one here; any bytes for another, which the server passes over.
Bytes share_of(const Offered& offered, std::uint16_t group) {
  for (const auto& share : offered.base.key_shares) {
    if (share.group == group) {
      return share.key;
    }
  }
  return Bytes(1, '\1');
}

Bytes written(const Offered& offered) {
  using namespace kelotlsctl;
  ClientHello hello = offered.base;
  hello.suites = offered.suites;
  const auto put = [&](bool is_there, std::uint16_t kind, const Bytes& body) {
    is_there ? set_extension(hello, kind, body) : remove_extension(hello, kind);
  };
  Bytes shares;
  for (const std::uint16_t group : offered.shares) {
    shares += number_bytes(group, 2) + counted(share_of(offered, group), 2);
  }
  put(offered.has_versions, kVersionsExtension, counted(list_bytes(offered.versions), 1));
  put(offered.has_groups, kGroupsExtension, counted(list_bytes(offered.groups), 2));
  put(offered.has_signatures, kSignatureAlgorithmsExtension,
      counted(list_bytes(offered.signatures), 2));
  put(offered.has_shares, kKeySharesExtension, counted(shares, 2));
  return write_client_hello(hello);
}

// The rules

/// What the context has to give on this machine, where security levels keep things back.
struct Given {
  Numbers versions;
  Numbers suites;  // in TLS 1.2
  bool has_dhe = false;
  bool signs_with_sha1 = false;  // in TLS 1.2
};

struct Case {
  int level;
  bool is_rsa;
  Given given;
};

bool needs_tls12(const std::string& suite) {
  return suite.find("GCM") != std::string::npos || suite.find("CHACHA20") != std::string::npos ||
         suite.find("SHA256") != std::string::npos || suite.find("SHA384") != std::string::npos;
}

std::uint16_t newest_common(const Offered& offered, const Given& given) {
  std::uint16_t newest = 0;
  for (const std::uint16_t version : given.versions) {
    const bool is_offered = offered.has_versions
                                ? has(offered.versions, version)
                                : version <= std::min(offered.base.version, kTls12);
    newest = is_offered ? std::max(newest, version) : newest;
  }
  return newest;
}

bool shares_any(const Numbers& some, const Numbers& others) {
  return std::any_of(some.begin(), some.end(),
                     [&](std::uint16_t number) { return has(others, number); });
}

const Numbers kLevelGroups = {0x0017, 0x0018, 0x0019};

std::string tls13_outcome(const Offered& offered, bool is_rsa) {
  const Numbers signatures = is_rsa ? Numbers{0x0804, 0x0805, 0x0806} : Numbers{0x0403};
  const Numbers suites = {0x1301, 0x1302, 0x1303};
  if (!offered.has_groups || !offered.has_shares || !offered.has_signatures ||
      !shares_any(offered.groups, kLevelGroups) || !shares_any(offered.signatures, signatures)) {
    return "refused";
  }
  for (const std::uint16_t suite : offered.suites) {
    if (has(suites, suite)) {
      return "TLS 1.3 " + kelotlsctl::suite_name(suite);
    }
  }
  return "refused";
}

/// Whether the server can sign in TLS 1.2 with what the client takes: SHA-1 where it says nothing
/// of signatures, be it of those of certificates alone.
bool can_sign(const Offered& offered, const Case& one) {
  const Numbers rsa = {0x0401, 0x0501, 0x0601, 0x0301, 0x0804, 0x0805, 0x0806};
  const Numbers ecdsa = {0x0403, 0x0503, 0x0603, 0x0303};
  const bool takes_sha1 =
      offered.has_signatures
          ? has(offered.signatures, one.is_rsa ? 0x0201 : 0x0203)
          : offered.base.find(kelotlsctl::kCertificateSignaturesExtension) == nullptr;
  return (takes_sha1 && one.given.signs_with_sha1) ||
         (offered.has_signatures && shares_any(offered.signatures, one.is_rsa ? rsa : ecdsa));
}

/// OpenSSL takes the first suite that its keys and groups allow, in the client's order; only then
/// does it look for a signature. A client without the extension gets no elliptic curve from it.
std::string tls12_outcome(const Offered& offered, std::uint16_t version, const Case& one) {
  const bool has_group = offered.has_groups && shares_any(offered.groups, kLevelGroups);
  const bool has_curve = offered.has_groups && has(offered.groups, 0x0017);
  for (const std::uint16_t suite : offered.suites) {
    const std::string name = kelotlsctl::suite_name(suite);
    const bool is_ecdhe = name.rfind("ECDHE-", 0) == 0;
    const bool is_dhe = name.rfind("DHE-", 0) == 0;
    const bool is_ecdsa = name.rfind("ECDHE-ECDSA-", 0) == 0;
    if (!has(one.given.suites, suite) || (needs_tls12(name) && version < kTls12) ||
        is_ecdsa == one.is_rsa || (is_ecdhe && !has_group) || (is_ecdsa && !has_curve) ||
        (is_dhe && !one.given.has_dhe)) {
      continue;
    }
    // The certificate itself has to be signed with what the client takes, too.
    return version == kTls12 && !can_sign(offered, one)
               ? "refused"
               : "TLS 1." + std::to_string(version - kTls10) + " " + name;
  }
  return "refused";
}

std::string outcome_by_rules(const Offered& offered, const Case& one) {
  const std::uint16_t version = newest_common(offered, one.given);
  const bool has_come_down = has(offered.suites, kFallback) && version < one.given.versions.back();
  return version == 0 || has_come_down ? "refused"
         : version == kTls13           ? tls13_outcome(offered, one.is_rsa)
                                       : tls12_outcome(offered, version, one);
}

// A client that offers the same

template <typename Map>
bool all_known(const Numbers& numbers, const Map& names) {
  return std::all_of(numbers.begin(), numbers.end(),
                     [&](std::uint16_t number) { return names.count(number) != 0; });
}

template <typename Map>
std::string list_of_names(const Numbers& numbers, const Map& names) {
  std::string list;
  for (const std::uint16_t number : numbers) {
    list += (list.empty() ? "" : ":") + std::string(names.at(number));
  }
  return list;
}

std::map<std::uint16_t, std::string> suites_of_openssl() {
  const ContextOwner context(SSL_CTX_new(TLS_client_method()));
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_cipher_list(context.get(), "ALL:COMPLEMENTOFALL:!PSK:!SRP:!aNULL:!eNULL:@SECLEVEL=0");
  SSL_CTX_set_ciphersuites(context.get(),
                           "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_"
                           "SHA256:TLS_AES_128_CCM_SHA256:TLS_AES_128_CCM_8_SHA256");
  std::map<std::uint16_t, std::string> names;
  const STACK_OF(SSL_CIPHER)* const suites = SSL_CTX_get_ciphers(context.get());
  for (int index = 0; index < sk_SSL_CIPHER_num(suites); ++index) {
    const SSL_CIPHER* const suite = sk_SSL_CIPHER_value(suites, index);
    names[SSL_CIPHER_get_protocol_id(suite)] = SSL_CIPHER_get_name(suite);
  }
  return names;
}

/// What a client of OpenSSL would be told to offer.
struct Told {
  Numbers newer;  // suites of TLS 1.3
  Numbers older;
  Numbers versions;
};

Told told_by(const Offered& offered) {
  Told told;
  for (const std::uint16_t suite : offered.suites) {
    if (suite != kRenegotiation && suite != kFallback) {
      (suite >> 8 == 0x13 ? told.newer : told.older).push_back(suite);
    }
  }
  told.versions = offered.versions;
  std::sort(told.versions.begin(), told.versions.end());
  if (!offered.has_versions) {
    told.versions = {kTls10, std::min(offered.base.version, kTls12)};
  }
  return told;
}

/// It offers each version between two, suites for all of them, and the extensions that go with TLS
/// 1.2 and later.
bool can_offer(const Offered& offered, const Told& told,
               const std::map<std::uint16_t, std::string>& known_suites) {
  const std::uint16_t newest = told.versions.back();
  const std::uint16_t oldest = told.versions.front();
  const bool is_whole =
      !offered.has_versions || std::size_t{newest} - oldest + 1 == told.versions.size();
  return is_whole && newest >= kTls12 && told.newer.empty() == (newest < kTls13) &&
         told.older.empty() == (oldest == kTls13) && offered.has_groups && offered.has_signatures &&
         (newest < kTls13 || offered.has_shares) && all_known(told.newer, known_suites) &&
         all_known(told.older, known_suites) && all_known(offered.groups, openssl_groups()) &&
         all_known(offered.signatures, openssl_signatures());
}

/// Null where no client of OpenSSL can offer just this.
ContextOwner client_that_offers(const Offered& offered,
                                const std::map<std::uint16_t, std::string>& known_suites) {
  const Told told = told_by(offered);
  if (!can_offer(offered, told, known_suites)) {
    return nullptr;
  }
  ContextOwner context(SSL_CTX_new(TLS_client_method()));
  SSL_CTX* const raw = context.get();
  SSL_CTX_set_security_level(raw, 0);
  SSL_CTX_set_mode(raw, has(offered.suites, kFallback) ? SSL_MODE_SEND_FALLBACK_SCSV : 0);
  const std::string newer = list_of_names(told.newer, known_suites);
  const std::string older = list_of_names(told.older, known_suites);
  const std::string groups = list_of_names(offered.groups, openssl_groups());
  const std::string signatures = list_of_names(offered.signatures, openssl_signatures());
  const bool is_set = SSL_CTX_set_min_proto_version(raw, told.versions.front()) == 1 &&
                      SSL_CTX_set_max_proto_version(raw, told.versions.back()) == 1 &&
                      (newer.empty() || SSL_CTX_set_ciphersuites(raw, newer.c_str()) == 1) &&
                      (older.empty() || SSL_CTX_set_cipher_list(raw, older.c_str()) == 1) &&
                      SSL_CTX_set1_groups_list(raw, groups.c_str()) == 1 &&
                      SSL_CTX_set1_sigalgs_list(raw, signatures.c_str()) == 1;
  ERR_clear_error();
  return is_set ? std::move(context) : nullptr;
}

/// "TLS 1.2 AES128-SHA" or "refused"; empty where the client says nothing or is the one to refuse.
std::string outcome_of_handshake(SSL_CTX* server_context, SSL_CTX* client_context) {
  const SslOwner server(SSL_new(server_context));
  const SslOwner client(SSL_new(client_context));
  BIO* const to_server = BIO_new(BIO_s_mem());
  BIO* const to_client = BIO_new(BIO_s_mem());
  BIO_set_mem_eof_return(to_server, -1);
  BIO_set_mem_eof_return(to_client, -1);
  BIO_up_ref(to_server);
  BIO_up_ref(to_client);
  SSL_set_bio(server.get(), to_server, to_client);
  SSL_set_bio(client.get(), to_client, to_server);
  bool is_refused = false;
  for (int turn = 0; turn < 4; ++turn) {
    ERR_clear_error();
    const int result = SSL_connect(client.get());
    const bool client_fails =
        result <= 0 && SSL_get_error(client.get(), result) != SSL_ERROR_WANT_READ;
    if (client_fails) {
      ERR_clear_error();
      return is_refused ? "refused" : "";
    }
    ERR_clear_error();
    const int accepted = SSL_accept(server.get());
    is_refused = accepted <= 0 && SSL_get_error(server.get(), accepted) != SSL_ERROR_WANT_READ;
  }
  ERR_clear_error();
  if (SSL_is_init_finished(client.get()) == 0) {
    return "refused";
  }
  return "TLS 1." + std::to_string(SSL_version(client.get()) - kTls10) + " " +
         SSL_get_cipher_name(client.get());
}

// All together

std::string text_of(const kelotlsctl::Judgement& judgement) {
  return judgement.is_answered ? "TLS 1." + std::to_string(judgement.version - kTls10) + " " +
                                     kelotlsctl::suite_name(judgement.suite)
                               : "refused";
}

unsigned number_of(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

std::vector<Offered> real_hellos() {
  std::vector<Offered> hellos;
  for (const Json::Value& one : read_json(KELOTLS_REAL_HELLOS)) {
    const auto hello =
        kelotlsctl::read_client_hello(kelotlsctl::octets_of(one["hello"].asString()));
    if (hello) {
      hellos.push_back(offered_by(*hello));
    }
  }
  return hellos;
}

class ClientsMutated : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    make_directories(kSslDir);
    write_dh_files();
  }
};

/// Whether a client with this alone is answered in TLS 1.2.
bool is_answered(SSL_CTX* server, const char* suites, const char* signatures) {
  const ContextOwner client(SSL_CTX_new(TLS_client_method()));
  SSL_CTX_set_security_level(client.get(), 0);
  SSL_CTX_set_max_proto_version(client.get(), kTls12);
  SSL_CTX_set_cipher_list(client.get(), suites);
  SSL_CTX_set1_sigalgs_list(client.get(), signatures);
  return outcome_of_handshake(server, client.get()).rfind("TLS 1.2", 0) == 0;
}

/// What OpenSSL's security level leaves, and OpenSSL 1.1 leaves more of it: seen by clients that
/// offer one thing.
Given given_by(SSL_CTX* server, const std::map<std::uint16_t, std::string>& suites) {
  Given given;
  for (const std::uint16_t version : {kTls10, kTls11, kTls12, kTls13}) {
    const ContextOwner client(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_security_level(client.get(), 0);
    SSL_CTX_set_cipher_list(client.get(), "ALL:@SECLEVEL=0");
    SSL_CTX_set_min_proto_version(client.get(), version);
    SSL_CTX_set_max_proto_version(client.get(), version);
    if (outcome_of_handshake(server, client.get()).rfind("TLS", 0) == 0) {
      given.versions.push_back(version);
    }
  }
  const STACK_OF(SSL_CIPHER)* const ciphers = SSL_CTX_get_ciphers(server);
  for (int index = 0; index < sk_SSL_CIPHER_num(ciphers); ++index) {
    const std::uint16_t number = SSL_CIPHER_get_protocol_id(sk_SSL_CIPHER_value(ciphers, index));
    if (number >> 8 != 0x13 && suites.count(number) != 0) {
      given.suites.push_back(number);
    }
  }
  given.has_dhe = is_answered(server, "kDHE:@SECLEVEL=0", "RSA+SHA256:ECDSA+SHA256");
  given.signs_with_sha1 = is_answered(server, "ALL:@SECLEVEL=0", "RSA+SHA1:ECDSA+SHA1");
  return given;
}

using Suites = std::map<std::uint16_t, std::string>;

/// A level with a kind of certificate.
struct Setting {
  ContextOwner served;
  ContextOwner judged;
  Case one;

  kelotlsctl::Judgement judge(const Bytes& hello) const {
    kelotlsctl::CertificateFacts certificate;
    certificate.kind = one.is_rsa ? "RSA" : "ECDSA";
    certificate.bits = 2048;
    certificate.curve = "prime256v1";
    const kelotlsctl::Judge judge(judged.get(), {certificate});
    const kelotlsctl::Judgement judgement = judge.judge(hello);
    EXPECT_EQ(judge.answers(hello), judgement.is_answered);
    return judgement;
  }
};

std::vector<Setting> all_settings(const Suites& known_suites) {
  std::vector<Setting> settings;
  for (const int level : {1, 2, 3}) {
    for (const bool is_rsa : {true, false}) {
      Setting setting = {kelotlsctl::make_level_context(level),
                         kelotlsctl::make_level_context(level),
                         {level, is_rsa, {}}};
      use_certificate(setting.served.get(), is_rsa ? "rsa" : "ecdsa");
      setting.one.given = given_by(setting.served.get(), known_suites);
      settings.push_back(std::move(setting));
    }
  }
  return settings;
}

/// How many hellos came out how, and how many of them stood beside a real handshake.
struct Tally {
  std::map<std::string, unsigned> outcomes;
  unsigned handshakes = 0;
};

void hold(const Offered& offered, const Setting& setting, const Suites& known_suites,
          Tally& tally) {
  const Bytes hello = written(offered);

  const kelotlsctl::Judgement judgement = setting.judge(hello);

  const std::string judged = text_of(judgement);
  const std::string by_rules = outcome_by_rules(offered, setting.one);
  const ContextOwner client = client_that_offers(offered, known_suites);
  const std::string real =
      client != nullptr ? outcome_of_handshake(setting.served.get(), client.get()) : "";
  EXPECT_TRUE(judged == by_rules && (real.empty() || real == judged))
      << "at level " << setting.one.level << (setting.one.is_rsa ? " RSA" : " ECDSA") << ": judged "
      << judged << " (" << judgement.text << "), by the rules " << by_rules << ", handshake "
      << real << "\n"
      << kelotlsctl::hexadecimal_digits(hello);
  tally.handshakes += real.empty() ? 0 : 1;
  ++tally.outcomes[judgement.is_answered ? judged.substr(0, 7) : judgement.lacks.front()];
}

TEST_F(ClientsMutated, AreJudgedAsTheProtocolHasIt) {
  const unsigned count = number_of("KELOTLS_HELLOS", 400);
  const unsigned seed = number_of("KELOTLS_SEED", std::random_device()());
  const std::vector<Offered> bases = real_hellos();
  ASSERT_GE(bases.size(), 200U);
  const Suites known_suites = suites_of_openssl();
  const Numbers common_suites = numbers_in(known_suites);
  const std::vector<Setting> settings = all_settings(known_suites);
  Mutator mutator(seed);
  Tally tally;

  for (unsigned index = 0; index < count && !HasFailure(); ++index) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", hello " + std::to_string(index));
    const Offered offered = mutator.mutate(bases[mutator.below(bases.size())], common_suites);
    hold(offered, settings[mutator.below(settings.size())], known_suites, tally);
  }

  std::cout << count << " hellos with seed " << seed << ", " << tally.handshakes
            << " of them beside a real handshake:";
  for (const auto& [outcome, number] : tally.outcomes) {
    std::cout << ' ' << outcome << ' ' << number << ';';
  }
  std::cout << '\n';
  EXPECT_GT(tally.handshakes, count / 10);
}

}  // namespace
}  // namespace kelotls::test
