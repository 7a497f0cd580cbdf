// Botan's text policies as a contestant: one file for each service, as they have no sections.
#include <botan/credentials_manager.h>
#include <botan/tls_ciphersuite.h>
#include <botan/tls_policy.h>
#include <botan/tls_session_manager.h>

#include <algorithm>
#include <fstream>

#include "contestant.h"
#include "private_tree.h"

namespace kelotls::bench {

namespace {

constexpr char kDirectory[] = "/usr/kelo/etc/ssl/botan/";

constexpr char kCommon[] =
    "allow_dtls10 = false\nallow_dtls12 = false\nsignature_methods = ECDSA RSA\n"
    "signature_hashes = SHA-512 SHA-384 SHA-256\nsession_ticket_lifetime = 0\n"
    "groups = secp256r1 secp384r1 secp521r1 ffdhe/ietf/2048\n";
constexpr char kIntermediate[] =
    "allow_tls10 = false\nallow_tls11 = false\nallow_tls12 = true\n"
    "ciphers = AES-128/GCM AES-256/GCM ChaCha20Poly1305\nmacs = AEAD\n"
    "key_exchange_methods = ECDH DH\n";
constexpr char kOld[] =
    "allow_tls10 = true\nallow_tls11 = true\nallow_tls12 = true\n"
    "ciphers = AES-128/GCM AES-256/GCM ChaCha20Poly1305 AES-128 AES-256 3DES\n"
    "macs = AEAD SHA-384 SHA-256 SHA-1\nkey_exchange_methods = ECDH DH RSA\n";

std::string file_of(const std::string& service) { return kDirectory + service + ".policy"; }

/// What takes an SSL_CTX's place: a server is made from these.
struct Settings {
  explicit Settings(std::istream& file) : policy(file) {}

  Botan::TLS::Text_Policy policy;
  Botan::TLS::Session_Manager_Noop sessions;
  Botan::Credentials_Manager credentials;
  std::vector<std::uint16_t> suites;
};

class Policy : public Contestant {
 public:
  std::string name() const override { return "Botan policy file"; }
  std::string note() const override {
    return "Text_Policy from a file for each service, its suites, session and credentials manager; "
           "no TLS 1.3, no DH file, adds DHE-RSA-CHACHA20-POLY1305, no check of unknown settings";
  }

  void write_files(const Services& services) override {
    test::remove_all(kDirectory);
    test::make_directories(kDirectory);
    for (const Service& service : services) {
      // There is no TLS 1.3, so a policy cannot express level modern.
      test::write_file(file_of(service.name),
                       (service.level == 3 ? kOld : kIntermediate) + std::string(kCommon));
    }
  }

  Made make(const std::string& service) override {
    std::ifstream file(file_of(service));
    require(bool(file), file_of(service));
    auto settings = std::make_shared<Settings>(file);
    // The policy reads its text anew at each request, so there is one request here as in a server.
    settings->suites =
        settings->policy.ciphersuite_list(Botan::TLS::Protocol_Version::TLS_V12, true);
    return settings;
  }

  Lines describe(const Made& made) const override {
    Lines names;
    for (const std::uint16_t suite : static_cast<const Settings*>(made.get())->suites) {
      names.push_back(Botan::TLS::Ciphersuite::by_id(suite).to_string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  Lines expected() const override {
    Lines suites = intermediate_suites();
    suites.emplace_back("DHE_RSA_WITH_CHACHA20_POLY1305_SHA256");
    for (std::string& suite : suites) {
      if (suite.compare(0, 4, "TLS_") == 0) {
        suite.erase(0, 4);
      }
    }
    std::sort(suites.begin(), suites.end());
    return suites;
  }
};

}  // namespace

void add_botan_contestants(Contestants& contestants) {
  contestants.push_back(std::make_unique<Policy>());
}

}  // namespace kelotls::bench
