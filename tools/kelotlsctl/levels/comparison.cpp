// Owns the comparison of a survey with a level.
#include "levels/comparison.h"

#include <algorithm>
#include <map>

#include "output/console.h"
#include "tls/certificates.h"
#include "tls/registry.h"

namespace kelotlsctl {

namespace {

KeyExchange key_exchange_of_number(std::uint16_t number) {
  const CipherSuite* const suite = find_suite(number);
  return suite != nullptr ? key_exchange_of(*suite) : KeyExchange::kOther;
}

bool needs_dhe(std::uint16_t suite) {
  return key_exchange_of_number(suite) == KeyExchange::kDheRsa;
}

/// How something came out in the versions that are served.
struct Outcomes {
  Numbers accepted;
  Numbers refused;
  Numbers not_known;
  std::string reason;  // of one that is not known
};

class Comparison {
 public:
  Comparison(const kelotls::Profile& profile, const Survey& survey, const FindCause& find_cause)
      : survey_(survey),
        find_cause_(find_cause),
        requested_(requested_by(profile)),
        offered_(offer_of(survey)) {}

  Json::Value run() {
    compare_versions();
    compare_dh();
    compare_suites();
    compare_groups();
    compare_features();
    const char* const verdict = !differences_.empty() ? "differs"
                                : !not_known_.empty() ? "cannot-tell"
                                                      : "agrees";
    return object({{"verdict", verdict},
                   {"differences", differences_},
                   {"not-known", not_known_},
                   {"notes", notes_}});
  }

 private:
  void add(const std::string& what, const char* kind, Json::Value difference) {
    difference["what"] = what;
    difference["kind"] = kind;
    append_once(differences_, difference);
  }

  void add_extra(const std::string& what) {
    add(what, "extra", cause_of(kOtherCause, "Accepted although the level does not ask for it."));
  }

  void add_missing(const std::string& name, const Missing& missing, const std::string& where = "") {
    const Json::Value found = find_cause_(name, missing);
    if (!found.isNull()) {
      add(name + where, "missing", found);
    }
  }

  /// What this machine cannot serve at all is missing for that cause, however the server says it.
  void add_unclear(const std::string& name, Missing missing, const std::string& reason) {
    missing.unclear = reason;
    const Json::Value found = find_cause_(name, missing);
    if (found.isNull()) {
      add_not_known(name, reason);
    } else {
      add(name, "missing", found);
    }
  }

  void add_not_known(const std::string& what, const std::string& reason) {
    append_once(not_known_, object({{"what", what}, {"text", reason}}));
  }

  void compare_versions() {
    for (const Trial& trial : survey_.versions) {
      const bool is_requested = contains(requested_.versions, trial.version);
      const std::string name = version_name(trial.version);
      const Missing missing = {Missing::Kind::kVersion, trial.version, trial.version, ""};
      if (trial.verdict == Verdict::kNotKnown && is_requested) {
        add_unclear(name, missing, trial.reason);
      } else if (trial.verdict == Verdict::kNotKnown) {
        add_not_known(name, trial.reason);
      } else if (trial.verdict == Verdict::kAccepted && !is_requested) {
        add_extra(name);
      } else if (trial.verdict == Verdict::kRefused && is_requested) {
        add_missing(name, missing);
      }
    }
  }

  /// All DHE suites of the levels need an RSA certificate, which a server may not have.
  void compare_dh() {
    const int requested = requested_.dh_bits;
    const int offered = offered_.dh_bits;
    const std::string name = std::to_string(requested) + "-bit DH";
    const std::string done = "DHE is done with " + std::to_string(offered) + "-bit parameters";
    if (requested == 0 || offered == requested || !has_rsa()) {
      return;
    }
    if (offered > requested) {
      notes_.append(done + ", stronger than the " + std::to_string(requested) +
                    " bits that the level asks for.");
    } else if (offered != 0) {
      add(name, "missing", cause_of(kOtherCause, done + " instead."));
    } else if (refuses_dhe()) {
      const Numbers& versions = offered_.versions;
      const bool uses_dhe = !versions.empty() && versions.front() < kTls13;
      add_missing(name, {Missing::Kind::kDhe, uses_dhe ? kTls12 : std::uint16_t{0}, 0, ""});
    }
  }

  /// Whether no DHE suite is accepted, for all that is known.
  bool refuses_dhe() const {
    return offered_.dh_bits == 0 &&
           std::all_of(survey_.suites.begin(), survey_.suites.end(), [](const Trial& trial) {
             return !needs_dhe(trial.number) || trial.verdict == Verdict::kRefused;
           });
  }

  bool has_rsa() const {
    return std::any_of(requested_.suites.begin(), requested_.suites.end(),
                       [&](std::uint16_t suite) {
                         return needs_dhe(suite) && has_certificate_for(survey_, suite);
                       });
  }

