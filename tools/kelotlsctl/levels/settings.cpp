// Owns why a context does not accept something.
#include "levels/settings.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "levels/dh_parameters.h"
#include "output/console.h"
#include "peers/context_server.h"
#include "tls/openssl.h"
#include "tls/registry.h"

namespace kelotlsctl {

namespace {

using Kind = Missing::Kind;

auto option_against(std::uint16_t version) {
  switch (version) {
    case kTls10:
      return SSL_OP_NO_TLSv1;
    case kTls11:
      return SSL_OP_NO_TLSv1_1;
    case kTls12:
      return SSL_OP_NO_TLSv1_2;
    default:
      return SSL_OP_NO_TLSv1_3;
  }
}

/// A hello that what is missing would have been accepted with. Before TLS 1.3 the curve of an ECDSA
/// certificate has to be among the client's groups, so a group is tried with RSA.
Hello hello_for(const Missing& missing) {
  Hello hello;
  hello.version = missing.version;
  hello.groups = groups_of_version(missing.version);
  hello.suites = suites_of_version(missing.version);
  const auto keep = [&](KeyExchange exchange) {
    hello.suites.erase(std::remove_if(hello.suites.begin(), hello.suites.end(),
                                      [&](std::uint16_t suite) {
                                        return key_exchange_of(*find_suite(suite)) != exchange;
                                      }),
                       hello.suites.end());
  };
  if (missing.kind == Kind::kSuite) {
    hello.suites = {missing.number};
  } else if (missing.kind == Kind::kDhe) {
    keep(KeyExchange::kDheRsa);
  } else if (missing.kind == Kind::kGroup) {
    hello.groups = {missing.number};
    keep(missing.version == kTls13 ? KeyExchange::kLeftOpen : KeyExchange::kEcdheRsa);
  }
  return hello;
}

const SSL_CIPHER* find_in_openssl(SSL_CTX* context, std::uint16_t suite) {
  const SslOwner connection(SSL_new(context));
  require(connection != nullptr, "no connection can be made");
  const unsigned char number[] = {static_cast<unsigned char>(suite >> 8),
                                  static_cast<unsigned char>(suite)};
  return SSL_CIPHER_find(connection.get(), number);
}

class Settings {
 public:
  Settings(SSL_CTX* context, const kelotls::Profile& profile)
      : context_(context), profile_(profile), own_level_(SSL_CTX_get_security_level(context)) {}

  Json::Value find_cause(const Missing& missing) const {
    if (missing.kind == Kind::kDhe) {
      return of_dh();
    }
    if (missing.kind == Kind::kSuite) {
      const SSL_CIPHER* const cipher = find_in_openssl(context_, missing.number);
      if (cipher == nullptr) {
        return cause_of("suite-unavailable", std::string("This machine's library, ") +
                                                 OpenSSL_version(OPENSSL_VERSION) +
                                                 ", does not have it.");
      }
      if (!contains(suites_of(context_), SSL_CIPHER_get_name(cipher))) {
        return cause_of(kOtherCause, "The context's list of suites does not hold it.");
      }
    }
    const Hello hello = hello_for(missing);
    const int level = working_level_of(hello);
    const Json::Value obstacles = level < 0 ? Json::Value() : obstacles_to(missing, level);
    return obstacles.empty() ? of_failure(missing, hello) : of_all(obstacles);
  }

 private:
  /// Tried with TLS 1.2, which every level with DH parameters has, whether the context offers it
  /// or not.
  Json::Value of_dh() const {
    const int level = working_level_of(hello_for({Kind::kDhe, kTls12, 0, ""}));
    if (level == own_level_ ||
        working_level_of(hello_for({Kind::kVersion, kTls12, kTls12, ""})) != own_level_) {
      return Json::Value();
    }
    return level >= 0 ? cause_of("security-level", security_level_text("DHE", level))
                      : of_dh_file(read_dh_file(profile_));
  }

  Json::Value of_dh_file(const DhFile& file) const {
    const std::string name = "The file " + file.path;
    if (file.parameters == nullptr) {
      return file.error == ENOENT ? cause_of("dh-file-missing", name + " does not exist.")
                                  : cause_of("dh-file-unreadable", name + " " + file.fault + ".");
    }
    const int level = working_level_of(file.parameters.get());
    if (level == own_level_) {
      return cause_of(kOtherCause, name + " is in order, but this context was made without it.");
    }
    const std::string what =
        "the " + std::to_string(DH_bits(file.parameters.get())) + "-bit parameters of " + file.path;
    return cause_of("dh-file-refused", level >= 0 ? security_level_text(what, level)
                                                  : "OpenSSL refuses " + what + ".");
  }

