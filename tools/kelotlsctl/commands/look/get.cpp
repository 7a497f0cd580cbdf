// kelotlsctl get: a service's level.
#include "command_line.h"
#include "state/store.h"

namespace kelotlsctl {

Report get_level(Console&, const Arguments& arguments) {
  const Store store = load_store();
  require_service(store, arguments.service);
  Report report;
  report.document["service"] = arguments.service;
  report.document["stored-level"] = level_json(store.stored_level(arguments.service));
  report.document["effective-level"] =
      effective_level_json(store.effective_level(arguments.service));
  return report;
}

void print_level_of_service(Console& console, const Json::Value& document) {
  console.data() << describe_levels(document["stored-level"]["value"].asInt(),
                                    document["effective-level"]["value"].asInt())
                 << '\n';
}

}  // namespace kelotlsctl
