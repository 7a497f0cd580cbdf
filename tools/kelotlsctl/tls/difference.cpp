// Owns the comparison of offers, finding a cause, and the sentences that tell it.
#include <openssl/crypto.h>
#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "output/console.h"
#include "tls/survey.h"

namespace kelotlsctl {

namespace {

constexpr char kOther[] = "other";
constexpr char kDhe[] = "DHE";

/// The members "cause" and "text" of the difference that something of this name is missing, which
/// was not accepted with this hello. Of a suite that this machine does not have, and of DHE where
/// no version that uses it was accepted, the version is 0. Null where DH parameters are not missing
/// themselves, but the versions that use them.
using FindReason = std::function<Json::Value(const std::string& name, const Hello& hello)>;

Json::Value reason(const std::string& cause, const std::string& text) {
  return object({{"cause", cause}, {"text", text}});
}

/// Whether the hello tries a version, and not a suite or group.
bool is_version(const Hello& hello) { return hello.suites.empty() && hello.groups.empty(); }

auto option_against(int version) {
  const auto* const known =
      std::find_if(std::begin(kProtocolVersions), std::end(kProtocolVersions),
                   [&](const ProtocolVersion& row) { return row.number == version; });
  return known != std::end(kProtocolVersions) ? known->option : 0;
}

class Comparison {
 public:
  Comparison(const kelotls::Profile& profile, const Json::Value& survey, FindReason find_reason)
      : survey_(survey),
        find_reason_(std::move(find_reason)),
        requested_(requested_by(profile)),
        offered_(offer_of(survey["handshakes"])) {}

  Json::Value run() {
    compare_versions();
    compare_dh();
    compare_suites(requested_["cipher-suites"]);
    compare_suites(requested_["tls13-suites"]);
    compare_handshakes();
    return std::move(differences_);
  }

 private:
  void add(const std::string& what, const char* kind, Json::Value difference) {
    difference["what"] = what;
    difference["kind"] = kind;
    append_once(differences_, difference);
  }

  void add_extra(const std::string& what) {
    add(what, "extra", reason(kOther, "Accepted although the level does not ask for it."));
  }

  void add_missing(const std::string& name, const Hello& hello, const std::string& where = "") {
    const Json::Value found = find_reason_(name, hello);
    if (!found.isNull()) {
      add(name + where, "missing", found);
    }
  }

  bool is_offered(const Json::Value& version) const {
    return contains(offered_["protocols"], version);
  }

  void compare_versions() {
    for (const ProtocolVersion& version : kProtocolVersions) {
      const bool is_requested = contains(requested_["protocols"], version.name);
      if (is_offered(version.name) && !is_requested) {
        add_extra(version.name);
      } else if (!is_offered(version.name) && is_requested) {
        add_missing(version.name, {version.number, {}, {}, {}});
      }
    }
  }

  /// All DHE suites of the levels need an RSA certificate, which a server may not have.
  void compare_dh() {
    const Json::Value& requested = requested_["dh-bits"];
    const Json::Value& offered = offered_["dh-bits"];
    const std::string name = requested.asString() + "-bit DH";
    if (offered == requested || requested.isNull() || !contains(survey_["certificates"], "RSA")) {
      return;
    }
    if (!offered.isNull()) {
      add(name, "missing",
          reason(kOther, "DHE is done with " + offered.asString() + "-bit parameters instead."));
      return;
    }
    const Json::Value& versions = offered_["protocols"];
    const bool uses_dhe = !versions.empty() && versions[0] != "TLS 1.3";
    add_missing(name, {uses_dhe ? TLS1_2_VERSION : 0, kDhe, {}, {}});
  }

  void compare_suites(const Json::Value& suites) {
    for (const Json::Value& value : suites) {
      const std::string suite = value.asString();
      // Without DH parameters no DHE suite can work: the parameters are the one difference then.
      const bool lacks_parameters = offered_["dh-bits"].isNull() && suite.rfind("DHE-", 0) == 0;
      if (!covers(survey_, suite)) {
        add_missing(suite, {0, suite, {}, {}});
      } else if (!lacks_parameters) {
        compare_suite(suite);
      }
    }
  }

