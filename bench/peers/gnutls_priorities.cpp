// GnuTLS's system priority file as a contestant: one keyword for each service.
#include <fcntl.h>
#include <gnutls/gnutls.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <sstream>

#include "contestant.h"
#include "private_tree.h"

namespace kelotls::bench {

namespace {

constexpr char kPriorityFile[] = "/usr/kelo/etc/ssl/gnutls.cnf";

constexpr char kModern[] =
    "NONE:+VERS-TLS1.3:+ECDHE-ECDSA:+ECDHE-RSA:+AES-128-GCM:+AES-256-GCM:+CHACHA20-POLY1305:+AEAD:"
    "+GROUP-SECP256R1:+GROUP-SECP384R1:+GROUP-SECP521R1:+SIGN-ALL:+COMP-ALL:%NO_TICKETS";
constexpr char kIntermediate[] =
    "NONE:+VERS-TLS1.3:+VERS-TLS1.2:+ECDHE-ECDSA:+ECDHE-RSA:+DHE-RSA:+AES-128-GCM:+AES-256-GCM:"
    "+CHACHA20-POLY1305:+AEAD:+GROUP-SECP256R1:+GROUP-SECP384R1:+GROUP-SECP521R1:+SIGN-ALL:"
    "+COMP-ALL:%NO_TICKETS";
constexpr char kOld[] =
    "NONE:+VERS-TLS-ALL:+ECDHE-ECDSA:+ECDHE-RSA:+DHE-RSA:+RSA:+AES-128-GCM:+AES-256-GCM:"
    "+CHACHA20-POLY1305:+AES-128-CBC:+AES-256-CBC:+3DES-CBC:+MAC-ALL:"
    "+GROUP-SECP256R1:+GROUP-SECP384R1:+GROUP-SECP521R1:+SIGN-ALL:+COMP-ALL:%NO_TICKETS";

const char* priorities_of(int level) {
  return level == 1 ? kModern : level == 2 ? kIntermediate : kOld;
}

/// What takes an SSL_CTX's place: both parts go into every session of the server.
struct Settings {
  gnutls_priority_t priorities = nullptr;
  gnutls_certificate_credentials_t credentials = nullptr;
  gnutls_dh_params_t dh_parameters = nullptr;

  Settings() = default;
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;
  ~Settings() {
    gnutls_priority_deinit(priorities);
    gnutls_certificate_free_credentials(credentials);
    gnutls_dh_params_deinit(dh_parameters);
  }
};

void read_dh_parameters(Settings& settings) {
  gnutls_datum_t text = {};
  require(
      gnutls_load_file(kDhFile, &text) == 0 &&
          gnutls_dh_params_init(&settings.dh_parameters) == 0 &&
          gnutls_dh_params_import_pkcs3(settings.dh_parameters, &text, GNUTLS_X509_FMT_PEM) == 0,
      kDhFile);
  gnutls_free(text.data);
  gnutls_certificate_set_dh_params(settings.credentials, settings.dh_parameters);
}

Lines tls12_suites(gnutls_priority_t priorities) {
  Lines names;
  unsigned int suite = 0;
  for (unsigned int index = 0;; ++index) {
    const int result = gnutls_priority_get_cipher_suite_index(priorities, index, &suite);
    if (result == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE) {
      break;
    }
    gnutls_protocol_t version = GNUTLS_VERSION_UNKNOWN;
    if (result == 0) {  // others are suites that this build does not have
      const char* const name =
          gnutls_cipher_suite_info(suite, nullptr, nullptr, nullptr, nullptr, &version);
      if (version == GNUTLS_TLS1_2) {
        names.emplace_back(name);
      }
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

class PrioritiesLoaded : public Contestant {
 public:
  std::string name() const override { return "GnuTLS file, loaded before"; }
  std::string note() const override {
    return "the same while the file's time stands still: GnuTLS looks at that only";
  }

  void write_files(const Services& services) override {
    const char* const file = std::getenv("GNUTLS_SYSTEM_PRIORITY_FILE");
    require(file != nullptr && std::string(file) == kPriorityFile,
            std::string("GNUTLS_SYSTEM_PRIORITY_FILE has to be ") + kPriorityFile);
    std::ostringstream text;
    text << "[priorities]\n";
    for (const Service& service : services) {
      text << service.name << " = " << priorities_of(service.level) << '\n';
    }
    test::write_file(kPriorityFile, text.str());
  }

  Made make(const std::string& service) override {
    auto settings = std::make_shared<Settings>();
    require(gnutls_priority_init(&settings->priorities, ("@" + service).c_str(), nullptr) == 0 &&
                gnutls_certificate_allocate_credentials(&settings->credentials) == 0,
            name() + ": " + service);
    read_dh_parameters(*settings);
    return settings;
  }

  Lines describe(const Made& made) const override {
    return tls12_suites(static_cast<const Settings*>(made.get())->priorities);
  }
  Lines expected() const override {
    Lines suites = intermediate_suites();
    // Ciphers and key exchanges are listed apart, so this pair cannot be left out.
    suites.emplace_back("TLS_DHE_RSA_CHACHA20_POLY1305");
    for (std::string& suite : suites) {
      // GnuTLS writes neither the key exchange's WITH nor the ChaCha20 suites' hash.
      if (const auto with = suite.find("WITH_"); with != std::string::npos) {
        suite.erase(with, 5);
      }
      if (const auto hash = suite.find("POLY1305_SHA256"); hash != std::string::npos) {
        suite.erase(hash + 8);
      }
    }
    std::sort(suites.begin(), suites.end());
    return suites;
  }
};

class PrioritiesRead : public PrioritiesLoaded {
 public:
  std::string name() const override { return "GnuTLS file, read afresh"; }
  std::string note() const override {
    return "gnutls_priority_init(@SERVICE) after a change of the system priority file, "
           "credentials, "
           "DH file, no session yet; process-wide, adds DHE-RSA-CHACHA20-POLY1305, no default "
           "level";
  }

  /// GnuTLS reads the file again once its time has changed by a second.
  void before() override {
    const timespec times[] = {{++seconds_, 0}, {seconds_, 0}};
    require(utimensat(AT_FDCWD, kPriorityFile, times, 0) == 0, kPriorityFile);
  }

 private:
  std::time_t seconds_ = 0;
};

}  // namespace

void add_gnutls_contestants(Contestants& contestants) {
  contestants.push_back(std::make_unique<PrioritiesRead>());
  contestants.push_back(std::make_unique<PrioritiesLoaded>());
}

}  // namespace kelotls::bench
