// kelotlsctl get: a service's level.
#include "command_line.h"
#include "store/store.h"

namespace kelotlsctl {

Report get_level(Console&, const Arguments& arguments) {
  const Store store = load_store();
  require_service(store, arguments.service);
  return {kDone, store.levels_json(arguments.service)};
}

void print_level_of_service(Console& console, const Json::Value& document) {
  console.data() << describe_levels(document["stored-level"], document["effective-level"]) << '\n';
}

}  // namespace kelotlsctl