  void compare_suites() {
    Numbers requested = requested_.suites;
    requested.insert(requested.end(), requested_.tls13_suites.begin(),
                     requested_.tls13_suites.end());
    for (const std::uint16_t suite : requested) {
      // Without DH parameters no DHE suite can work: the parameters are the one difference then.
      const bool lacks_parameters = needs_dhe(suite) && refuses_dhe();
      if (!lacks_parameters && has_certificate_for(survey_, suite)) {
        compare_requested(suite_name(suite), Missing::Kind::kSuite, suite,
                          outcomes_of(survey_.suites, suite));
      }
    }
    for (const Trial& trial : survey_.suites) {
      // The suites of a version that is extra or not known itself are not told: the version says
      // it.
      const bool is_requested = contains(requested, trial.number);
      const bool may_be = trial.verdict != Verdict::kRefused && !is_requested;
      if (may_be && contains(requested_.versions, trial.version) &&
          contains(offered_.versions, trial.version)) {
        may_be_extra(suite_name(trial.number), trial);
      }
    }
  }

  void may_be_extra(const std::string& name, const Trial& trial) {
    if (trial.verdict == Verdict::kAccepted) {
      add_extra(name);
    } else {
      add_not_known(name, trial.reason);
    }
  }

  /// In the versions that are served and can use it.
  Outcomes outcomes_of(const std::vector<Trial>& trials, std::uint16_t number) const {
    Outcomes outcomes;
    for (const Trial& trial : trials) {
      const bool counts = &trials == &survey_.groups || is_usable(number, trial.version);
      if (trial.number != number || !counts || !contains(offered_.versions, trial.version)) {
        continue;
      }
      switch (trial.verdict) {
        case Verdict::kAccepted:
          outcomes.accepted.push_back(trial.version);
          break;
        case Verdict::kRefused:
          outcomes.refused.push_back(trial.version);
          break;
        case Verdict::kNotKnown:
          outcomes.not_known.push_back(trial.version);
          outcomes.reason = trial.reason;
      }
    }
    return outcomes;
  }

  /// A suite or group that only some of the versions refuse is a difference for each of them.
  void compare_requested(const std::string& name, Missing::Kind kind, std::uint16_t number,
                         const Outcomes& outcomes) {
    if (!outcomes.not_known.empty() && outcomes.accepted.empty()) {
      add_unclear(name, {kind, outcomes.not_known.back(), number, ""}, outcomes.reason);
    } else if (outcomes.accepted.empty() && !outcomes.refused.empty()) {
      add_missing(name, {kind, outcomes.refused.back(), number, ""});
    } else {
      for (const std::uint16_t version : outcomes.refused) {
        add_missing(name, {kind, version, number, ""}, " with " + version_name(version));
      }
    }
  }

  void compare_groups() {
    for (const std::uint16_t group : requested_.groups) {
      compare_requested(group_name(group), Missing::Kind::kGroup, group,
                        outcomes_of(survey_.groups, group));
    }
    for (const Trial& trial : survey_.groups) {
      // What one version hides another may show.
      const bool is_settled = trial.verdict == Verdict::kNotKnown &&
                              !outcomes_of(survey_.groups, trial.number).refused.empty();
      if (trial.verdict != Verdict::kRefused && !is_settled &&
          !contains(requested_.groups, trial.number)) {
        may_be_extra(group_name(trial.number), trial);
      }
    }
  }

  void compare_features() {
    for (const auto& [feature, verdict] : survey_.features) {
      if (std::string(requested_feature(feature)) == "no" && verdict == Verdict::kAccepted) {
        add_extra(feature);
      }
    }
  }

  const Survey& survey_;
  const FindCause& find_cause_;
  const Offer requested_;
  const Offer offered_;
  Json::Value differences_ = Json::Value(Json::arrayValue);
  Json::Value not_known_ = Json::Value(Json::arrayValue);
  Json::Value notes_ = Json::Value(Json::arrayValue);
};

}  // namespace

Json::Value cause_of(const std::string& cause, const std::string& text) {
  return object({{"cause", cause}, {"text", text}});
}

Json::Value compare(const kelotls::Profile& profile, const Survey& survey,
                    const FindCause& find_cause) {
  return Comparison(profile, survey, find_cause).run();
}

const char* requested_feature(const std::string& feature) {
  const bool is_forbidden =
      feature == kCompression || feature == kSessionTickets || feature == kTls13StatelessTickets;
  return is_forbidden ? "no" : "open";
}

bool has_certificate_for(const Survey& survey, std::uint16_t suite) {
  const KeyExchange exchange = key_exchange_of_number(suite);
  const bool needs_ecdsa = exchange == KeyExchange::kEcdheEcdsa;
  const bool needs_rsa = exchange == KeyExchange::kEcdheRsa || exchange == KeyExchange::kDheRsa ||
                         exchange == KeyExchange::kRsa;
  return (!needs_ecdsa && !needs_rsa) ||
         std::any_of(survey.certificates.begin(), survey.certificates.end(),
                     [&](const Bytes& certificate) {
                       const std::string kind = describe_certificate(certificate).kind;
                       // An RSA-PSS key only signs.
                       return exchange == KeyExchange::kRsa ? kind == "RSA"
                              : needs_rsa                   ? kind.rfind("RSA", 0) == 0
                                                            : kind[0] == 'E';
                     });
}

bool is_usable(std::uint16_t suite, std::uint16_t version) {
  const CipherSuite* const row = find_suite(suite);
  const std::string name = row != nullptr ? row->iana_name : "";
  const bool needs_tls12 = name.find("SHA256") != std::string::npos ||
                           name.find("SHA384") != std::string::npos ||
                           name.find("_CCM") != std::string::npos;
  return version >= kTls12 || !needs_tls12;
}

}  // namespace kelotlsctl
