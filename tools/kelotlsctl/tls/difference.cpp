// Owns the comparison of offers, the experiments that find a cause, and the sentences that tell it.
#include "tls/difference.h"

#include <openssl/crypto.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <utility>

#include "paths.h"

namespace kelotlsctl {

namespace {

constexpr char kOther[] = "other";

using FileOwner = std::unique_ptr<std::FILE, Release<std::fclose>>;
using DhOwner = std::unique_ptr<DH, Release<DH_free>>;

/// Something that a level requests and that was not accepted.
struct Missing {
  enum class Kind { kVersion, kSuite, kUnknownSuite, kGroup, kDh };
  Kind kind;
  int version;  // of DH parameters: 0 where no version that uses them was accepted
  std::string name;
};

/// None where DH parameters are not missing themselves, but the versions that use them.
using FindReason = std::function<std::optional<Reason>(const Missing&)>;

std::string dh_name(int bits) { return std::to_string(bits) + "-bit DH"; }

class Comparison {
 public:
  Comparison(const kelotls::Profile& profile, const Survey& survey, FindReason find_reason)
      : survey_(survey),
        find_reason_(std::move(find_reason)),
        requested_(requested_by(profile)),
        offer_(survey.offer()) {}

  Differences run() {
    compare_versions();
    compare_dh();
    compare_suites(requested_.cipher_suites);
    compare_suites(requested_.tls13_suites);
    compare_trials();
    return std::move(differences_);
  }

 private:
  void add_missing(const std::string& what, const Missing& missing) {
    if (std::optional<Reason> reason = find_reason_(missing)) {
      differences_.push_back({what, false, *std::move(reason)});
    }
  }

  void add_extra(const std::string& what) {
    const auto same = [&](const Difference& difference) { return difference.what == what; };
    if (std::none_of(differences_.begin(), differences_.end(), same)) {
      differences_.push_back(
          {what, true, {kOther, "Accepted although the level does not ask for it."}});
    }
  }

  void compare_versions() {
    for (const auto& [number, name] : kProtocolVersions) {
      const bool is_offered = offer_.has_version(number);
      if (is_offered && !requested_.has_version(number)) {
        add_extra(name);
      } else if (!is_offered && requested_.has_version(number)) {
        add_missing(name, {Missing::Kind::kVersion, number, name});
      }
    }
  }

  void compare_dh() {
    const std::string name = dh_name(requested_.dh_bits);
    if (offer_.dh_bits == requested_.dh_bits || requested_.dh_bits == 0 || !has_tried_dhe()) {
      return;
    }
    if (offer_.dh_bits != 0) {
      differences_.push_back({name,
                              false,
                              {kOther, "DHE is done with " + std::to_string(offer_.dh_bits) +
                                           "-bit parameters instead."}});
      return;
    }
    const bool uses_dhe = !offer_.versions.empty() && offer_.versions.front() < TLS1_3_VERSION;
    add_missing(name, {Missing::Kind::kDh, uses_dhe ? TLS1_2_VERSION : 0, name});
  }

  /// False where none of the level's DHE suites could be tried: all of them need an RSA
  /// certificate, which a server may not have.
  bool has_tried_dhe() const {
    return std::any_of(survey_.trials.begin(), survey_.trials.end(), [&](const Trial& trial) {
      return trial.requested && contains(survey_.dhe_suites, trial.suite);
    });
  }

  void compare_suites(const Names& suites) {
    for (const std::string& suite : suites) {
      // Without DH parameters no DHE suite can work: the parameters are the one difference then.
      const bool lacks_parameters = offer_.dh_bits == 0 && contains(survey_.dhe_suites, suite);
      if (!contains(survey_.known_suites, suite)) {
        compare_unknown_suite(suite);
      } else if (!lacks_parameters) {
        compare_suite(suite);
      }
    }
  }

  void compare_unknown_suite(const std::string& suite) {
    const auto same = [&](const Untested& untested) { return untested.what == suite; };
    if (std::none_of(survey_.untested.begin(), survey_.untested.end(), same)) {
      add_missing(suite, {Missing::Kind::kUnknownSuite, 0, suite});
    }
  }

  /// A suite that only some of the offered versions refuse is a difference for each of them.
  void compare_suite(const std::string& suite) {
    std::vector<int> refused;
    bool is_accepted = false;
    for (const Trial& trial : survey_.trials) {
      if (!trial.tries_group && trial.suite == suite && trial.requested &&
          offer_.has_version(trial.version)) {
        is_accepted |= trial.accepted;
        refused.insert(refused.end(), trial.accepted ? 0 : 1, trial.version);
      }
    }
    if (!is_accepted && !refused.empty()) {
      add_missing(suite, {Missing::Kind::kSuite, refused.back(), suite});
      return;
    }
    for (const int version : refused) {
      add_missing(suite + " with " + version_name(version),
                  {Missing::Kind::kSuite, version, suite});
    }
  }

