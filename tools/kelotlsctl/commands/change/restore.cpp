// kelotlsctl restore: levels, taken from a backup.
#include "changes/level_change.h"
#include "command_line.h"
#include "framework_config.h"
#include "store/documents.h"
#include "store/history.h"
#include "store/lock.h"

namespace kelotlsctl {

Report restore(Console& console, const Arguments& arguments) {
  const Lock lock(console, arguments.command, !arguments.dry_run);
  Store live = load_store();
  const Store saved = read_backup(arguments.file);
  Json::Value document = restoration_json(live, saved);
  document["written"] = !arguments.dry_run;
  const Store before = live;
  kelotls::restore_levels(live.root, saved.root);
  const LevelChange plan = {before, live, {live.names(), true}};
  plan.refuse_unreachable();
  Report report = {kDone, document};
  if (!arguments.dry_run) {
    begin_record(arguments.command, arguments.reason, plan.record());
    save_store(live);
    if (any_pending(live, plan.selection.names)) {
      report.notes.emplace_back("Not in force yet: kelotlsctl apply");
    }
  }
  return report;
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
