// Owns making a change so that it can be taken back.
#include "changes/way_back.h"

#include <fcntl.h>
#include <unistd.h>

#include "changes/pending_change.h"
#include "files.h"
#include "paths.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

using ChangeState = PendingChange::State;

/// Rendering does not wait for the disk. What waits to be confirmed is to be there after a restart
/// that comes later.
void bring_to_disk() {
  for (const char* const path : {kelotls::kFrameworkDir, kelotls::kPackageReloaderDir}) {
    const kelotls::Descriptor directory(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.is_open() && ::syncfs(directory.get()) != 0) {
      throw system_failure(path);
    }
  }
}

void require_boot_clock() {
  if (this_moment().boot.empty()) {
    throw Failure(kFailed, "the kernel does not tell one start of the machine from the next",
                  "Nothing was changed. --confirm needs /proc/sys/kernel/random/boot_id.");
  }
}

/// The change is over: it waits, or what it leaves is what there is.
void end_change(PendingChange& change, const WayBack& way_back, bool was_waiting, Report& report) {
  if (report.is_undone && was_waiting) {
    change.become(ChangeState::kWaiting);  // for as long as the one before it would have
    return;
  }
  if (report.is_undone || !way_back.wait) {
    change.become(ChangeState::kConfirmed);
    change.remove();
    return;
  }
  bring_to_disk();
  const Moment now = this_moment();
  change.wait_for(*way_back.wait, now);
  set_waiting();
  const auto seconds = way_back.wait->count();
  report.document["confirm"] =
      object({{"seconds", Json::Int64{seconds}}, {"until", utc_text(now.wall + seconds)}});
  report.notes.push_back("Taken back in " + duration_text(*way_back.wait) +
                         ", unless confirmed: kelotlsctl confirm");
}

}  // namespace

WayBack way_back(const std::string& duration, const Confidence& confidence) {
  WayBack way_back = {std::nullopt, !duration.empty(), confidence};
  if (!duration.empty()) {
    way_back.wait = parse_duration(duration);
    if (!way_back.wait) {
      throw Failure(
          kUsage, "\"" + printable(duration) + "\" is no duration",
          "A duration is a number of seconds, or of minutes, hours or days with m, h or d "
          "behind it: 90, 5m. The longest is 30d.");
    }
  }
  return way_back;
}

Report make_change(Console& console, const WayBack& way_back,
                   const std::function<Json::Value()>& snapshot,
                   const std::function<Report()>& change) {
  if (!way_back.is_kept || way_back.confidence.is_dry_run) {
    return change();
  }
  if (way_back.wait) {
    require_boot_clock();
  }
  const std::optional<PendingChange> waiting = PendingChange::load();
  PendingChange pending = waiting.value_or(PendingChange());
  pending.add(open_record_id(), snapshot());
  pending.set_trust(way_back.confidence.is_blind);
  pending.become(ChangeState::kPrepared);
  try {
    if (way_back.wait) {
      have_watched();
    }
    Report report = change();
    end_change(pending, way_back, waiting.has_value(), report);
    return report;
  } catch (const std::exception&) {
    take_back(console, pending, way_back.confidence.command);
    throw;
  }
}

}  // namespace kelotlsctl