  /// A suite that only some of the offered versions refuse is a difference for each of them.
  void compare_suite(const std::string& suite) {
    std::vector<int> accepted;
    std::vector<int> refused;
    for (const Json::Value& handshake : survey_["handshakes"]) {
      if (handshake["tries"] == "suite" && handshake["suite"] == suite &&
          handshake["intended"].asBool() && is_offered(handshake["version"])) {
        (handshake["accepted"].asBool() ? accepted : refused)
            .push_back(version_number(handshake["version"]));
      }
    }
    if (accepted.empty() && !refused.empty()) {
      add_missing(suite, {refused.back(), suite, {}, {}});
      return;
    }
    for (const int version : refused) {
      add_missing(suite, {version, suite, {}, {}}, " with " + version_name(version));
    }
  }

  /// Suites that are extra, then groups. The suites of a version that is extra itself are not
  /// told: the version says it.
  void compare_handshakes() {
    for (const Json::Value& handshake : survey_["handshakes"]) {
      const bool is_group = handshake["tries"] == "group";
      const bool is_intended = handshake["intended"].asBool();
      const bool is_accepted = handshake["accepted"].asBool();
      const Json::Value& version = handshake["version"];
      const std::string name = subject_of(handshake).asString();
      const bool is_told = is_group ? contains(requested_["groups"], name)
                                    : !contains(requested_["protocols"], version);
      if (is_accepted && !is_intended && !is_told) {
        add_extra(name);
      } else if (is_group && is_intended && !is_accepted && is_offered(version)) {
        add_missing(name, hello_for_group(version_number(version), name));
      }
    }
  }

  const Json::Value& survey_;
  const FindReason find_reason_;
  const Json::Value requested_;
  const Json::Value offered_;
  Json::Value differences_ = Json::Value(Json::arrayValue);
};

/// Finds out why a context does not accept something: from its settings, and by the same handshake
/// with what stands against its version lifted, and with lower security levels.
class Experiment {
 public:
  Experiment(const Client& client, SSL_CTX* context, const kelotls::Profile& profile)
      : client_(client),
        context_(context),
        profile_(profile),
        own_level_(SSL_CTX_get_security_level(context)) {}

  Json::Value find_reason(const Hello& hello) const {
    const bool is_suite = !hello.suites.empty() && hello.groups.empty();
    if (hello.suites == kDhe) {
      return of_dh();
    }
    if (hello.version == 0) {
      return reason("suite-unavailable", std::string("This machine's library, ") +
                                             OpenSSL_version(OPENSSL_VERSION) +
                                             ", does not have it.");
    }
    if (is_suite && !contains(suites_of(context_), hello.suites)) {
      return reason(kOther, "The context's list of suites does not hold it.");
    }
    const int level = working_level_of(hello);
    const Json::Value obstacles = level < 0 ? Json::Value() : obstacles_to(hello, level);
    return obstacles.empty() ? of_failure(hello) : of_all(obstacles);
  }

 private:
  /// Tried with TLS 1.2, which every level with DH parameters has, whether the context offers it
  /// or not.
  Json::Value of_dh() const {
    const int level = working_level_of({TLS1_2_VERSION, kDhe, {}, {}});
    if (level == own_level_ || working_level_of({TLS1_2_VERSION, {}, {}, {}}) != own_level_) {
      return Json::Value();
    }
    return level >= 0 ? reason("security-level", security_level_text("DHE", level))
                      : of_dh_file(read_dh_file(profile_));
  }

  Json::Value of_dh_file(const DhFile& file) const {
    const std::string name = "The file " + file.path;
    if (file.parameters == nullptr) {
      return file.error == ENOENT ? reason("dh-file-missing", name + " does not exist.")
                                  : reason("dh-file-unreadable", name + " " + file.fault + ".");
    }
    const int level = working_level_of(file.parameters.get());
    if (level == own_level_) {
      return reason(kOther, name + " is in order, but this context was made without it.");
    }
    const std::string what =
        "the " + std::to_string(DH_bits(file.parameters.get())) + "-bit parameters of " + file.path;
    return reason("dh-file-refused",
                  level >= 0 ? security_level_text(what, level) : "OpenSSL refuses " + what + ".");
  }

