// kelotlsctl regen: the data store, brought in line with the descriptor files.
#include "command_line.h"
#include "state/store.h"

namespace kelotlsctl {

Report regenerate(Console& console, const Arguments& arguments) {
  const Lock lock(console, !arguments.dry_run);
  const Regeneration plan = regenerate_store(load_store());
  if (!arguments.dry_run) {
    save_store(plan.store);
  }
  Report report;
  report.code = plan.document["unreadable"].empty() ? kDone : kFailed;
  report.document = plan.document;
  report.document["written"] = !arguments.dry_run;
  if (console.json()) {
    return report;
  }
  report.warnings = warnings_of_unreadable(plan.document["unreadable"]);
  for (const Json::Value& service : plan.document["orphans"]) {
    report.warnings.push_back(printable(service.asString()) +
                              " has an entry but no descriptor; the entry stays");
  }
  if (plan.document["added"].empty() && plan.document["changed"].empty()) {
    report.notes.emplace_back("The data store agrees with the descriptors.");
  }
  return report;
}

void print_regenerated(Console& console, const Json::Value& document) {
  const bool is_done = document["written"].asBool();
  for (const Json::Value& service : document["added"]) {
    console.data() << printable(service.asString())
                   << (is_done ? ": added\n" : ": would be added\n");
  }
  for (const Json::Value& service : document["changed"]) {
    console.data() << printable(service.asString())
                   << (is_done ? ": changed\n" : ": would change\n");
  }
}

}  // namespace kelotlsctl
