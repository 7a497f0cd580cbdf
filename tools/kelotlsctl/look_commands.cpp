// The commands that show services: list, show, get.
#include "commands.h"
#include "json_text.h"
#include "level.h"
#include "paths.h"
#include "service_state.h"
#include "store.h"
#include "table.h"

namespace kelotlsctl {

namespace {

/// For shells that complete names: nothing is looked at but the data store.
int list_names(Console& console, const Store& store) {
  for (const std::string& service : store.services.getMemberNames()) {
    console.data() << printable(service) << '\n';
  }
  return kDone;
}

Json::Value file_json(const std::string& path) {
  Json::Value value(Json::objectValue);
  value["path"] = path;
  value["exists"] = stands_at(path);
  return value;
}

Json::Value null_or_file(const std::string& path) {
  return path.empty() ? Json::Value() : file_json(path);
}

Json::Value details_json(const ServiceStatus& status) {
  Json::Value value = status_json(status);
  value["display-name-i18n"] =
      status.i18n_display_name.empty() ? Json::Value() : Json::Value(status.i18n_display_name);
  value["descriptor"] = file_json(status.descriptor.path);
  if (!status.descriptor.usable) {
    value["descriptor"]["fault"] = status.descriptor.fault;
  }
  value["template"] = null_or_file(status.descriptor.template_path());
  value["reloader"] = null_or_file(status.descriptor.reloader_path());
  value["reloader-link"] = Json::Value();
  if (!status.link_target.empty()) {
    value["reloader-link"] = file_json(link_path(status.name));
    value["reloader-link"]["target"] = status.link_target;
  }
  value["rendered"] = status.descriptor.template_path().empty()
                          ? Json::Value()
                          : file_json(rendered_path(status.name));
  return value;
}

void print_line(std::ostream& out, const std::string& head, const std::string& text) {
  out << head << std::string(14 - head.size(), ' ') << printable(text) << '\n';
}

/// "PATH", with a remark when nothing stands there.
std::string path_text(const Json::Value& file) {
  if (file.isNull()) {
    return "none";
  }
  std::string text = file["path"].asString();
  if (file.isMember("fault")) {
    text += " (" + file["fault"].asString() + ")";
  } else if (file.isMember("target")) {
    text += " → " + file["target"].asString();
  } else if (!file["exists"].asBool()) {
    text += " (missing)";
  }
  return text;
}

void print_details(std::ostream& out, const ServiceStatus& status) {
  const Json::Value details = details_json(status);
  print_line(out, "service", status.name);
  print_line(out, "display name", status.display_name);
  if (!status.i18n_display_name.empty()) {
    print_line(out, "translation", status.i18n_display_name);
  }
  print_line(out, "level", describe_levels(status.stored, status.effective));
  print_line(out, "state", state_text(status.state));
  if (!status.rendered.fault.empty()) {
    print_line(out, "fault", status.rendered.fault);
  }
  print_line(out, "descriptor", path_text(details["descriptor"]));
  print_line(out, "template", path_text(details["template"]));
  print_line(out, "rendered", path_text(details["rendered"]));
  print_line(out, "reloader", path_text(details["reloader"]));
  print_line(out, "link", path_text(details["reloader-link"]));
}

}  // namespace

int list_services(Invocation& invocation, bool names_only) {
  Console& console = invocation.console;
  const Store store = load_store();
  if (names_only) {
    return list_names(console, store);
  }

  ServiceInspector inspector(store);
  Json::Value document(Json::objectValue);
  document["default-level"] = level_json(store.default_level);
  document["services"] = Json::Value(Json::arrayValue);
  Table table({"SERVICE", "LEVEL", "STATE", "NAME"});
  for (const std::string& service : store.services.getMemberNames()) {
    const ServiceStatus status = inspector.inspect(service);
    document["services"].append(status_json(status));
    table.add({status.name, describe_levels(status.stored, status.effective),
               state_text(status.state), status.display_name});
  }

  if (console.json()) {
    console.document(document);
  } else if (store.services.empty()) {
    console.say("No service has joined.");
  } else {
    table.print(console.data(), console.colour());
  }
  return kDone;
}

int show_service(Invocation& invocation, const std::string& service) {
  Console& console = invocation.console;
  const Store store = load_store();
  require_service(store, service);
  const ServiceStatus status = ServiceInspector(store).inspect(service);
  if (console.json()) {
    console.document(details_json(status));
  } else {
    print_details(console.data(), status);
  }
  return kDone;
}

int get_level(Invocation& invocation, const std::string& service) {
  Console& console = invocation.console;
  const Store store = load_store();
  require_service(store, service);
  const int stored = store.stored_level(service);
  const int effective = store.effective_level(service);
  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["service"] = service;
    document["stored-level"] = level_json(stored);
    document["effective-level"] = effective_level_json(effective);
    console.document(document);
  } else {
    console.data() << describe_levels(stored, effective) << '\n';
  }
  return kDone;
}

}  // namespace kelotlsctl
