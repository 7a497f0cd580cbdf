// kelotlsctl apply: rendering, reloading and probing as one.
#include "changes/application.h"
#include "command_line.h"
#include "store/history.h"
#include "store/lock.h"

namespace kelotlsctl {

Report apply_levels(Console& console, const Arguments& arguments) {
  const Lock lock(console, arguments.command, !arguments.dry_run);
  const Store store = load_store();
  const Selection selection = select_services(store, arguments.services);
  const ReloadOptions options = reload_options(arguments.reload_timeout);
  require_trust(console, walk_places(console, kAllPlaces, selection), arguments.confidence());
  Report report;
  if (arguments.dry_run) {
    report = foresee_application(console, store, selection, false);
  } else {
    begin_record(arguments.command, arguments.reason, changes_of(selection.names));
    report = apply_to(console, store, selection, options);
    record_results(report.document["probed"]);
  }
  report.document["applied"] = !arguments.dry_run;
  return report;
}

void print_applied(Console& console, const Json::Value& document) {
  if (document["applied"].asBool()) {
    print_application(console, document);
    return;
  }
  print_foreseen(console, document);
}

}  // namespace kelotlsctl
