// Owns the comparison of offers, the experiments that find a cause, and the sentences that tell it.
#include "tls/difference.h"

#include <openssl/crypto.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "paths.h"

namespace kelotlsctl {

namespace {

constexpr char kOther[] = "other";
constexpr char kDhe[] = "DHE";

using FileOwner = std::unique_ptr<std::FILE, Release<std::fclose>>;

/// A request that the level makes and that was not accepted. Of a suite that this machine does not
/// have, and of DHE where no version that uses it was accepted, the version is 0.
struct Missing {
  std::string name;
  Hello hello;
};

/// The members "cause" and "text" of a difference. Null where DH parameters are not missing
/// themselves, but the versions that use them.
using FindReason = std::function<Json::Value(const Missing&)>;

Json::Value reason(const std::string& cause, const std::string& text) {
  Json::Value reason;
  reason["cause"] = cause;
  reason["text"] = text;
  return reason;
}

/// Of the levels' suites, these and no others are named so.
bool is_dhe(const std::string& suite) { return suite.rfind("DHE-", 0) == 0; }

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
    if (!contains(differences_, difference)) {
      differences_.append(std::move(difference));
    }
  }

  void add_extra(const std::string& what) {
    add(what, "extra", reason(kOther, "Accepted although the level does not ask for it."));
  }

  void add_missing(const std::string& what, const Missing& missing) {
    const Json::Value found = find_reason_(missing);
    if (!found.isNull()) {
      add(what, "missing", found);
    }
  }

  bool is_offered(const Json::Value& version) const {
    return contains(offered_["protocols"], version);
  }

  void compare_versions() {
    for (const auto& [number, name] : kProtocolVersions) {
      const bool is_requested = contains(requested_["protocols"], name);
      if (is_offered(name) && !is_requested) {
        add_extra(name);
      } else if (!is_offered(name) && is_requested) {
        add_missing(name, {name, {number, {}, {}, {}}});
      }
    }
  }

  void compare_dh() {
    const Json::Value& requested = requested_["dh-bits"];
    const Json::Value& offered = offered_["dh-bits"];
    if (offered == requested || requested.isNull() || !has_tried_dhe()) {
      return;
    }
    const std::string name = requested.asString() + "-bit DH";
    if (!offered.isNull()) {
      const std::string text =
          "DHE is done with " + offered.asString() + "-bit parameters instead.";
      add(name, "missing", reason(kOther, text));
      return;
    }
    const Json::Value& versions = offered_["protocols"];
    const bool uses_dhe = !versions.empty() && versions[0] != "TLS 1.3";
    add_missing(name, {name, {uses_dhe ? TLS1_2_VERSION : 0, kDhe, {}, {}}});
  }

  /// False where none of the level's DHE suites could be tried: all of them need an RSA
  /// certificate, which a server may not have.
  bool has_tried_dhe() const {
    const Json::Value& handshakes = survey_["handshakes"];
    return std::any_of(handshakes.begin(), handshakes.end(), [](const Json::Value& handshake) {
      return handshake["intended"].asBool() && is_dhe(handshake["suite"].asString());
    });
  }

  void compare_suites(const Json::Value& suites) {
    for (const Json::Value& value : suites) {
      const std::string suite = value.asString();
      // Without DH parameters no DHE suite can work: the parameters are the one difference then.
      const bool lacks_parameters = offered_["dh-bits"].isNull() && is_dhe(suite);
      if (!covers(survey_, suite)) {
        add_missing(suite, {suite, {0, suite, {}, {}}});
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
      add_missing(suite, {suite, {refused.back(), suite, {}, {}}});
      return;
    }
    for (const int version : refused) {
      add_missing(suite + " with " + version_name(version), {suite, {version, suite, {}, {}}});
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
        add_missing(name, {name, {version_number(version), {}, name, {}}});
      }
    }
  }

  const Json::Value& survey_;
  const FindReason find_reason_;
  const Json::Value requested_;
  const Json::Value offered_;
  Json::Value differences_ = Json::Value(Json::arrayValue);
};

