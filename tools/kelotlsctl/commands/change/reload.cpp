// kelotlsctl reload: all reloaders, run.
#include "command_line.h"
#include "state/application.h"

namespace kelotlsctl {

Report reload(Console& console, const Arguments& arguments) {
  const Lock lock(console, !arguments.dry_run);
  const Store store = load_store();
  Report report;
  report.document = arguments.dry_run ? list_reloaders() : run_reloaders(store);
  const bool has_fault = report.document.isMember("fault");
  report.code = has_fault                                 ? kFailed
                : any_fault(report.document["reloaders"]) ? kReloaderFailed
                                                          : kDone;
  report.document["run"] = !arguments.dry_run && !has_fault;
  warn_of_reloading(console, std::as_const(report.document)["fault"]);
  return report;
}

void print_reloaded(Console& console, const Json::Value& document) {
  print_reloaders(console, document["reloaders"], document["fault"], document["run"].asBool());
}

}  // namespace kelotlsctl