  /// Suites that are extra, then groups. The suites of a version that is extra itself are not
  /// told: the version says it.
  void compare_trials() {
    for (const Trial& trial : survey_.trials) {
      const bool is_known = trial.tries_group ? contains(requested_.groups, trial.group)
                                              : !requested_.has_version(trial.version);
      if (trial.accepted && !trial.requested && !is_known) {
        add_extra(trial.tries_group ? trial.group : trial.suite);
      } else if (trial.tries_group && trial.requested && !trial.accepted &&
                 offer_.has_version(trial.version)) {
        add_missing(trial.group, {Missing::Kind::kGroup, trial.version, trial.group});
      }
    }
  }

  const Survey& survey_;
  const FindReason find_reason_;
  const Offer requested_;
  const Offer offer_;
  Differences differences_;
};

// Function pointers of what are macros.
long minimum_version(SSL_CTX* context) { return SSL_CTX_get_min_proto_version(context); }
long maximum_version(SSL_CTX* context) { return SSL_CTX_get_max_proto_version(context); }

/// A limit that new contexts have too comes from the system-wide configuration.
std::string limit_text(SSL_CTX* context, long (*setting)(SSL_CTX*), const char* limit) {
  const long version = setting(context);
  const ContextOwner fresh(SSL_CTX_new(TLS_server_method()));
  const bool is_system_wide = version == (fresh != nullptr ? setting(fresh.get()) : 0);
  return std::string(is_system_wide ? "OpenSSL's system-wide " : "The context's ") + limit +
         " version is " + version_name(static_cast<int>(version)) + ".";
}

/// Sorted by number of lifted settings; ties: version limits before the security level. Where two
/// obstacles have to be lifted together, the cause is the limit, because somebody has set it.
std::vector<unsigned int> combinations_of_lifts() {
  std::vector<unsigned int> combinations(15);
  std::iota(combinations.begin(), combinations.end(), 1U);
  std::stable_sort(combinations.begin(), combinations.end(),
                   [](unsigned int left, unsigned int right) {
                     return std::bitset<4>(left).count() < std::bitset<4>(right).count();
                   });
  return combinations;
}

const char* cause_of(unsigned int lifts) {
  return (lifts & kMinimumVersion) != 0   ? "minimum-version"
         : (lifts & kMaximumVersion) != 0 ? "maximum-version"
         : (lifts & kSecurityLevel) != 0  ? "security-level"
                                          : kOther;
}

/// Finds out why a context does not accept something.
class Experiment {
 public:
  Experiment(const Client& client, SSL_CTX* context, const kelotls::Profile& profile)
      : client_(client), context_(context), profile_(profile) {}

  std::optional<Reason> find_reason(const Missing& missing) const {
    switch (missing.kind) {
      case Missing::Kind::kVersion:
        return of_version({missing.version, {}, {}, {}});
      case Missing::Kind::kSuite:
        return contains(suites_of(context_), missing.name)
                   ? of_refusal({missing.version, missing.name, {}, {}})
                   : Reason{kOther, "The context's list of suites does not hold it."};
      case Missing::Kind::kUnknownSuite:
        return Reason{"suite-unavailable", std::string("This machine's library, ") +
                                               OpenSSL_version(OPENSSL_VERSION) +
                                               ", does not have it."};
      case Missing::Kind::kGroup:
        return of_refusal({missing.version, {}, missing.name, {}});
      case Missing::Kind::kDh:
        return of_dh();
    }
    return std::nullopt;
  }

 private:
  Outcome try_with(const Hello& hello, unsigned int lifts, int security_level = 0) const {
    return client_.shake_hands(context_, hello, lifts, security_level);
  }

  Reason of_version(const Hello& hello) const {
    for (const unsigned int lifts : combinations_of_lifts()) {
      if (try_with(hello, lifts).accepted) {
        return {cause_of(lifts), lifted_text(hello, lifts)};
      }
    }
    return {kOther, "OpenSSL does not accept it, whatever setting is lifted: " +
                        try_with(hello, 0).reason + "."};
  }

  Reason of_refusal(const Hello& hello) const {
    if (const std::optional<int> level = working_security_level(hello, 0)) {
      return {"security-level", security_level_text("it", *level)};
    }
    return {kOther, "The handshake fails: " + try_with(hello, 0).reason + "."};
  }

