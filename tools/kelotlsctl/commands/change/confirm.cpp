// kelotlsctl confirm and revert: what becomes of a change that waits.
#include "changes/pending_change.h"
#include "changes/settling.h"
#include "command_line.h"
#include "store/history.h"
#include "store/lock.h"

namespace kelotlsctl {

namespace {

using ChangeState = PendingChange::State;

/// What became of the last change that waited, if that was taken back.
std::string last_taken_back() {
  std::vector<std::string> faults;
  const Json::Value history = read_history(faults);
  const Json::Value last = history.empty() ? Json::Value() : history[history.size() - 1];
  return last["result"] == "taken-back"
             ? ": the last one was taken back at " + printable(last["ended"])
             : "";
}

PendingChange require_change() {
  std::optional<PendingChange> change = PendingChange::load();
  if (!change) {
    throw Failure(kFailed, "no change waits to be confirmed" + last_taken_back());
  }
  return *std::move(change);
}

Report report_of(const PendingChange& change, const char* result) {
  return {kDone, object({{"services", list_of(change.services())},
                         {"records", list_of(change.records())},
                         {"result", result}})};
}

}  // namespace

Report confirm(Console& console, const Arguments& arguments) {
  // Whoever has to wait for another command has not come too late.
  const Moment asked = this_moment();
  const Lock lock(console, arguments.command, true);
  PendingChange change = require_change();
  const bool is_given_up = change.state() == ChangeState::kFailed;
  if (!is_given_up && change.state() != ChangeState::kConfirmed &&
      change.time_left(asked) <= Milliseconds::zero()) {
    take_back(console, change, arguments.command);
    throw Failure(kFailed, "too late: the change is taken back");
  }
  const Report report = report_of(change, is_given_up ? "take-back-failed" : "confirmed");
  keep(change, arguments.command);
  return report;
}

Report revert(Console& console, const Arguments& arguments) {
  const Lock lock(console, arguments.command, true);
  PendingChange change = require_change();
  if (change.state() == ChangeState::kConfirmed) {
    keep(change, arguments.command);
    throw Failure(kFailed, "the change was confirmed");
  }
  const Report report = report_of(change, "taken-back");
  take_back(console, change, arguments.command);
  return report;
}

void print_kept(Console& console, const Json::Value& document) {
  const bool is_given_up = document["result"] != "confirmed";
  console.print_each(document["services"],
                     is_given_up ? ": left as it is, in part taken back" : ": confirmed");
}

void print_reverted(Console& console, const Json::Value& document) {
  console.print_each(document["services"], ": taken back");
}

}  // namespace kelotlsctl
