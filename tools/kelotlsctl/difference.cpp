// Owns the comparison of what was measured with what a level asks for.
#include "difference.h"

#include <algorithm>
#include <utility>

namespace kelotlsctl {

namespace {

class Comparison {
 public:
  Comparison(const LevelProfile& profile, const Survey& survey, Causes& causes)
      : survey_(survey), causes_(causes), wish_(wish_of(profile)), offer_(survey.offer()) {}

  std::vector<Difference> run() {
    compare_versions();
    compare_dh();
    compare_suites(wish_.cipher_suites);
    compare_suites(wish_.tls13_suites);
    add_extra_suites();
    compare_groups();
    return std::move(differences_);
  }

 private:
  void add_missing(const std::string& what, Reason reason) {
    differences_.push_back({what, false, std::move(reason)});
  }

  void add_extra(const std::string& what) {
    const auto same = [&](const Difference& difference) { return difference.what == what; };
    if (std::none_of(differences_.begin(), differences_.end(), same)) {
      differences_.push_back(
          {what, true, {"other", "Accepted although the level does not ask for it."}});
    }
  }

  void compare_versions() {
    for (const ProtocolVersion& version : protocol_versions()) {
      const bool offered = offer_.has_version(version.number);
      if (offered && !wish_.has_version(version.number)) {
        add_extra(version.name);
      } else if (!offered && wish_.has_version(version.number)) {
        add_missing(version.name, causes_.of_version(version.number));
      }
    }
  }

  void compare_dh() {
    if (offer_.dh_bits == wish_.dh_bits || wish_.dh_bits == 0 || !has_tried_dhe()) {
      return;
    }
    if (offer_.dh_bits != 0) {
      add_missing(dh_name(wish_.dh_bits),
                  {"other", "DHE is done with " + std::to_string(offer_.dh_bits) +
                                "-bit parameters instead."});
      return;
    }
    const bool has_its_versions = std::any_of(offer_.versions.begin(), offer_.versions.end(),
                                              [](int version) { return version < TLS1_3_VERSION; });
    if (std::optional<Reason> reason = causes_.of_missing_dh(has_its_versions)) {
      add_missing(dh_name(wish_.dh_bits), *std::move(reason));
    }
  }

  /// Not so where the server's certificate serves none of the level's DHE suites.
  bool has_tried_dhe() const {
    return std::any_of(survey_.trials.begin(), survey_.trials.end(), [&](const Trial& trial) {
      return trial.intended && contains(survey_.dhe_suites, trial.suite);
    });
  }

  void compare_suites(const Names& suites) {
    for (const std::string& suite : suites) {
      if (!contains(survey_.known_suites, suite)) {
        compare_unknown_suite(suite);
      } else if (offer_.dh_bits != 0 || !contains(survey_.dhe_suites, suite)) {
        compare_suite(suite);  // without DH parameters no DHE suite can work, which is said above
      }
    }
  }

  void compare_unknown_suite(const std::string& suite) {
    const auto same = [&](const Untested& untested) { return untested.what == suite; };
    if (std::none_of(survey_.untested.begin(), survey_.untested.end(), same)) {
      add_missing(suite, causes_.of_unknown_suite(suite));
    }
  }

  /// A suite that only some of the offered versions refuse is named with each of them.
  void compare_suite(const std::string& suite) {
    std::vector<int> refused;
    bool is_accepted = false;
    for (const Trial& trial : survey_.trials) {
      if (trial.tries_group || trial.suite != suite || !trial.intended ||
          !offer_.has_version(trial.version)) {
        continue;
      }
      is_accepted |= trial.accepted;
      if (!trial.accepted) {
        refused.push_back(trial.version);
      }
    }
    if (!is_accepted && !refused.empty()) {
      add_missing(suite, causes_.of_suite(refused.back(), suite));
      return;
    }
    for (const int version : refused) {
      add_missing(suite + " with " + version_name(version), causes_.of_suite(version, suite));
    }
  }

  /// Those of a version that is itself an extra go without saying.
  void add_extra_suites() {
    for (const Trial& trial : survey_.trials) {
      if (!trial.tries_group && trial.accepted && !trial.intended &&
          wish_.has_version(trial.version)) {
        add_extra(trial.suite);
      }
    }
  }

  void compare_groups() {
    for (const Trial& trial : survey_.trials) {
      if (!trial.tries_group || !offer_.has_version(trial.version)) {
        continue;
      }
      if (trial.intended && !trial.accepted) {
        add_missing(trial.group, causes_.of_group(trial.version, trial.group));
      } else if (trial.accepted && !contains(wish_.groups, trial.group)) {
        add_extra(trial.group);
      }
    }
  }

  const Survey& survey_;
  Causes& causes_;
  const Offer wish_;
  const Offer offer_;
  std::vector<Difference> differences_;
};

}  // namespace

std::string dh_name(int bits) { return std::to_string(bits) + "-bit DH"; }

std::vector<Difference> find_differences(const LevelProfile& profile, const Survey& survey,
                                         Causes& causes) {
  return Comparison(profile, survey, causes).run();
}

Json::Value to_json(const std::vector<Difference>& differences) {
  Json::Value list(Json::arrayValue);
  for (const Difference& difference : differences) {
    Json::Value element;
    element["what"] = difference.what;
    element["kind"] = difference.is_extra ? "extra" : "missing";
    element["cause"] = difference.reason.cause;
    element["text"] = difference.reason.text;
    list.append(element);
  }
  return list;
}

}  // namespace kelotlsctl
