// kelotlsctl regen: the data store, brought in line with the descriptor files.
#include "changes/settling.h"
#include "command_line.h"
#include "store/history.h"
#include "store/store.h"

namespace kelotlsctl {

Report regenerate(Console& console, const Arguments& arguments) {
  const WriteAccess access(console, arguments.confidence());
  const Regeneration plan = regenerate_store(load_store());
  if (!arguments.dry_run) {
    std::vector<std::string> changed;
    for (const char* const list : {"added", "changed"}) {
      for (const Json::Value& service : plan.document[list]) {
        changed.push_back(service.asString());
      }
    }
    begin_record(arguments.command, arguments.reason, changes_of(changed));
    save_store(plan.store);
  }
  Json::Value document = plan.document;
  document["written"] = !arguments.dry_run;
  return {document["unreadable"].empty() ? kDone : kFailed, document};
}

void print_regenerated(Console& console, const Json::Value& document) {
  const bool is_done = document["written"].asBool();
  console.print_each(document["added"], is_done ? ": added" : ": would be added");
  console.print_each(document["changed"], is_done ? ": changed" : ": would change");
  for (const std::string& warning : warnings_of_unreadable(document["unreadable"])) {
    console.warn(warning);
  }
  for (const Json::Value& service : document["orphans"]) {
    console.warn(printable(service) + " has an entry but no descriptor; the entry stays");
  }
  if (document["added"].empty() && document["changed"].empty()) {
    console.say("The data store agrees with the descriptors.");
  }
}

}  // namespace kelotlsctl
