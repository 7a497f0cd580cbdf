// kelotlsctl restore: levels, taken from a backup.
#include "command_line.h"
#include "state/documents.h"

namespace kelotlsctl {

Report restore(Console& console, const Arguments& arguments) {
  const Lock lock(console, !arguments.dry_run);
  Store live = load_store();
  const Store saved = read_backup(arguments.file);
  for (const std::string& warning : warnings_of(saved)) {
    console.warn(warning);
  }
  Report report;
  report.document = restoration_json(live, saved);
  report.document["written"] = !arguments.dry_run;
  if (!arguments.dry_run) {
    restore_levels(live, saved);
    save_store(live);
  }
  const Json::Value& level = report.document["default-level"];
  if (!console.json() && level["from"] == level["to"] && report.document["changes"].empty()) {
    report.notes.emplace_back("No level differs from the backup.");
  }
  if (!console.json() && !arguments.dry_run) {
    report.notes.emplace_back("Not in force yet: kelotlsctl apply");
  }
  return report;
}

void print_restored(Console& console, const Json::Value& document) {
  const char* const becomes = document["written"].asBool() ? " became " : " would become ";
  const Json::Value& level = document["default-level"];
  if (level["from"] != level["to"]) {
    console.data() << "default level: " << level_text(level["from"]) << becomes
                   << level_text(level["to"]) << '\n';
  }
  for (const Json::Value& change : document["changes"]) {
    console.data() << printable(change["service"].asString()) << ": " << level_text(change["from"])
                   << becomes << level_text(change["to"]) << '\n';
  }
  for (const Json::Value& service : document["unknown"]) {
    console.data() << printable(service.asString())
                   << ": in the backup, but has not joined; passed over\n";
  }
  for (const Json::Value& service : document["missing"]) {
    console.data() << printable(service.asString()) << ": not in the backup; keeps its level\n";
  }
}

}  // namespace kelotlsctl
