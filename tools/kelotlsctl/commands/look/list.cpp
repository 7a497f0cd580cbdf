// kelotlsctl list: all services, their levels, and whether these are in force.
#include "command_line.h"
#include "output/text.h"
#include "state/service_state.h"

namespace kelotlsctl {

namespace {

void print_names(Console& console, const Json::Value& document) {
  console.print_each(document["names"], "");
}

/// For shells that complete names: only the data store is read, and there is no JSON form.
Report list_names(Console& console, const Store& store) {
  console.set_json(false);
  return {kDone, object({{"names", list_of(store.names())}}), {}, {}, print_names};
}

}  // namespace

Report list_services(Console& console, const Arguments& arguments) {
  const Store store = load_store();
  if (arguments.names) {
    return list_names(console, store);
  }
  ServiceInspector inspector(store);
  const Json::Value services = list_of(store.names(), [&](const std::string& service) {
    return inspector.inspect(service).document;
  });
  return {kDone,
          object({{"default-level", level_json(store.default_level())}, {"services", services}})};
}

void print_services(Console& console, const Json::Value& document) {
  if (document["services"].empty()) {
    console.say(has_descriptors() ? "No service has an entry in the data store, but there are "
                                    "descriptors: kelotlsctl regen"
                                  : "No service has joined.");
    return;
  }
  Table table({"SERVICE", "LEVEL", "STATE", "NAME"});
  for (const Json::Value& service : document["services"]) {
    table.add({service["service"].asString(),
               describe_levels(service["stored-level"], service["effective-level"]),
               state_text(service["state"].asString()), service["display-name"].asString()});
  }
  table.print(console.data(), console.colour());
}

}  // namespace kelotlsctl
