// kelotlsctl render --preview: what templates give at each level, whether their services have
// joined or not.
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "changes/application.h"
#include "command_line.h"
#include "files.h"
#include "output/text.h"
#include "paths.h"
#include "service/templates.h"
#include "store/documents.h"

namespace kelotlsctl {

namespace {

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Before the first service has joined there is no data store, and no service.
bool has_joined(const std::string& name) {
  const std::optional<Store> store = try_store();
  return store && store->has(name);
}

/// A template, and the service that it is for; without a name where that is not known.
struct Source {
  std::string service;
  std::string template_path;
};

using Sources = std::vector<Source>;

Sources source_of_service(const std::string& service) {
  const std::string path = kelotls::descriptor_path(service);
  Json::Value descriptor;
  std::string fault;
  if (!read_document(path, descriptor, fault)) {
    throw Failure(kFailed, "descriptor " + printable(path) + ": " + printable(fault));
  }
  const std::string template_path = kelotls::text_member(descriptor, "mustache-path");
  if (template_path.empty()) {
    throw Failure(kFailed, "the service \"" + printable(service) + "\" has no template");
  }
  return {{service, template_path}};
}

Sources sources_of_registration(const Json::Value& registration) {
  Sources sources;
  for (const Json::Value& service : registration["services"]) {
    const std::string template_path = kelotls::text_member(service, "mustache-path");
    if (!template_path.empty()) {
      sources.push_back({service["service"].asString(), template_path});
    }
  }
  return sources;
}

/// A registration may be called anything, and a template may look like JSON.
bool is_registration_file(const std::string& file) {
  if (file == "-" || ends_with(file, ".json")) {
    return true;
  }
  if (ends_with(file, ".mustache")) {
    return false;
  }
  Json::Value document;
  std::string fault;
  return read_document(file, document, fault) &&
         kelotls::find_member(document, "services") != nullptr;
}

/// A name without a "/" is a service's where one has joined under it.
Sources sources_of(const std::string& subject) {
  const bool has_directory = subject.find('/') != std::string::npos;
  if (!has_directory && has_joined(subject)) {
    return source_of_service(subject);
  }
  if (!has_directory && subject != "-" && !kelotls::exists_at(subject)) {
    require_service(load_store(), subject);
  }
  if (is_registration_file(subject)) {
    return sources_of_registration(require_registration(subject, kelotls::Purpose::kJoin).document);
  }
  return {{"", subject}};
}

/// Others see what root may read. Who is not root has nothing to lose by templates of his own.
void require_trust_in(const Sources& sources, Console& console, const Arguments& arguments) {
  std::vector<std::string> paths;
  for (const Source& source : sources) {
    paths.push_back(source.template_path);
  }
  if (::geteuid() == 0) {
    require_trust(console, walk_templates(paths), arguments.confidence());
  }
}

Json::Value preview_of(const Source& source, const std::vector<int>& levels) {
  Json::Value preview = preview_json(source.template_path, levels);
  if (!source.service.empty()) {
    preview["service"] = source.service;
  }
  return preview;
}

std::vector<int> levels_of(const std::string& text) {
  if (text.empty()) {
    return {kTemplateLevels.begin(), kTemplateLevels.end()};
  }
  const int level = parse_level(text);
  if (level == 0) {
    throw Failure(kUsage, "a preview needs a level that templates tell apart",
                  "It can be modern, intermediate or old.");
  }
  return {level};
}

std::string heading_of(const Json::Value& preview, const Json::Value& given) {
  const char* const key = preview.isMember("service") ? "service" : "template";
  return printable(preview[key]) + ", level " + level_text(given["level"]);
}

/// A text alone stands as it would be written; others each under a heading.
void print_previews(Console& console, const Json::Value& document) {
  const Json::Value& previews = document["previews"];
  const bool is_alone = previews.size() == 1 && previews[0]["levels"].size() == 1;
  ReportText report(console.data(), console.colour());
  bool is_first = true;
  for (const Json::Value& preview : previews) {
    for (const Json::Value& given : preview["levels"]) {
      if (given.isMember("fault")) {
        console.warn(heading_of(preview, given) + ": " + printable(given["fault"]));
        continue;
      }
      if (!is_alone) {
        console.data() << (is_first ? "" : "\n");
        report.heading(heading_of(preview, given) + ":");
      }
      is_first = false;
      const std::string text = printable_lines(given["text"].asString());
      console.data() << text << (is_alone || ends_with(text, "\n") ? "" : "\n");
    }
  }
}

}  // namespace

Report preview_templates(Console& console, const Arguments& arguments) {
  if (arguments.check) {
    throw Failure(kUsage, "--preview and --check exclude each other");
  }
  const std::vector<int> levels = levels_of(arguments.level);
  const Sources sources = sources_of(arguments.preview);
  require_trust_in(sources, console, arguments);
  Report report;
  const Json::Value& previews = report.document["previews"] =
      list_of(sources, [&](const Source& source) { return preview_of(source, levels); });
  const bool has_fault =
      std::any_of(previews.begin(), previews.end(),
                  [](const Json::Value& preview) { return any_fault(preview["levels"]); });
  report.code = has_fault ? kFailed : kDone;
  report.print = print_previews;
  return report;
}

}  // namespace kelotlsctl