/// Settings of a context that can be lifted for one handshake, to find out which prevents it.
enum Lift : unsigned int {
  kMinimumVersion = 1,
  kMaximumVersion = 2,
  kSecurityLevel = 4,  // another one instead of the context's
  kOptions = 8,        // SSL_OP_NO_TLSv1 and the like
};

/// Single settings first, then pairs and so on; of as many, version limits before the security
/// level. Where two obstacles have to be lifted together, the cause is the limit, because somebody
/// has set it.
constexpr unsigned int kCombinations[] = {1, 2, 4, 8, 3, 5, 6, 9, 10, 12, 7, 11, 13, 14, 15};

struct Limit {
  Lift lift;
  const char* name;
  int get;
  int set;
};
constexpr Limit kLimits[] = {
    {kMinimumVersion, "minimum", SSL_CTRL_GET_MIN_PROTO_VERSION, SSL_CTRL_SET_MIN_PROTO_VERSION},
    {kMaximumVersion, "maximum", SSL_CTRL_GET_MAX_PROTO_VERSION, SSL_CTRL_SET_MAX_PROTO_VERSION}};

/// A limit that new contexts have too comes from the system-wide configuration.
std::string limit_text(SSL_CTX* context, const Limit& limit) {
  const ContextOwner fresh(SSL_CTX_new(TLS_server_method()));
  const long version = SSL_CTX_ctrl(context, limit.get, 0, nullptr);
  const bool is_system_wide = version == SSL_CTX_ctrl(fresh.get(), limit.get, 0, nullptr);
  return std::string(is_system_wide ? "OpenSSL's system-wide " : "The context's ") + limit.name +
         " version is " + version_name(static_cast<int>(version)) + ".";
}

/// Finds out why a context does not accept something.
class Experiment {
 public:
  Experiment(const Client& client, SSL_CTX* context, const kelotls::Profile& profile)
      : client_(client), context_(context), profile_(profile) {}

  Json::Value find_reason(const Hello& hello) const {
    if (hello.suites == kDhe) {
      return of_dh();
    }
    if (hello.version == 0) {
      return reason("suite-unavailable", std::string("This machine's library, ") +
                                             OpenSSL_version(OPENSSL_VERSION) +
                                             ", does not have it.");
    }
    if (hello.suites.empty() && hello.groups.empty()) {
      return of_version(hello);
    }
    const Names suites = suites_of(context_);
    return hello.suites.empty() ||
                   std::find(suites.begin(), suites.end(), hello.suites) != suites.end()
               ? of_refusal(hello)
               : reason(kOther, "The context's list of suites does not hold it.");
  }

 private:
  Outcome try_with(const Hello& hello, unsigned int lifts, int security_level = 0) const {
    return client_.shake_hands(context_, hello, [&](SSL* server) {
      for (const Limit& limit : kLimits) {
        if ((lifts & limit.lift) != 0) {
          SSL_ctrl(server, limit.set, 0, nullptr);
        }
      }
      SSL_clear_options(server, (lifts & kOptions) != 0 ? kVersionOptions : 0);
      if ((lifts & kSecurityLevel) != 0) {
        SSL_set_security_level(server, security_level);
      }
    });
  }

  Json::Value of_version(const Hello& hello) const {
    for (const unsigned int lifts : kCombinations) {
      if (try_with(hello, lifts).accepted) {
        return of_settings(hello, lifts);
      }
    }
    return reason(kOther, "OpenSSL does not accept it, whatever setting is lifted: " +
                              try_with(hello, 0).reason + ".");
  }

  Json::Value of_refusal(const Hello& hello) const {
    if (const std::optional<int> level = working_security_level(hello, 0)) {
      return reason("security-level", security_level_text("it", *level));
    }
    return reason(kOther, "The handshake fails: " + try_with(hello, 0).reason + ".");
  }

  /// Tried with TLS 1.2, which every level with DH parameters has, whether the context offers it
  /// or not.
  Json::Value of_dh() const {
    constexpr unsigned int kLifts = kMinimumVersion | kMaximumVersion | kOptions;
    const Hello dhe = {TLS1_2_VERSION, kDhe, {}, {}};
    if (!try_with({TLS1_2_VERSION, {}, {}, {}}, kLifts).accepted ||
        try_with(dhe, kLifts).accepted) {
      return Json::Value();
    }
    if (const std::optional<int> level = working_security_level(dhe, kLifts)) {
      return reason("security-level", security_level_text("DHE", *level));
    }
    return of_dh_file(std::string(kelotls::kDhParamDir) + profile_.dh_file);
  }

