// kelotlsctl apply: rendering, reloading and probing as one.
#include "changes/application.h"
#include "changes/snapshot.h"
#include "changes/way_back.h"
#include "command_line.h"
#include "store/history.h"

namespace kelotlsctl {

Report apply_levels(Console& console, const Arguments& arguments) {
  const WayBack way_back = kelotlsctl::way_back(arguments.confirm, arguments.confidence());
  const WriteAccess access(console, arguments.confidence(), way_back.joins());
  const Store store = load_store();
  const Selection selection = select_services(store, arguments.services);
  const ReloadOptions options = reload_options(arguments.reload_timeout);
  require_trust(console, walk_places(console, kAllPlaces, selection), arguments.confidence());
  Report report;
  if (arguments.dry_run) {
    report = foresee_application(console, store, selection, false);
  } else {
    begin_record(arguments.command, arguments.reason, changes_of(selection.names));
    const auto snapshot = [&] { return take_snapshot(store, selection.names, Extent::kLevel); };
    report = make_change(console, way_back, snapshot, [&] {
      Report applied = apply_to(console, store, selection, options);
      record_results(applied.document["probed"]);
      return applied;
    });
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