  /// What stands against the hello, as reasons. Limits before the security level, because somebody
  /// has set them. An option against another version can leave a gap that keeps this one out.
  Json::Value obstacles_to(const Hello& hello, int working_level) const {
    Json::Value obstacles;
    if (SSL_CTX_get_min_proto_version(context_) > hello.version) {
      obstacles.append(of_limit("minimum", SSL_CTRL_GET_MIN_PROTO_VERSION));
    }
    const long maximum = SSL_CTX_get_max_proto_version(context_);
    if (maximum != 0 && maximum < hello.version) {
      obstacles.append(of_limit("maximum", SSL_CTRL_GET_MAX_PROTO_VERSION));
    }
    if (working_level < own_level_) {
      const char* const what = obstacles.empty() ? "it" : "it too";
      obstacles.append(reason("security-level", security_level_text(what, working_level)));
    }
    const bool is_off = (SSL_CTX_get_options(context_) & option_against(hello.version)) != 0;
    if (is_version(hello) && (obstacles.empty() || is_off)) {
      obstacles.append(
          reason(kOther, "An option of the context, its own or system-wide, switches it off."));
    }
    return obstacles;
  }

  /// A limit that new contexts have too comes from the system-wide configuration.
  Json::Value of_limit(const std::string& name, int get) const {
    const ContextOwner fresh(SSL_CTX_new(TLS_server_method()));
    const long version = SSL_CTX_ctrl(context_, get, 0, nullptr);
    const bool is_system_wide = version == SSL_CTX_ctrl(fresh.get(), get, 0, nullptr);
    return reason(name + "-version",
                  (is_system_wide ? "OpenSSL's system-wide " : "The context's ") + name +
                      " version is " + version_name(static_cast<int>(version)) + ".");
  }

  /// The first is the cause; each gets a sentence.
  static Json::Value of_all(const Json::Value& obstacles) {
    std::string text;
    for (const Json::Value& obstacle : obstacles) {
      text += (text.empty() ? "" : " ") + obstacle["text"].asString();
    }
    return reason(obstacles[0]["cause"].asString(), text);
  }

  Json::Value of_failure(const Hello& hello) const {
    return reason(kOther,
                  (is_version(hello) ? "OpenSSL does not accept it, whatever setting is lifted: "
                                     : "The handshake fails: ") +
                      client_.shake_hands(hello, context_).reason + ".");
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
      return client_.shake_hands(hello, context_, lift).accepted;
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

  const Client& client_;
  SSL_CTX* context_;
  const kelotls::Profile& profile_;
  const int own_level_;
};

}  // namespace

Json::Value context_differences(const Client& client, SSL_CTX* context,
                                const kelotls::Profile& profile, const Json::Value& survey) {
  const Experiment experiment(client, context, profile);
  const auto find_reason = [&](const std::string&, const Hello& hello) {
    return experiment.find_reason(hello);
  };
  return Comparison(profile, survey, find_reason).run();
}

Json::Value server_differences(const kelotls::Profile& profile, const Json::Value& survey,
                               const Json::Value& of_context) {
  const auto find_reason = [&](const std::string& name, const Hello& hello) {
    if (hello.suites == kDhe && hello.version == 0) {
      return Json::Value();
    }
    for (const Json::Value& difference : of_context) {
      if (difference["what"] == name && difference["kind"] == "missing") {
        return reason(
            difference["cause"].asString(),
            "A context made on this machine lacks it too: " + difference["text"].asString());
      }
    }
    return reason(kOther, of_context.isNull() ? "The server does not accept it."
                                              : "The server does not accept it, though a context "
                                                "made on this machine does.");
  };
  return Comparison(profile, survey, find_reason).run();
}

}  // namespace kelotlsctl
