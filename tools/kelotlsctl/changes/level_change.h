// Owns a change of levels: the plan, its way into force, and taking it back where that fails.
#pragma once

#include <json/value.h>

#include "changes/application.h"

namespace kelotlsctl {

/// The data store before and after, and the services whose levels it is about.
struct LevelChange {
  Store before;
  Store after;
  Selection selection;

  /// What changes, as it is recorded.
  Json::Value record() const;

  /// The same change, as far as services have levels of their own that become others.
  LevelChange of_own_levels() const;

  /// What there was before it, to be put back.
  Json::Value snapshot() const;

  /// A Failure where a service's server cannot be at its new level, or where what is kept of
  /// servers cannot be used.
  void refuse_unreachable() const;
};

/// Saves the new levels and brings them into force for the services. Each service for which a step
/// fails, and no other, gets its former level back; where the default level is what changed, and
/// others took it up, it gets that level as its own. The document is that of apply_to, with
/// "undone":
/// [{"service", "level": the one that it has now, "in-force": whether that is in force again}].
Report bring_into_force(Console& console, const LevelChange& change, const ReloadOptions& options);

/// What it would do; nothing is written.
Report foresee(Console& console, const LevelChange& change);

}  // namespace kelotlsctl
