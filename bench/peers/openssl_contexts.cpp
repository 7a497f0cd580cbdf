// The contestants that make an SSL_CTX: the library, code by hand, OpenSSL's configuration file.
#include <kelotls/data_store_provider.h>
#include <kelotls/server_context.h>
#include <openssl/bio.h>
#include <openssl/conf.h>
#include <openssl/dh.h>
#include <openssl/pem.h>

#include <sstream>
#include <utility>

#include "contestant.h"
#include "tls_client.h"

namespace kelotls::bench {

namespace {

constexpr char kConfiguration[] = "/usr/kelo/etc/ssl/services.cnf";
constexpr char kStart[] = "services_conf";

Made own(SSL_CTX* context) { return Made(context, SSL_CTX_free); }

/// What a client gets that offers this suite and these groups alone.
std::string serves(SSL_CTX* context, int version, const std::string& suite,
                   const std::string& groups) {
  const test::Connection connection = test::shake_hands(context, "rsa", {version, suite, groups});
  return suite + " with " + (groups.empty() ? "any group" : groups) + ": " +
         connection.key_exchange + ", ticket of " + std::to_string(connection.ticket_bytes);
}

/// Reads the context's options. A handshake would not tell, because OpenSSL's security level may
/// refuse TLS 1.1 whatever the context allows.
bool allows_tls11(SSL_CTX* context) {
  return (SSL_CTX_get_options(context) & SSL_OP_NO_TLSv1_1) == 0 &&
         SSL_CTX_get_min_proto_version(context) < TLS1_2_VERSION;
}

class OpensslContestant : public Contestant {
 public:
  /// Handshakes show what cannot be read from a context: groups and DH parameters.
  Lines describe(const Made& made) const override {
    auto* const context = static_cast<SSL_CTX*>(made.get());
    const std::string older = "ECDHE-RSA-AES128-GCM-SHA256";
    Lines lines = test::suites_of(context, true);
    for (const std::string& suite : test::suites_of(context, false)) {
      lines.push_back(suite);
    }
    for (const char* group : {"P-256", "P-384", "P-521", "X25519"}) {
      lines.push_back(serves(context, TLS1_2_VERSION, older, group));
    }
    lines.push_back(serves(context, TLS1_2_VERSION, "DHE-RSA-AES128-GCM-SHA256", ""));
    lines.push_back(allows_tls11(context) ? "TLS 1.1" : "no TLS 1.1");
    return lines;
  }

  Lines expected() const override {
    Lines lines = test::split(test::kCiphersuites);
    for (const std::string& suite : test::split(test::kIntermediateList)) {
      lines.push_back(suite);
    }
    const std::string older = "ECDHE-RSA-AES128-GCM-SHA256 with ";
    for (const char* group : {"P-256: prime256v1", "P-384: secp384r1", "P-521: secp521r1"}) {
      lines.push_back(older + group + ", ticket of 0");
    }
    lines.push_back(older + "X25519: refused, ticket of 0");
    lines.push_back("DHE-RSA-AES128-GCM-SHA256 with any group: DH 2048, ticket of 0");
    lines.emplace_back("no TLS 1.1");
    return lines;
  }
};

class Library : public OpensslContestant {
 public:
  std::string name() const override { return "library"; }
  std::string note() const override {
    return "KELOTLS_acquire_server_context: reads and validates the whole data store each time";
  }

  void write_files(const Services& services) override {
    std::vector<std::pair<std::string, std::string>> levels;
    for (const Service& service : services) {
      levels.emplace_back(service.name, std::to_string(service.level));
    }
    test::make_directories(test::kServices);
    test::write_file(test::kDataStore, test::data_store_text(2, levels));
    // Rewritten as the library lays it out.
    require(DataStoreProvider().set_service_level(
                services[0].name, static_cast<TlsProfileLevel>(services[0].level)) == 0,
            test::kDataStore);
  }

  Made make(const std::string& service) override {
    return own(KELOTLS_acquire_server_context(service.c_str()));
  }
};

class BareContext : public OpensslContestant {
 public:
  std::string name() const override { return "bare context"; }
  std::string note() const override {
    return "the same context by hand, its DH file included; knows no services, reads no settings";
  }

  Made make(const std::string&) override {
    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_options(context, SSL_OP_ALL | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION |
                                     SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
    SSL_CTX_set_cipher_list(context, test::kIntermediateList);
    SSL_CTX_set_ciphersuites(context, test::kCiphersuites);
    SSL_CTX_set1_groups_list(context, test::kGroups);
    BIO* const file = BIO_new_file(kDhFile, "r");
    DH* const parameters = PEM_read_bio_DHparams(file, nullptr, nullptr, nullptr);
    BIO_free(file);
    SSL_CTX_set_tmp_dh(context, parameters);
    DH_free(parameters);
    return own(context);
  }
};

/// One section for each level and one name for each service, so that the file is as small as it
/// can be.
std::string configuration(const Services& services) {
  std::ostringstream text;
  text << kStart << " = top\n[top]\nssl_conf = services\n[services]\n";
  for (const Service& service : services) {
    text << service.name << " = level_" << service.level << '\n';
  }
  const std::string common = std::string("Ciphersuites = ") + test::kCiphersuites +
                             "\nGroups = " + test::kGroups +
                             "\nOptions = -SessionTicket,-Compression,Bugs\n";
  text << "[level_1]\nMinProtocol = TLSv1.3\n" << common;
  text << "[level_2]\nMinProtocol = TLSv1.2\nCipherString = " << test::kIntermediateList << '\n'
       << common << "DHParameters = " << kDhFile << '\n';
  text << "[level_3]\nMinProtocol = TLSv1\nCipherString = " << test::kOldList << '\n'
       << common << "DHParameters = " << kDhFile << '\n';
  return text.str();
}

void load_configuration() {
  require(CONF_modules_load_file(kConfiguration, kStart, 0) == 1, kConfiguration);
}

Made configured_context(const std::string& service) {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  require(SSL_CTX_config(context, service.c_str()) == 1, service);
  return own(context);
}

/// OpenSSL looks through the loaded names for each new context, so nothing stays loaded while
/// others are measured.
class ConfigurationRead : public OpensslContestant {
 public:
  std::string name() const override { return "OpenSSL file, read afresh"; }
  std::string note() const override {
    return "CONF_modules_load_file, then SSL_CTX_config: all that the level asks for, DH file "
           "included; process-wide, no default level to follow, a syntax check only";
  }
  void write_files(const Services& services) override {
    test::write_file(kConfiguration, configuration(services));
  }
  void after() override { CONF_modules_finish(); }
  Made make(const std::string& service) override {
    load_configuration();
    return configured_context(service);
  }
};

class ConfigurationLoaded : public OpensslContestant {
 public:
  std::string name() const override { return "OpenSSL file, loaded before"; }
  std::string note() const override {
    return "SSL_CTX_config alone: the same, but a change of the file goes unnoticed";
  }
  void before() override { load_configuration(); }
  void after() override { CONF_modules_finish(); }
  Made make(const std::string& service) override { return configured_context(service); }
};

}  // namespace

void add_openssl_contestants(Contestants& contestants) {
  contestants.push_back(std::make_unique<Library>());
  contestants.push_back(std::make_unique<BareContext>());
  contestants.push_back(std::make_unique<ConfigurationRead>());
  contestants.push_back(std::make_unique<ConfigurationLoaded>());
}

}  // namespace kelotls::bench