  Json::Value of_dh_file(const std::string& path) const {
    errno = 0;
    const FileOwner file(std::fopen(path.c_str(), "r"));
    if (file == nullptr) {
      return errno == ENOENT
                 ? reason("dh-file-missing", "The file " + path + " does not exist.")
                 : reason("dh-file-unreadable",
                          "The file " + path + " cannot be opened: " + std::strerror(errno) + ".");
    }
    ERR_clear_error();
    const DhOwner parameters(PEM_read_DHparams(file.get(), nullptr, nullptr, nullptr));
    if (parameters == nullptr) {
      return reason("dh-file-unreadable",
                    "The file " + path + " holds no DH parameters: " + take_openssl_reason() + ".");
    }
    return of_dh_parameters(path, parameters.get());
  }

  Json::Value of_dh_parameters(const std::string& path, DH* parameters) const {
    const SslOwner connection(SSL_new(context_));
    require(connection != nullptr, "no connection can be made");
    const int own_level = SSL_get_security_level(connection.get());
    int level = own_level;
    while (level >= 0 && SSL_set_tmp_dh(connection.get(), parameters) != 1) {
      SSL_set_security_level(connection.get(), --level);
    }
    ERR_clear_error();
    if (level == own_level) {
      return reason(kOther,
                    "The file " + path + " is in order, but this context was made without it.");
    }
    const std::string what =
        "the " + std::to_string(DH_bits(parameters)) + "-bit parameters of " + path;
    return reason("dh-file-refused",
                  level >= 0 ? security_level_text(what, level) : "OpenSSL refuses " + what + ".");
  }

  /// The highest security level below the context's with which the handshake succeeds.
  std::optional<int> working_security_level(const Hello& hello, unsigned int lifts) const {
    for (int level = SSL_CTX_get_security_level(context_) - 1; level >= 0; --level) {
      if (try_with(hello, lifts | kSecurityLevel, level).accepted) {
        return level;
      }
    }
    return std::nullopt;
  }

  std::string security_level_text(const std::string& what, int working_level) const {
    return "OpenSSL's security level " + std::to_string(SSL_CTX_get_security_level(context_)) +
           " refuses " + what + "; level " + std::to_string(working_level) + " would not.";
  }

  /// The first setting that had to be lifted is the cause; each gets a sentence.
  Json::Value of_settings(const Hello& hello, unsigned int lifts) const {
    Names causes;
    std::string text;
    for (const Limit& limit : kLimits) {
      if ((lifts & limit.lift) != 0) {
        causes.push_back(std::string(limit.name) + "-version");
        text += limit_text(context_, limit) + " ";
      }
    }
    if ((lifts & kSecurityLevel) != 0) {
      const int level = working_security_level(hello, lifts).value_or(0);
      causes.emplace_back("security-level");
      text += security_level_text(text.empty() ? "it" : "it too", level) + " ";
    }
    if ((lifts & kOptions) != 0) {
      causes.emplace_back(kOther);
      text += "An option of the context, its own or system-wide, switches it off. ";
    }
    text.pop_back();
    return reason(causes.front(), text);
  }

  const Client& client_;
  SSL_CTX* context_;
  const kelotls::Profile& profile_;
};

}  // namespace

Json::Value context_differences(const Client& client, SSL_CTX* context,
                                const kelotls::Profile& profile, const Json::Value& survey) {
  const Experiment experiment(client, context, profile);
  return Comparison(profile, survey,
                    [&](const Missing& missing) { return experiment.find_reason(missing.hello); })
      .run();
}

Json::Value server_differences(const kelotls::Profile& profile, const Json::Value& survey,
                               const Json::Value& of_context) {
  const auto find_reason = [&](const Missing& missing) {
    if (missing.hello.suites == kDhe && missing.hello.version == 0) {
      return Json::Value();
    }
    for (const Json::Value& difference : of_context) {
      if (difference["what"] == missing.name && difference["kind"] == "missing") {
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