  /// Tried with TLS 1.2, which every level with DH parameters has, whether the context offers it
  /// or not.
  std::optional<Reason> of_dh() const {
    constexpr unsigned int kLifts = kMinimumVersion | kMaximumVersion | kVersionOptions;
    const Hello dhe = {TLS1_2_VERSION, "DHE", {}, {}};
    if (!try_with({TLS1_2_VERSION, {}, {}, {}}, kLifts).accepted ||
        try_with(dhe, kLifts).accepted) {
      return std::nullopt;
    }
    if (const std::optional<int> level = working_security_level(dhe, kLifts)) {
      return Reason{"security-level", security_level_text("DHE", *level)};
    }
    return of_dh_file(std::string(kelotls::kDhParamDir) + profile_.dh_file);
  }

  Reason of_dh_file(const std::string& path) const {
    errno = 0;
    const FileOwner file(std::fopen(path.c_str(), "r"));
    if (file == nullptr && errno == ENOENT) {
      return {"dh-file-missing", "The file " + path + " does not exist."};
    }
    if (file == nullptr) {
      return {"dh-file-unreadable",
              "The file " + path + " cannot be opened: " + std::strerror(errno) + "."};
    }
    ERR_clear_error();
    const DhOwner parameters(PEM_read_DHparams(file.get(), nullptr, nullptr, nullptr));
    if (parameters == nullptr) {
      return {"dh-file-unreadable",
              "The file " + path + " holds no DH parameters: " + take_openssl_reason() + "."};
    }
    return of_dh_parameters(path, parameters.get());
  }

  Reason of_dh_parameters(const std::string& path, DH* parameters) const {
    const SslOwner connection(SSL_new(context_));
    require(connection != nullptr, "no connection can be made");
    const int own_level = SSL_get_security_level(connection.get());
    int level = own_level;
    while (level >= 0 && SSL_set_tmp_dh(connection.get(), parameters) != 1) {
      SSL_set_security_level(connection.get(), --level);
    }
    ERR_clear_error();
    if (level == own_level) {
      return {kOther, "The file " + path + " is in order, but this context was made without it."};
    }
    const std::string what =
        "the " + std::to_string(DH_bits(parameters)) + "-bit parameters of " + path;
    return {"dh-file-refused",
            level >= 0 ? security_level_text(what, level) : "OpenSSL refuses " + what + "."};
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

  /// A sentence for each setting that had to be lifted.
  std::string lifted_text(const Hello& hello, unsigned int lifts) const {
    Names sentences;
    if ((lifts & kMinimumVersion) != 0) {
      sentences.push_back(limit_text(context_, minimum_version, "minimum"));
    }
    if ((lifts & kMaximumVersion) != 0) {
      sentences.push_back(limit_text(context_, maximum_version, "maximum"));
    }
    if ((lifts & kSecurityLevel) != 0) {
      const int level = working_security_level(hello, lifts).value_or(0);
      sentences.push_back(security_level_text(sentences.empty() ? "it" : "it too", level));
    }
    if ((lifts & kVersionOptions) != 0) {
      sentences.emplace_back("An option of the context, its own or system-wide, switches it off.");
    }
    return list_of(sentences, " ");
  }

  const Client& client_;
  SSL_CTX* context_;
  const kelotls::Profile& profile_;
};

}  // namespace

Differences context_differences(const Client& client, SSL_CTX* context,
                                const kelotls::Profile& profile, const Survey& survey) {
  const Experiment experiment(client, context, profile);
  return Comparison(profile, survey,
                    [&](const Missing& missing) { return experiment.find_reason(missing); })
      .run();
}

Differences server_differences(const kelotls::Profile& profile, const Survey& survey,
                               const std::optional<Differences>& of_context) {
  const auto find_reason = [&](const Missing& missing) -> std::optional<Reason> {
    if (missing.kind == Missing::Kind::kDh && missing.version == 0) {
      return std::nullopt;
    }
    if (!of_context) {
      return Reason{kOther, "The server does not accept it."};
    }
    for (const Difference& difference : *of_context) {
      if (difference.what == missing.name && !difference.is_extra) {
        return Reason{difference.reason.cause,
                      "A context made on this machine lacks it too: " + difference.reason.text};
      }
    }
    return Reason{kOther,
                  "The server does not accept it, though a context made on this machine does."};
  };
  return Comparison(profile, survey, find_reason).run();
}

}  // namespace kelotlsctl
