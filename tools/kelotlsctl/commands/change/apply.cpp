// kelotlsctl apply: rendering, reloading and probing as one.
#include "command_line.h"
#include "state/application.h"

namespace kelotlsctl {

Report apply_levels(Console& console, const Arguments& arguments) {
  const Lock lock(console, !arguments.dry_run);
  const Store store = load_store();
  const Application application = arguments.dry_run ? foresee_application(console, store)
                                                    : apply_to(console, store, store.names());
  Report report;
  report.code = application.code;
  report.document = application.document;
  report.document["applied"] = !arguments.dry_run;
  if (arguments.dry_run && !console.json() && report.document["reloaders"].empty() &&
      !report.document.isMember("reload-fault")) {
    report.notes.emplace_back("There is no reloader.");
  }
  return report;
}

void print_applied(Console& console, const Json::Value& document) {
  if (document["applied"].asBool()) {
    print_application(console, document);
    return;
  }
  print_renderings(console, document["rendered"], false);
  print_reloaders(console, document["reloaders"], false);
}

}  // namespace kelotlsctl
