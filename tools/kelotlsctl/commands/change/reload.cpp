// kelotlsctl reload: all reloaders, run.
#include "command_line.h"
#include "state/application.h"

namespace kelotlsctl {

Report reload(Console& console, const Arguments& arguments) {
  const Lock lock(console, !arguments.dry_run);
  const Store store = load_store();
  const Reloading reloading = arguments.dry_run ? list_reloaders() : run_reloaders(store);
  warn_of_reloading(console, reloading);
  Report report;
  report.code = reloading.code();
  report.document = object(
      {{"run", !arguments.dry_run && reloading.fault.empty()}, {"reloaders", reloading.reloaders}});
  if (!reloading.fault.empty()) {
    report.document["fault"] = reloading.fault;
  } else if (reloading.reloaders.empty() && !console.json()) {
    report.notes.emplace_back("There is no reloader.");
  }
  return report;
}

void print_reloaded(Console& console, const Json::Value& document) {
  print_reloaders(console, document["reloaders"], document["run"].asBool());
}

}  // namespace kelotlsctl
