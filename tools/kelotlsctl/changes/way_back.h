// Owns making a change so that it can be taken back: because nobody has confirmed it, or because it
// was interrupted.
#pragma once

#include <json/value.h>

#include <functional>
#include <optional>
#include <string>

#include "changes/settling.h"
#include "changes/trusted_places.h"
#include "output/console.h"

namespace kelotlsctl {

struct WayBack {
  /// How long the change waits to be confirmed; nothing: it does not.
  std::optional<std::chrono::seconds> wait;
  /// One that is interrupted is taken back, whether it is to wait or not.
  bool is_kept = false;
  Confidence confidence;

  /// Whether a change that waits already may be joined.
  WriteAccess::Waiting joins() const {
    return wait ? WriteAccess::Waiting::kJoined : WriteAccess::Waiting::kRefused;
  }
};

/// The way back of a change that waits for as long as the text says, if it says anything. A Failure
/// (usage) for a text that is no duration.
WayBack way_back(const std::string& duration, const Confidence& confidence);

/// Makes the change whose record is open. Where there is a way back, what was there before is on
/// the disk before the first effect; an exception of the change takes it back and passes through.
/// The document gets "confirm": {"seconds", "until"} if the change waits now.
Report make_change(Console& console, const WayBack& way_back,
                   const std::function<Json::Value()>& snapshot,
                   const std::function<Report()>& change);

}  // namespace kelotlsctl
