// kelotlsctl list: all services, their levels, and whether these are in force.
#include "command_line.h"
#include "output/text.h"
#include "state/service_state.h"

namespace kelotlsctl {

namespace {

void print_names(Console& console, const Json::Value& document) {
  for (const Json::Value& name : document["names"]) {
    console.data() << printable(name.asString()) << '\n';
  }
}

/// For shells that complete names: only the data store is read, and there is no JSON form.
Report list_names(Console& console, const Store& store) {
  Report report;
  report.document["names"] = list_of(store.names());
  report.print = print_names;
  console.set_json(false);
  return report;
}

}  // namespace

Report list_services(Console& console, const Arguments& arguments) {
  const Store store = load_store();
  if (arguments.names) {
    return list_names(console, store);
  }
  ServiceInspector inspector(store);
  Report report;
  report.document["default-level"] = level_json(store.default_level());
  report.document["services"] = list_of({});
  for (const std::string& service : store.names()) {
    report.document["services"].append(status_json(inspector.inspect(service)));
  }
  if (store.services().empty() && !console.json()) {
    report.notes.emplace_back("No service has joined.");
  }
  return report;
}

void print_services(Console& console, const Json::Value& document) {
  if (document["services"].empty()) {
    return;
  }
  Table table({"SERVICE", "LEVEL", "STATE", "NAME"});
  for (const Json::Value& service : document["services"]) {
    table.add({service["service"].asString(),
               describe_levels(service["stored-level"]["value"].asInt(),
                               service["effective-level"]["value"].asInt()),
               state_text(service["state"].asString()), service["display-name"].asString()});
  }
  table.print(console.data(), console.colour());
}

}  // namespace kelotlsctl
