// kelotlsctl apply: rendering, reloading and probing as one.
#include "command_line.h"
#include "state/application.h"

namespace kelotlsctl {

Report apply_levels(Console& console, const Arguments& arguments) {
  const Lock lock(console, !arguments.dry_run);
  const Store store = load_store();
  Report report;
  if (arguments.dry_run) {
    report.document = foresee_application(store);
  } else {
    report = apply_to(console, store, store.names());
  }
  report.document["applied"] = !arguments.dry_run;
  return report;
}

void print_applied(Console& console, const Json::Value& document) {
  if (document["applied"].asBool()) {
    print_application(console, document);
    return;
  }
  warn_of_faults(console, document["rendered"], "service", ": ");
  warn_of_reloading(console, document["reload-fault"]);
  print_renderings(console, document["rendered"], false);
  print_reloaders(console, document["reloaders"], document["reload-fault"], false);
}

}  // namespace kelotlsctl
