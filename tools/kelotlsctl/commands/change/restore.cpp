// kelotlsctl restore: levels, taken from a backup.
#include "changes/dating.h"
#include "changes/level_change.h"
#include "changes/way_back.h"
#include "clients/losses.h"
#include "command_line.h"
#include "framework_config.h"
#include "store/documents.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

/// Those whose level, once the default was followed, becomes another.
Selection changed_services(const Store& before, const Store& after) {
  Selection selection;
  for (const std::string& service : before.names()) {
    if (before.stored_level(service) != after.stored_level(service) ||
        before.effective_level(service) != after.effective_level(service)) {
      selection.names.push_back(service);
    }
  }
  return selection;
}

Report take_levels(Console& console, const LevelChange& plan, Report report, bool applies) {
  if (applies) {
    const Report application = bring_into_force(console, plan, ReloadOptions());
    report.code = application.code;
    report.is_undone = application.is_undone;
    report.document["apply"] = application.document;
    return report;
  }
  save_store(plan.after);
  if (any_pending(plan.after, plan.after.names())) {
    report.notes.emplace_back("Not in force yet: kelotlsctl apply");
  }
  return report;
}

}  // namespace

Report restore(Console& console, const Arguments& arguments) {
  const WayBack back = way_back(arguments.confirm, arguments.confidence());
  const Store saved = read_backup(arguments.file);  // may come slowly: nobody waits for the lock
  const WriteAccess access(console, arguments.confidence(), back.joins());
  const Store before = load_store();
  Report report = {kDone, restoration_json(before, saved)};
  report.document["written"] = !arguments.dry_run;
  Store live = before;
  kelotls::restore_levels(live.root, saved.root);
  const LevelChange plan = {before, live, changed_services(before, live)};
  const LevelChange everything = {before, live, {live.names(), true}};
  everything.refuse_unreachable();
  report.document["losses"] = tell_losses(console, before, live, plan.selection.names, false);
  if (arguments.dry_run) {
    return report;
  }
  const bool applies = back.wait.has_value();
  if (applies) {
    require_trust(console, walk_places(console, kAllPlaces, plan.selection),
                  arguments.confidence());
  }
  const Dating dating;
  const LevelChange own = plan.of_own_levels();
  Json::Value changes = everything.record();
  dating.tell(changes, own);
  begin_record(arguments.command, arguments.reason, changes);
  return make_change(
      console, back, [&] { return plan.snapshot(); },
      [&] {
        Report done = take_levels(console, plan, report, applies);
        dating.end(own, done.document.get("apply", object({}))["undone"]);
        return done;
      });
}

void print_restored(Console& console, const Json::Value& document) {
  const bool is_done = document["written"].asBool();
  const char* const becomes = is_done ? " became " : " would become ";
  const Json::Value& level = document["default-level"];
  if (level["from"] != level["to"]) {
    console.data() << "default level: " << level_text(level["from"]) << becomes
                   << level_text(level["to"]) << '\n';
  }
  for (const Json::Value& change : document["changes"]) {
    console.data() << printable(change["service"]) << ": " << level_text(change["from"]) << becomes
                   << level_text(change["to"]) << '\n';
  }
  console.print_each(document["unknown"], ": in the backup, but has not joined; passed over");
  console.print_each(document["missing"], ": not in the backup; keeps its level");
  if (level["from"] == level["to"] && document["changes"].empty()) {
    console.say("No level differs from the backup.");
  }
}

}  // namespace kelotlsctl
