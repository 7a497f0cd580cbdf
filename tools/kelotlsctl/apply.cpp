#include "apply.h"

#include <kelotls/api_provider.h>

#include <algorithm>

#include "level.h"
#include "owners.h"
#include "probe.h"
#include "table.h"

namespace kelotlsctl {

namespace {

std::string first_difference(const Json::Value& report) {
  for (const Json::Value& difference : report["differences"]) {
    if (difference["kind"] == "extra" || difference["cause"] == "other") {
      return difference["text"].asString();
    }
  }
  return "it does not do what its level asks for";
}

ProbeResult probe_context(Console& console, const std::string& service, int level) {
  const ContextOwner context(kelotls::APIProvider().acquire_server_context(service));
  if (context == nullptr) {
    return {"it gets no context"};
  }
  ProbeTarget target;
  target.context = context.get();
  const Json::Value report = probe(target, level, [&](std::size_t done, std::size_t all) {
    console.progress("probing " + effective_name(level), done, all);
  });
  return {has_own_differences(report, false) ? first_difference(report) : std::string()};
}

std::string rendered_text(const RenderResult* result) {
  if (result == nullptr) {
    return "-";
  }
  switch (result->verdict) {
    case Rendering::kUnchanged:
      return "unchanged";
    case Rendering::kImpossible:
      return "FAILED";
    default:
      return "rendered";
  }
}

std::string reloaded_text(const ReloadResult::Reloader* reloader) {
  if (reloader == nullptr) {
    return "-";
  }
  return reloader->fault.empty() ? "reloaded" : "FAILED";
}

const RenderResult* result_of(const std::string& service,
                              const std::vector<RenderResult>& results) {
  const auto found = std::find_if(results.begin(), results.end(), [&](const RenderResult& result) {
    return result.service == service;
  });
  return found != results.end() ? &*found : nullptr;
}

}  // namespace

bool has_own_differences(const Json::Value& report, bool dh_file_counts) {
  const Json::Value& differences = report["differences"];
  return std::any_of(differences.begin(), differences.end(), [&](const Json::Value& difference) {
    const std::string cause = difference["cause"].asString();
    return difference["kind"] == "extra" || cause == "other" ||
           (dh_file_counts && (cause == "dh-file-missing" || cause == "dh-file-unreadable"));
  });
}

ExitCode Application::code() const {
  if (any_failed(rendered)) {
    return kFailed;
  }
  if (reloaded.code() != kDone) {
    return reloaded.code();
  }
  const bool probes_agree = std::all_of(
      probed.begin(), probed.end(), [](const auto& result) { return result.second.fault.empty(); });
  return probes_agree ? kDone : kNotSo;
}

Application apply_to(Console& console, const Store& store, const std::vector<std::string>& probed) {
  Application application;
  console.progress("rendering", 0, 3);
  application.rendered = render_templates(store);
  console.progress("reloading", 1, 3);
  application.reloaded = run_reloaders(store);
  console.progress("reloading", 3, 3);
  std::map<int, ProbeResult> of_level;
  for (const std::string& service : probed) {
    const int level = store.effective_level(service);
    if (of_level.count(level) == 0) {
      of_level[level] = probe_context(console, service, level);
    }
    application.probed[service] = of_level[level];
  }
  return application;
}

Json::Value application_json(const Application& application) {
  Json::Value value(Json::objectValue);
  value["rendered"] = render_json(application.rendered, false);
  value["reloaders"] = reload_json(application.reloaded);
  if (!application.reloaded.fault.empty()) {
    value["reload-fault"] = application.reloaded.fault;
  }
  value["probed"] = Json::Value(Json::arrayValue);
  for (const auto& [service, result] : application.probed) {
    Json::Value probed(Json::objectValue);
    probed["service"] = service;
    probed["agrees"] = result.fault.empty();
    if (!result.fault.empty()) {
      probed["fault"] = result.fault;
    }
    value["probed"].append(probed);
  }
  return value;
}

void print_application(Console& console, const Store& store, const Application& application) {
  Table table({"SERVICE", "LEVEL", "RENDER", "RELOAD", "PROBE"});
  for (const std::string& service : store.services.getMemberNames()) {
    const auto probed = application.probed.find(service);
    if (probed == application.probed.end()) {
      continue;
    }
    const RenderResult* const rendered = result_of(service, application.rendered);
    table.add({service,
               describe_levels(store.stored_level(service), store.effective_level(service)),
               rendered_text(rendered), reloaded_text(reloader_of(service, application.reloaded)),
               probed->second.fault.empty() ? "agrees" : "FAILED"});
    if (!probed->second.fault.empty()) {
      console.warn(printable(service) + ": probe: " + printable(probed->second.fault));
    }
  }
  for (const RenderResult& result : application.rendered) {
    if (!result.fault.empty()) {
      console.warn(printable(result.service) + ": " + printable(result.fault));
    }
  }
  if (!application.reloaded.fault.empty()) {
    console.warn("no reloader has run: " + printable(application.reloaded.fault));
  }
  for (const ReloadResult::Reloader& reloader : application.reloaded.reloaders) {
    if (!reloader.fault.empty()) {
      console.warn(printable(reloader.path) + " " + printable(reloader.fault));
    }
  }
  if (!console.json()) {
    table.print(console.data(), console.colour());
  }
}

}  // namespace kelotlsctl
