// kelotlsctl show: one service, and what there is of its files.
#include "command_line.h"
#include "files.h"
#include "output/characters.h"
#include "paths.h"
#include "service/service_state.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kLabelWidth = 14;

/// Null for an empty path.
Json::Value file_json(const std::string& path) {
  return path.empty() ? Json::Value()
                      : object({{"path", path}, {"exists", kelotls::exists_at(path)}});
}

void print_line(Console& console, std::string label, const std::string& text) {
  label.resize(kLabelWidth, ' ');
  console.data() << label << printable(text) << '\n';
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
    text += std::string(" ") + arrow() + " " + file["target"].asString();
  } else if (!file["exists"].asBool()) {
    text += " (missing)";
  }
  return text;
}

}  // namespace

Report show_service(Console&, const Arguments& arguments) {
  const Store store = load_store();
  require_service(store, arguments.service);
  ServiceInspector inspector(store);
  inspector.ask_servers();
  const ServiceStatus status = inspector.inspect(arguments.service);
  const ServiceDescriptor& descriptor = status.descriptor;
  const bool has_template = !descriptor.template_path().empty();
  Json::Value details = status.document;
  const std::string key = kelotls::text_member(store.services()[status.name], "display-name-i18n");
  details["display-name-i18n"] = key.empty() ? Json::Value() : key;
  details["descriptor"] = file_json(descriptor.path);
  if (!descriptor.is_usable()) {
    details["descriptor"]["fault"] = descriptor.fault;
  }
  details["template"] = file_json(descriptor.template_path());
  details["reloader"] = file_json(descriptor.reloader_path());
  details["reloader-link"] = Json::Value();
  if (!status.link_target.empty()) {
    details["reloader-link"] = file_json(kelotls::link_path(status.name));
    details["reloader-link"]["target"] = status.link_target;
  }
  details["rendered"] = file_json(has_template ? kelotls::rendered_path(status.name) : "");
  return {kDone, details};
}

void print_service(Console& console, const Json::Value& details) {
  print_line(console, "service", details["service"].asString());
  print_line(console, "display name", details["display-name"].asString());
  if (!details["display-name-i18n"].isNull()) {
    print_line(console, "translation", details["display-name-i18n"].asString());
  }
  print_line(
      console, "level",
      describe_levels(details["stored-level"], details["effective-level"]) + date_text(details));
  if (details.isMember("dated")) {
    print_line(console, "then", level_text(details["dated"]["then"]));
    print_line(console, "reason", details["dated"]["reason"].asString());
  }
  print_line(console, "state", state_text(details["state"].asString()));
  print_line(
      console, "asked",
      !details.isMember("server")
          ? "its files; no running server"
          : "its server at " + details["server"]["address"].asString() +
                (details["server"].isMember("text") ? ": " + details["server"]["text"].asString()
                                                    : ""));
  if (details.isMember("in-force-since")) {
    print_line(console, "since", details["in-force-since"].asString());
  }
  if (details.isMember("fault")) {
    print_line(console, "fault", details["fault"].asString());
  }
  for (const char* file : {"descriptor", "template", "rendered", "reloader"}) {
    print_line(console, file, path_text(details[file]));
  }
  print_line(console, "link", path_text(details["reloader-link"]));
}

}  // namespace kelotlsctl
