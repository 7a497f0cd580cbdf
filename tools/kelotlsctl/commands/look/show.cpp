// kelotlsctl show: one service, and what there is of its files.
#include "command_line.h"
#include "files.h"
#include "paths.h"
#include "state/service_state.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kLabelWidth = 14;

Json::Value file_json(const std::string& path) {
  return object({{"path", path}, {"exists", kelotls::exists_at(path)}});
}

Json::Value null_or_file(const std::string& path) {
  return path.empty() ? Json::Value() : file_json(path);
}

void print_line(Console& console, const char* label, const std::string& text) {
  std::string head = label;
  head.resize(kLabelWidth, ' ');
  console.data() << head << printable(text) << '\n';
}

/// "PATH", with a remark where something is to be said of it.
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

}  // namespace

Report show_service(Console&, const Arguments& arguments) {
  const Store store = load_store();
  require_service(store, arguments.service);
  const ServiceStatus status = ServiceInspector(store).inspect(arguments.service);
  const ServiceDescriptor& descriptor = status.descriptor;
  Report report;
  report.document = status_json(status);
  Json::Value& details = report.document;
  details["display-name-i18n"] =
      status.i18n_display_name.empty() ? Json::Value() : Json::Value(status.i18n_display_name);
  details["descriptor"] = file_json(descriptor.path);
  if (!descriptor.usable) {
    details["descriptor"]["fault"] = descriptor.fault;
  }
  details["template"] = null_or_file(descriptor.template_path());
  details["reloader"] = null_or_file(descriptor.reloader_path());
  details["reloader-link"] = Json::Value();
  if (!status.link_target.empty()) {
    details["reloader-link"] = file_json(kelotls::link_path(status.name));
    details["reloader-link"]["target"] = status.link_target;
  }
  details["rendered"] = descriptor.template_path().empty()
                            ? Json::Value()
                            : file_json(kelotls::rendered_path(status.name));
  return report;
}

void print_service(Console& console, const Json::Value& details) {
  print_line(console, "service", details["service"].asString());
  print_line(console, "display name", details["display-name"].asString());
  if (!details["display-name-i18n"].isNull()) {
    print_line(console, "translation", details["display-name-i18n"].asString());
  }
  print_line(console, "level",
             describe_levels(details["stored-level"]["value"].asInt(),
                             details["effective-level"]["value"].asInt()));
  print_line(console, "state", state_text(details["state"].asString()));
  if (details.isMember("fault")) {
    print_line(console, "fault", details["fault"].asString());
  }
  print_line(console, "descriptor", path_text(details["descriptor"]));
  print_line(console, "template", path_text(details["template"]));
  print_line(console, "rendered", path_text(details["rendered"]));
  print_line(console, "reloader", path_text(details["reloader"]));
  print_line(console, "link", path_text(details["reloader-link"]));
}

}  // namespace kelotlsctl