  /// What stands against the hello, as reasons. Limits before the security level, because somebody
  /// has set them. An option against another version can leave a gap that keeps this one out.
  Json::Value obstacles_to(const Missing& missing, int working_level) const {
    Json::Value obstacles;
    if (SSL_CTX_get_min_proto_version(context_) > missing.version) {
      obstacles.append(of_limit("minimum", SSL_CTRL_GET_MIN_PROTO_VERSION));
    }
    const long maximum = SSL_CTX_get_max_proto_version(context_);
    if (maximum != 0 && maximum < missing.version) {
      obstacles.append(of_limit("maximum", SSL_CTRL_GET_MAX_PROTO_VERSION));
    }
    if (working_level < own_level_) {
      const char* const what = obstacles.empty() ? "it" : "it too";
      obstacles.append(cause_of("security-level", security_level_text(what, working_level)));
    }
    const bool is_off = (SSL_CTX_get_options(context_) & option_against(missing.version)) != 0;
    if (missing.kind == Kind::kVersion && (obstacles.empty() || is_off)) {
      obstacles.append(cause_of(
          kOtherCause, "An option of the context, its own or system-wide, switches it off."));
    }
    return obstacles;
  }

  /// A limit that new contexts have too comes from the system-wide configuration.
  Json::Value of_limit(const std::string& name, int get) const {
    const ContextOwner fresh(SSL_CTX_new(TLS_server_method()));
    const long version = SSL_CTX_ctrl(context_, get, 0, nullptr);
    const bool is_system_wide = version == SSL_CTX_ctrl(fresh.get(), get, 0, nullptr);
    return cause_of(name + "-version",
                    (is_system_wide ? "OpenSSL's system-wide " : "The context's ") + name +
                        " version is " + version_name(static_cast<std::uint16_t>(version)) + ".");
  }

  /// The first is the cause; each gets a sentence.
  static Json::Value of_all(const Json::Value& obstacles) {
    std::string text;
    for (const Json::Value& obstacle : obstacles) {
      text += (text.empty() ? "" : " ") + obstacle["text"].asString();
    }
    return cause_of(obstacles[0]["cause"].asString(), text);
  }

  Json::Value of_failure(const Missing& missing, const Hello& hello) const {
    return cause_of(kOtherCause, (missing.kind == Kind::kVersion
                                      ? "OpenSSL does not accept it, whatever setting is lifted: "
                                      : "The handshake fails: ") +
                                     ask_context(context_, hello).reason + ".");
  }

  std::string security_level_text(const std::string& what, int working_level) const {
    return "OpenSSL's security level " + std::to_string(own_level_) + " refuses " + what +
           "; level " + std::to_string(working_level) + " would not.";
  }

  /// The highest security level up to the context's with which something works; negative: none.
  int working_level(const std::function<bool(int level)>& works) const {
    int level = own_level_;
    while (level >= 0 && !works(level)) {
      --level;
    }
    return level;
  }

  /// With all lifted that stands against the hello's version, and nothing else.
  int working_level_of(const Hello& hello) const {
    const long maximum = SSL_CTX_get_max_proto_version(context_);
    return working_level([&](int level) {
      const auto lift = [&](SSL* server) {
        SSL_set_min_proto_version(server, hello.version);
        SSL_set_max_proto_version(server,
                                  maximum != 0 ? std::max<long>(maximum, hello.version) : 0);
        SSL_clear_options(server, option_against(hello.version));
        SSL_set_security_level(server, level);
      };
      return ask_context(context_, hello, lift).verdict == Verdict::kAccepted;
    });
  }

  int working_level_of(DH* parameters) const {
    const SslOwner connection(SSL_new(context_));
    require(connection != nullptr, "no connection can be made");
    const int working = working_level([&](int level) {
      SSL_set_security_level(connection.get(), level);
      return SSL_set_tmp_dh(connection.get(), parameters) == 1;
    });
    ERR_clear_error();
    return working;
  }

  SSL_CTX* context_;
  const kelotls::Profile& profile_;
  const int own_level_;
};

}  // namespace

FindCause causes_in(SSL_CTX* context, const kelotls::Profile& profile) {
  const auto settings = std::make_shared<const Settings>(context, profile);
  return [settings](const std::string&, const Missing& missing) {
    return settings->find_cause(missing);
  };
}

Json::Value suites_of(SSL_CTX* context) {
  Json::Value names(Json::arrayValue);
  const STACK_OF(SSL_CIPHER)* const suites = SSL_CTX_get_ciphers(context);
  for (int index = 0; index < sk_SSL_CIPHER_num(suites); ++index) {
    names.append(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(suites, index)));
  }
  return names;
}

}  // namespace kelotlsctl
