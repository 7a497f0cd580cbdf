// kelotlsctl reload: all reloaders, run.
#include "changes/application.h"
#include "changes/settling.h"
#include "command_line.h"
#include "store/history.h"

namespace kelotlsctl {

Report reload(Console& console, const Arguments& arguments) {
  const WriteAccess access(console, arguments.confidence());
  const Store store = load_store();
  const Selection selection = select_services(store, arguments.services);
  const ReloadOptions options = reload_options(arguments.reload_timeout);
  require_trust(console, walk_places(console, kReloaderPlaces, selection), arguments.confidence());
  if (!arguments.dry_run) {
    begin_record(arguments.command, arguments.reason, changes_of(selection.names));
  }
  const Json::Value reloading = arguments.dry_run
                                    ? foresee_reloading(selection)
                                    : run_reloaders(console, store, selection, options);
  const bool has_fault = reloading.isMember("fault");
  warn_of_reloading(console, reloading["fault"]);
  Json::Value document = reloading;
  document["run"] = !arguments.dry_run && !has_fault;
  return {has_fault                           ? kFailed
          : any_fault(reloading["reloaders"]) ? kReloaderFailed
                                              : kDone,
          document};
}

void print_reloaded(Console& console, const Json::Value& document) {
  print_reloaders(console, document["reloaders"], document["fault"], document["run"].asBool());
}

}  // namespace kelotlsctl
