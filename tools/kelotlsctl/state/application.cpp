// Owns bringing levels into force.
#include "state/application.h"

#include <kelotls/api_provider.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "log_messages.h"
#include "output/text.h"
#include "paths.h"
#include "reloaders.h"
#include "tls/report.h"

namespace kelotlsctl {

namespace {

using Outcome = kelotls::RenderResult::Outcome;

Json::Value rendered_json(const std::string& service, const Rendered& rendered, bool with_diff) {
  const std::string path = kelotls::rendered_path(service);
  const kelotls::RenderedTexts& texts = rendered.texts;
  Json::Value value = object({{"service", service},
                              {"path", path},
                              {"change", rendered.outcome == Outcome::kFailed      ? "failed"
                                         : rendered.outcome == Outcome::kUnchanged ? "none"
                                         : texts.had_former                        ? "changed"
                                                                                   : "new"}});
  if (rendered.outcome == Outcome::kFailed) {
    value["fault"] = rendered.fault;
  } else if (with_diff && rendered.outcome != Outcome::kUnchanged) {
    value["diff"] = unified_diff(texts.had_former ? printable(path) : "/dev/null", printable(path),
                                 texts.former, texts.now);
  }
  return value;
}

std::string change_text(const Json::Value& change, bool is_done) {
  return change == "none"      ? "unchanged"
         : change == "new"     ? (is_done ? "made" : "would be made")
         : change == "changed" ? (is_done ? "changed" : "would change")
                               : "FAILED";
}

/// Runs the reloader of the element, and tells it what went wrong.
void run_listed(Json::Value& reloader) {
  const kelotls::ReloadResult result = kelotls::run_reloader(reloader["path"].asString());
  if (result.error != 0) {
    reloader["fault"] = std::string("cannot be run: ") + std::strerror(result.error);
  } else if (result.status != 0) {
    reloader["fault"] = "ended with status " + std::to_string(result.status);
  }
}

/// The element whose member is the text; null without one.
const Json::Value* element_with(const Json::Value& list, const char* member,
                                const std::string& text) {
  const auto found = std::find_if(list.begin(), list.end(), [&](const Json::Value& element) {
    return element[member].asString() == text;
  });
  return found != list.end() ? &*found : nullptr;
}

/// A service counts as reloaded unless its own reloader failed; one without a link may be served
/// by any of the base system's, so these must all have succeeded. What a reloader that failed has
/// left behind is not known: such a service is in no stamp, whatever it had before.
void stamp_services(const Store& store, const Json::Value& reloaders) {
  const bool is_base_system_reloaded =
      std::none_of(reloaders.begin(), reloaders.end(), [](const Json::Value& reloader) {
        return reloader.isMember("fault") &&
               reloader["path"].asString().rfind(kelotls::kSystemReloaderDir, 0) == 0;
      });
  Stamp stamp;
  for (const std::string& service : store.names()) {
    const Json::Value* const own = element_with(reloaders, "path", kelotls::link_path(service));
    if (own != nullptr ? !own->isMember("fault") : is_base_system_reloaded) {
      std::string rendered;
      kelotls::read_file(kelotls::rendered_path(service), rendered);
      stamp.record(service, store.effective_level(service), rendered);
    }
  }
  stamp.save();
}

/// Why the service's context does not do what its level asks for; empty where it does.
std::string probe_fault(Console& console, const std::string& service, int level) {
  const kelotls::ContextOwner context(kelotls::APIProvider().acquire_server_context(service));
  if (context == nullptr) {
    return "it gets no context";
  }
  ProbeTarget target;
  target.context = context.get();
  const Json::Value report = probe(target, level, [&](std::size_t done, std::size_t all) {
    console.progress("probing " + effective_level_json(level)["name"].asString(), done, all);
  });
  return first_own_difference(report, false);
}

/// [{"service", "stored-level", "effective-level", "agrees", "fault"}]
Json::Value probe_services(Console& console, const Store& store,
                           const std::vector<std::string>& services) {
  std::map<int, std::string> faults;
  return list_of(services, [&](const std::string& service) {
    const int level = store.effective_level(service);
    if (faults.count(level) == 0) {
      faults[level] = probe_fault(console, service, level);
    }
    const std::string& fault = faults[level];
    Json::Value probed = store.levels_json(service);
    probed["agrees"] = fault.empty();
    if (!fault.empty()) {
      probed["fault"] = fault;
      console.warn(printable(service) + ": probe: " + printable(fault));
    }
    return probed;
  });
}

Json::Value application_json(const Json::Value& renderings, const Json::Value& reloading) {
  Json::Value document = object(
      {{"rendered", renderings}, {"reloaders", reloading["reloaders"]}, {"probed", list_of({})}});
  if (reloading.isMember("fault")) {
    document["reload-fault"] = reloading["fault"];
  }
  return document;
}

/// How a step ended for a service; "-" where there was nothing to do.
const char* cell_of(const Json::Value* element, const char* done) {
  return element == nullptr               ? "-"
         : element->isMember("fault")     ? "FAILED"
         : (*element)["change"] == "none" ? "unchanged"
                                          : done;
}

}  // namespace

Json::Value render_all(const Store& store, kelotls::Rendering rendering, bool with_diff) {
  kelotls::JsonReader reader;
  Json::Value list = list_of({});
  for (const std::string& service : store.names()) {
    const Rendered rendered = render(store, service, reader, rendering);
    if (rendered.outcome != Outcome::kNoTemplate) {
      list.append(rendered_json(service, rendered, with_diff));
    }
  }
  return list;
}

bool any_fault(const Json::Value& list) {
  return std::any_of(list.begin(), list.end(),
                     [](const Json::Value& element) { return element.isMember("fault"); });
}

void warn_of_faults(Console& console, const Json::Value& list, const char* member,
                    const char* separator) {
  for (const Json::Value& element : list) {
    if (element.isMember("fault")) {
      console.warn(printable(element[member]) + separator + printable(element["fault"]));
    }
  }
}

void print_renderings(Console& console, const Json::Value& renderings, bool is_done) {
  for (const Json::Value& rendered : renderings) {
    console.data() << printable(rendered["service"]) << ": " << printable(rendered["path"]) << ' '
                   << change_text(rendered["change"], is_done) << '\n';
  }
}

Json::Value list_reloaders() {
  kelotls::FileList names = kelotls::make_file_list();
  std::vector<std::string> paths;
  const char* directory = nullptr;
  errno = 0;
  if (!kelotls::collect_reloaders(names, paths, directory)) {
    return object({{"reloaders", list_of({})}, {"fault", system_failure(directory).what()}});
  }
  return object({{"reloaders", list_of(paths, [](const std::string& path) {
                    return object({{"path", path}});
                  })}});
}

Json::Value run_reloaders(const Store& store) {
  Json::Value reloading = list_reloaders();
  if (reloading.isMember("fault")) {
    kelotls::log::reloaders_not_listed(kelotls::kConfigDir);
    return reloading;
  }
  for (Json::Value& reloader : reloading["reloaders"]) {
    run_listed(reloader);
  }
  stamp_services(store, reloading["reloaders"]);
  return reloading;
}

void warn_of_reloading(Console& console, const Json::Value& fault) {
  if (!fault.isNull()) {
    console.warn("no reloader has run: " + printable(fault));
  }
}

void print_reloaders(Console& console, const Json::Value& reloaders, const Json::Value& fault,
                     bool is_done) {
  for (const Json::Value& reloader : reloaders) {
    const std::string verdict = is_done ? reloader.get("fault", "done").asString() : "would be run";
    console.data() << printable(reloader["path"]) << ": " << printable(verdict) << '\n';
  }
  if (reloaders.empty() && fault.isNull()) {
    console.say("There is no reloader.");
  }
}

kelotls::ContextOwner service_context(const std::string& service) {
  kelotls::ContextOwner context(kelotls::APIProvider().acquire_server_context(service));
  if (context == nullptr) {
    throw Failure(kFailed, "the service \"" + printable(service) + "\" gets no context",
                  "A log line says why, unless its level is negative.");
  }
  return context;
}

Report apply_to(Console& console, const Store& store, const std::vector<std::string>& probed) {
  console.progress("rendering", 0, 3);
  const Json::Value renderings = render_all(store, kelotls::Rendering::kInForce, false);
  console.progress("reloading", 1, 3);
  const Json::Value reloading = run_reloaders(store);
  console.progress("reloading", 3, 3);

  Report report;
  report.document = application_json(renderings, reloading);
  report.document["probed"] = probe_services(console, store, probed);
  warn_of_faults(console, renderings, "service", ": ");
  warn_of_reloading(console, reloading["fault"]);
  warn_of_faults(console, reloading["reloaders"], "path", " ");
  report.code = any_fault(renderings) || reloading.isMember("fault") ? kFailed
                : any_fault(reloading["reloaders"])                  ? kReloaderFailed
                : any_fault(report.document["probed"])               ? kNotSo
                                                                     : kDone;
  return report;
}

Json::Value foresee_application(const Store& store) {
  return application_json(render_all(store, kelotls::Rendering::kPreview, false), list_reloaders());
}

void print_application(Console& console, const Json::Value& document) {
  Table table({"SERVICE", "LEVEL", "RENDER", "RELOAD", "PROBE"});
  for (const Json::Value& probed : document["probed"]) {
    const std::string service = probed["service"].asString();
    const Json::Value* const reloader =
        element_with(document["reloaders"], "path", kelotls::link_path(service));
    table.add({service, describe_levels(probed["stored-level"], probed["effective-level"]),
               cell_of(element_with(document["rendered"], "service", service), "rendered"),
               cell_of(reloader, "reloaded"), cell_of(&probed, "agrees")});
  }
  table.print(console.data(), console.colour());
}

}  // namespace kelotlsctl
