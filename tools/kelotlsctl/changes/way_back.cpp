// Owns making a change so that it can be taken back.
#include "changes/way_back.h"

#include <cerrno>
#include <cstring>

#include "changes/pending_change.h"
#include "changes/snapshot.h"
#include "store/history.h"
#include "system/interruption.h"

namespace kelotlsctl {

namespace {

using ChangeState = PendingChange::State;

void require_boot_clock() {
  if (this_moment().boot.empty()) {
    throw Failure(kFailed, "the kernel does not tell one start of the machine from the next",
                  "Nothing was changed. --confirm needs /proc/sys/kernel/random/boot_id.");
  }
}

/// The record is closed before the change is over: a process that is killed in between leaves no
/// record that says less than what is there.
void close_record(Report& report) {
  const int signal = interruption();
  if (!end_record(report.code, signal != 0 ? 128 + signal : report.code)) {
    report.warnings.push_back(std::string(kHistoryPath) + ": " + std::strerror(errno));
  }
}

void begin_waiting(PendingChange& change, std::chrono::seconds duration, Report& report) {
  set_waiting();
  close_record(report);
  const Moment now = this_moment();
  change.wait_for(duration, now);
  const auto seconds = duration.count();
  report.document["confirm"] =
      object({{"seconds", Json::Int64{seconds}},
              {"until", utc_text(now.wall + static_cast<std::time_t>(seconds))}});
  report.notes.push_back("Taken back in " + duration_text(duration) +
                         ", unless confirmed: kelotlsctl confirm");
}

/// The change is over: it waits, or what it leaves is what there is. former: the one that has
/// waited before it. Rendering does not wait for the disk: what is there after a restart that comes
/// later is to be this, and not what has failed in between.
void end_change(PendingChange& change, std::optional<PendingChange> former, const WayBack& way_back,
                Report& report) {
  bring_to_disk();
  if (report.is_undone && former) {
    former->become(ChangeState::kWaiting);  // for as long as it would have
    return;
  }
  if (!report.is_undone && way_back.wait) {
    begin_waiting(change, *way_back.wait, report);
    return;
  }
  if (!report.is_undone) {
    change.become(ChangeState::kConfirmed);
  }
  close_record(report);
  change.remove();
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
    end_change(pending, waiting, way_back, report);
    return report;
  } catch (const std::exception&) {
    take_back(console, pending, way_back.confidence.command);
    throw;
  }
}

}  // namespace kelotlsctl
