// Where a survey and a level differ.
#ifndef KELOTLSCTL_DIFFERENCE_H
#define KELOTLSCTL_DIFFERENCE_H

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "level_profile.h"
#include "survey.h"

namespace kelotlsctl {

struct Reason {
  const char* cause;
  std::string text;
};

struct Difference {
  std::string what;
  bool is_extra = false;  // accepted though not asked for; otherwise missing
  Reason reason;
};

/// Tells why something that the level asks for is missing.
class Causes {
 public:
  virtual ~Causes() = default;
  virtual Reason of_version(int version) = 0;
  virtual Reason of_suite(int version, const std::string& suite) = 0;
  virtual Reason of_unknown_suite(const std::string& suite) = 0;
  virtual Reason of_group(int version, const std::string& group) = 0;
  /// has_its_versions: whether a version with DHE was accepted. None when DHE is only missing
  /// because those versions are.
  virtual std::optional<Reason> of_missing_dh(bool has_its_versions) = 0;
};

/// What a difference in DH parameters is called: "2048-bit DH".
std::string dh_name(int bits);

/// In the order of protocol versions, DH parameters, suites, groups. A suite that the client does
/// not know is a difference unless the survey notes it as untested.
std::vector<Difference> find_differences(const LevelProfile& profile, const Survey& survey,
                                         Causes& causes);

/// As explain_context and probe give them.
Json::Value to_json(const std::vector<Difference>& differences);

}  // namespace kelotlsctl

#endif
