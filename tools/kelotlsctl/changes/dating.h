// Owns the dates that a change of levels brings and ends.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "changes/level_change.h"
#include "store/dated_levels.h"

namespace kelotlsctl {

/// Of a change of the levels of services. A level that is given anew has the date that comes with
/// it, or none.
class Dating {
 public:
  /// The change of the services ends the dates of their levels.
  Dating() : former_(DatedLevels::load()) {}

  /// The levels end at the date, if there is one. then: the level after it, else the one before the
  /// change. A Failure (usage) for what is no date or level, for a date that is past or too far
  /// away, and where there is no reason.
  Dating(const std::string& until, const std::string& then, const std::string& reason);

  bool brings_dates() const { return until_.has_value(); }

  /// Whether a date of the services would be brought or ended.
  bool concerns(const std::vector<std::string>& services) const;

  /// A service that has the level already keeps nothing by the date. A Failure (usage) for a change
  /// whose level is the one that it would return to.
  void refuse_pointless(const LevelChange& change) const;

  /// Tells in the record's changes which dates come and go.
  void tell(Json::Value& changes, const LevelChange& change) const;

  /// Before the levels are changed, and afterwards: undone are the services that have their former
  /// levels, [{"service"}]. A Failure where the dates cannot be written.
  void begin(const LevelChange& change) const;
  void end(const LevelChange& change, const Json::Value& undone) const;

 private:
  DatedLevel dated(const LevelChange& change, const std::string& service) const;

  DatedLevels former_;
  std::optional<std::time_t> until_;
  std::optional<int> then_;
  std::string reason_;
};

/// A date that ends, as tell tells it: {"until", "then", "reason"}.
Json::Value former_date_json(const DatedLevel& dated);

/// What tell has told of a service's former date; nothing where there was none.
std::optional<DatedLevel> former_date(const Json::Value& change);

}  // namespace kelotlsctl
