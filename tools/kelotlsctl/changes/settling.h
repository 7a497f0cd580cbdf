// Owns what is due: a change that was not confirmed in time goes back, and a level whose date has
// come ends. Done before anything else is changed, and by a process that waits for it.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "changes/pending_change.h"
#include "changes/trusted_places.h"
#include "output/console.h"
#include "store/lock.h"

namespace kelotlsctl {

/// What settling has done: {"taken-back": [services], "returned": [{"service", "level", "fault":
/// where a step failed}]}.
struct Settling {
  Json::Value document;
  int code = kDone;
};

/// Whether servers are there to be reloaded and asked.
enum class Servers { kRunning, kNotStarted };

/// Holds the lock of a command that writes, once what was due is done.
class WriteAccess {
 public:
  enum class Waiting { kRefused, kJoined };

  /// A dry run locks nothing and settles nothing, but is refused as the command would be. A Failure
  /// where a change waits to be confirmed and may not be joined, and where one that is to be taken
  /// back cannot be.
  WriteAccess(Console& console, const Confidence& confidence, Waiting waiting = Waiting::kRefused);

 private:
  const Lock lock_;
};

/// Does all that is due; what has failed before is tried again. The lock is to be held.
Settling settle(Console& console, Servers servers);

/// Takes the change back. The lock is to be held. A Failure where that fails; it is then tried
/// again.
void take_back(Console& console, PendingChange& change, const std::string& command,
               Servers servers = Servers::kRunning);

/// What there is of the change stays from now on: all of it, or, of one that could not be taken
/// back, what is left. The lock is to be held.
void keep(PendingChange& change, const std::string& command);

/// Settles whenever something is due, until nothing is left to wait for.
void watch(Console& console);

/// Whether there is something to wait for that systemd does not look at.
bool anything_to_watch();

/// Has watch done by a process of its own, or by systemd. A Failure where that cannot be.
void have_watched();

/// Has somebody look at dates from now on. A Failure where nobody would.
void have_dates_watched();

}  // namespace kelotlsctl
