// Owns bringing levels into force.
#include "changes/application.h"

#include <kelotls/api_provider.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "levels/dh_parameters.h"
#include "levels/report.h"
#include "log_messages.h"
#include "output/text.h"
#include "paths.h"
#include "reloaders.h"
#include "service/running_server.h"
#include "store/history.h"
#include "system/interruption.h"
#include "system/workers.h"

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

/// Of a service whose rendering came to no end.
Json::Value unrendered_json(const std::string& service) {
  return object({{"service", service},
                 {"path", kelotls::rendered_path(service)},
                 {"change", "failed"},
                 {"fault", "the process that renders it ended before it was done"}});
}

std::string change_text(const Json::Value& change, bool is_done) {
  return change == "none"      ? "unchanged"
         : change == "new"     ? (is_done ? "made" : "would be made")
         : change == "changed" ? (is_done ? "changed" : "would change")
                               : "FAILED";
}

/// Runs the reloader of the element, and tells it what went wrong.
void run_listed(Json::Value& reloader, std::chrono::seconds timeout) {
  const std::string path = reloader["path"].asString();
  const ProgramResult result = run_to_end({path}, timeout);
  if (result.error != 0) {
    reloader["fault"] = std::string("cannot be run: ") + std::strerror(result.error);
    errno = result.error;
    kelotls::log::reloader_not_run(path);
  } else if (result.status != 0) {
    const std::string seconds = std::to_string(timeout.count());
    reloader["fault"] = result.end == ProgramResult::End::kLate
                            ? "was ended after " + seconds + " s"
                        : result.end == ProgramResult::End::kInterrupted
                            ? "was ended by " + signal_name(interruption())
                            : "ended with status " + std::to_string(result.status);
    kelotls::log::reloader_failed(result.status, path);
  }
}

bool is_of_base_system(const std::string& path) {
  return path.rfind(kelotls::kSystemReloaderDir, 0) == 0;
}

/// How the reloaders of each service ended. A service without one of its own may be served by any
/// of the base system's, so these must all have succeeded.
class ReloadOutcomes {
 public:
  explicit ReloadOutcomes(const Json::Value& reloaders) {
    for (const Json::Value& reloader : reloaders) {
      const std::string path = reloader["path"].asString();
      by_path_[path] = &reloader;
      if (is_of_base_system(path) && (base_ == nullptr || base_->size() < reloader.size())) {
        base_ = &reloader;
      }
    }
  }

  /// The element that tells it; null where the service has nothing to run. own: of its own alone.
  const Json::Value* of(const std::string& service, bool own = false) const {
    const auto found = by_path_.find(kelotls::link_path(service));
    return found != by_path_.end() ? found->second : own ? nullptr : base_;
  }

 private:
  std::map<std::string, const Json::Value*> by_path_;
  const Json::Value* base_ = nullptr;  // of the base system's, one that failed where there is any
};

/// What a reloader that failed has left behind is not known: such a service is in no stamp,
/// whatever it had before. One that was not run has left what was there.
void stamp_services(const Store& store, const Selection& selection, const Json::Value& reloaders) {
  const ReloadOutcomes outcomes(reloaders);
  Stamp stamp = Stamp::load();
  stamp.remove_strangers(store);
  for (const std::string& service : selection.names) {
    const Json::Value* const outcome = outcomes.of(service);
    if (outcome != nullptr && outcome->isMember("fault")) {
      stamp.remove(service);
    } else if (outcome == nullptr || !outcome->isMember("not-run")) {
      std::string rendered;
      kelotls::read_file(kelotls::rendered_path(service), rendered);
      stamp.record(service, store.effective_level(service), rendered);
    }
  }
  stamp.save();
}

/// [{"service", "result"}], as far as reloaders tell.
Json::Value results_of(const Selection& selection, const Json::Value& reloaders) {
  const ReloadOutcomes outcomes(reloaders);
  return list_of(selection.names, [&](const std::string& service) {
    const Json::Value* const outcome = outcomes.of(service);
    return object({{"service", service},
                   {"result", outcome == nullptr             ? "in-force"
                              : outcome->isMember("fault")   ? "failed"
                              : outcome->isMember("not-run") ? "not-run"
                                                             : "in-force"}});
  });
}

/// Why the service's context does not do what its level asks for; empty where it does.
std::string probe_fault(Console& console, const std::string& service, int level) {
  std::string fault = dh_pipe_fault(level);
  if (!fault.empty()) {
    return fault;
  }
  const kelotls::ContextOwner context(kelotls::APIProvider().acquire_server_context(service));
  if (context == nullptr) {
    return "it gets no context";
  }
  ProbeTarget target;
  target.context = context.get();
  const Json::Value report = probe(target, level, [&](std::size_t done, std::size_t all) {
    console.progress("probing", effective_level_json(level)["name"].asString(), done, all);
  });
  return first_own_difference(report, false);
}

/// What the service's running server showed; null where it was not asked.
void note_server(Console& console, const Json::Value& seen, Json::Value& probed) {
  if (seen.isNull()) {
    return;
  }
  probed["asked"] = "server";
  probed["address"] = seen["address"];
  probed["verdict"] = seen["verdict"];
  if (!is_good(seen["verdict"])) {
    const std::string text = "its server at " + seen["address"].asString() + ": " +
                             wire_text(seen["verdict"].asString()) + ": " + seen["text"].asString();
    probed["agrees"] = false;
    probed[seen["verdict"] == "cannot-tell" ? "not-seen" : "fault"] = text;
    console.warn(printable(probed["service"]) + ": " + printable(text));
  }
}

/// [{"service", "stored-level", "effective-level", "asked": "library" or "server", "agrees",
/// "fault"}]; of a server "address", "verdict", and "not-seen": why it cannot be told.
Json::Value probe_services(Console& console, const Store& store, const Addresses& addresses,
                           const std::vector<std::string>& services) {
  std::map<int, std::string> faults;
  Json::Value list = list_of(services, [&](const std::string& service) {
    const int level = store.effective_level(service);
    if (faults.count(level) == 0) {
      faults[level] = probe_fault(console, service, level);
    }
    const std::string& fault = faults[level];
    Json::Value probed = store.levels_json(service);
    probed["asked"] = "library";
    probed["agrees"] = fault.empty();
    if (!fault.empty()) {
      probed["fault"] = fault;
      console.warn(printable(service) + ": probe: " + printable(fault));
    }
    return probed;
  });
  std::size_t done = 0;
  const std::vector<Json::Value> seen = ask_reloaded_servers(
      addresses, store, services, [&] { console.progress("asking", {}, ++done, services.size()); });
  for (Json::ArrayIndex index = 0; index < list.size(); ++index) {
    if (!list[index].isMember("fault")) {
      note_server(console, seen[index], list[index]);
    }
  }
  return list;
}

/// Tells each service how it came out of all steps: "in-force", "failed", "not-run".
void tell_results(Json::Value& document) {
  const ReloadOutcomes outcomes(document["reloaders"]);
  std::set<std::string> unrendered;
  for (const Json::Value& rendered : document["rendered"]) {
    if (rendered.isMember("fault")) {
      unrendered.insert(rendered["service"].asString());
    }
  }
  const bool has_run = !document.isMember("reload-fault");
  for (Json::Value& probed : document["probed"]) {
    const std::string service = probed["service"].asString();
    const Json::Value* const reloader = outcomes.of(service);
    const bool has_failed = !has_run || unrendered.count(service) != 0 ||
                            probed.isMember("fault") ||
                            (reloader != nullptr && reloader->isMember("fault"));
    const bool is_left_out = reloader != nullptr && reloader->isMember("not-run");
    probed["result"] = has_failed                    ? "failed"
                       : is_left_out                 ? "not-run"
                       : probed.isMember("not-seen") ? "not-seen"
                                                     : "in-force";
  }
}

Json::Value application_json(const Json::Value& renderings, const Json::Value& reloading) {
  Json::Value document = object(
      {{"rendered", renderings}, {"reloaders", reloading["reloaders"]}, {"probed", list_of({})}});
  if (reloading.isMember("fault")) {
    document["reload-fault"] = reloading["fault"];
  }
  return document;
}

bool any_not_seen(const Json::Value& probed) {
  return std::any_of(probed.begin(), probed.end(),
                     [](const Json::Value& element) { return element.isMember("not-seen"); });
}

/// How a step ended for a service; "-" where there was nothing to do.
const char* cell_of(const Json::Value* element, const char* done) {
  return element == nullptr               ? "-"
         : element->isMember("fault")     ? "FAILED"
         : element->isMember("not-run")   ? "not run"
         : (*element)["change"] == "none" ? "unchanged"
                                          : done;
}

/// Of the column that tells what was asked.
std::string probe_cell(const Json::Value& probed) {
  return probed["asked"] == "server" ? wire_text(probed["verdict"].asString())
                                     : cell_of(&probed, "library only");
}

}  // namespace

Json::Value render_templates_of(Console& console, const Store& store, const Selection& selection,
                                kelotls::Rendering rendering, bool with_diff) {
  const std::size_t count = selection.names.size();
  const pid_t here = ::getpid();
  kelotls::JsonReader reader;
  const auto render_one = [&](std::size_t index) {
    const std::string& service = selection.names[index];
    if (::getpid() == here) {
      console.progress("rendering", service, index, count);
    }
    const Rendered rendered = render(store, service, reader, rendering);
    return rendered.outcome != Outcome::kNoTemplate ? rendered_json(service, rendered, with_diff)
                                                    : Json::Value(false);
  };
  const Json::Value results = rendering == kelotls::Rendering::kInForce
                                  ? for_each_index_on_disk(count, render_one)
                                  : for_each_index(count, render_one);
  console.progress("rendering", {}, count, count);
  Json::Value list = list_of({});
  for (std::size_t index = 0; index < count; ++index) {
    const Json::Value& result = results[static_cast<Json::ArrayIndex>(index)];
    if (result.isNull()) {
      list.append(unrendered_json(selection.names[index]));
    } else if (result.isObject()) {
      list.append(result);
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

Json::Value list_reloaders(const Selection& selection) {
  kelotls::FileList names = kelotls::make_file_list();
  std::vector<std::string> paths;
  const char* directory = nullptr;
  errno = 0;
  if (!kelotls::collect_reloaders(names, paths, directory)) {
    return object({{"reloaders", list_of({})}, {"fault", system_failure(directory).what()}});
  }
  const std::set<std::string> existing(paths.begin(), paths.end());
  std::set<std::string> own;
  for (const std::string& service : selection.names) {
    own.insert(kelotls::link_path(service));
  }
  const bool needs_base = !std::includes(existing.begin(), existing.end(), own.begin(), own.end());
  Json::Value reloaders = list_of({});
  for (const std::string& path : paths) {
    if (selection.is_all || own.count(path) != 0 || (needs_base && is_of_base_system(path))) {
      reloaders.append(object({{"path", path}}));
    }
  }
  return object({{"reloaders", reloaders}});
}

Json::Value foresee_reloading(const Selection& selection) {
  Json::Value reloading = list_reloaders(selection);
  for (Json::Value& reloader : reloading["reloaders"]) {
    if (::access(reloader["path"].asCString(), X_OK) != 0) {
      reloader["fault"] = std::string("cannot be run: ") + std::strerror(errno);
    }
  }
  return reloading;
}

std::chrono::seconds seconds_in(const std::string& text) {
  constexpr long kDay = 24L * 60 * 60;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || value < 1 || value > kDay) {
    throw Failure(kUsage, "\"" + printable(text) + "\" is no time of 1 to 86400 seconds");
  }
  return std::chrono::seconds(value);
}

ReloadOptions reload_options(const std::string& seconds) {
  ReloadOptions options;
  options.timeout = seconds.empty() ? options.timeout : seconds_in(seconds);
  return options;
}

Json::Value run_reloaders(Console& console, const Store& store, const Selection& selection,
                          const ReloadOptions& options) {
  Json::Value reloading = list_reloaders(selection);
  if (reloading.isMember("fault")) {
    kelotls::log::reloaders_not_listed(kelotls::kConfigDir);
    return reloading;
  }
  Json::Value& reloaders = reloading["reloaders"];
  for (Json::ArrayIndex index = 0; index < reloaders.size(); ++index) {
    if (options.heeds_interruption && interruption() != 0) {
      reloaders[index]["not-run"] = "interrupted by " + signal_name(interruption());
      continue;
    }
    console.progress("reloading", reloaders[index]["path"].asString(), index, reloaders.size());
    run_listed(reloaders[index], options.timeout);
  }
  console.progress("reloading", {}, reloaders.size(), reloaders.size());
  if (!reloaders.empty() && reloaders[reloaders.size() - 1].isMember("not-run")) {
    set_result("interrupted");
  }
  record_results(results_of(selection, reloaders));
  stamp_services(store, selection, reloaders);
  return reloading;
}

void record_results(const Json::Value& services) {
  Json::Value exceptions = list_of({});
  bool any_left_out = false;
  for (const Json::Value& service : services) {
    const bool is_left_out = service["result"] == "not-run";
    any_left_out = any_left_out || is_left_out;
    if (is_left_out || service["result"] == "failed") {
      exceptions.append(object(
          {{"service", service["service"]}, {"result", is_left_out ? "interrupted" : "failed"}}));
    }
  }
  if (!exceptions.empty()) {
    set_result(any_left_out ? "interrupted" : "failed", exceptions);
  }
}

void warn_of_reloading(Console& console, const Json::Value& fault) {
  if (!fault.isNull()) {
    console.warn("no reloader has run: " + printable(fault));
  }
}

void print_reloaders(Console& console, const Json::Value& reloaders, const Json::Value& fault,
                     bool is_done) {
  for (const Json::Value& reloader : reloaders) {
    const char* const verdict = is_done ? "done" : "would be run";
    console.data() << printable(reloader["path"]) << ": "
                   << printable(reloader.get("not-run", reloader.get("fault", verdict))) << '\n';
  }
  if (reloaders.empty() && fault.isNull()) {
    console.say("There is no reloader.");
  }
}

kelotls::ContextOwner service_context(const Store& store, const std::string& service) {
  const std::string fault = dh_pipe_fault(store.effective_level(service));
  if (!fault.empty()) {
    throw Failure(kFailed, fault, "kelotlsctl dh puts one in its place.");
  }
  kelotls::ContextOwner context(kelotls::APIProvider().acquire_server_context(service));
  if (context == nullptr) {
    throw Failure(kFailed, "the service \"" + printable(service) + "\" gets no context",
                  "A log line says why, unless its level is negative.");
  }
  return context;
}

Report apply_to(Console& console, const Store& store, const Selection& selection,
                const ReloadOptions& options) {
  const Addresses addresses = Addresses::load();
  const Json::Value renderings =
      render_templates_of(console, store, selection, kelotls::Rendering::kInForce, false);
  const Json::Value reloading = run_reloaders(console, store, selection, options);

  Report report;
  report.document = application_json(renderings, reloading);
  report.document["probed"] = probe_services(console, store, addresses, selection.names);
  tell_results(report.document);
  warn_of_faults(console, renderings, "service", ": ");
  warn_of_reloading(console, reloading["fault"]);
  warn_of_faults(console, reloading["reloaders"], "path", " ");
  report.code = any_fault(renderings) || reloading.isMember("fault") ? kFailed
                : any_fault(reloading["reloaders"])                  ? kReloaderFailed
                : any_fault(report.document["probed"])               ? kNotSo
                : any_not_seen(report.document["probed"])            ? kCannotTell
                                                                     : kDone;
  return report;
}

Report foresee_application(Console& console, const Store& store, const Selection& selection,
                           bool with_diff) {
  const Json::Value renderings =
      render_templates_of(console, store, selection, kelotls::Rendering::kPreview, with_diff);
  const Json::Value reloading = foresee_reloading(selection);
  return {any_fault(renderings) || reloading.isMember("fault") ? kFailed
          : any_fault(reloading["reloaders"])                  ? kReloaderFailed
                                                               : kDone,
          application_json(renderings, reloading)};
}

void print_application(Console& console, const Json::Value& document) {
  const ReloadOutcomes outcomes(document["reloaders"]);
  std::map<std::string, const Json::Value*> rendered;
  for (const Json::Value& element : document["rendered"]) {
    rendered[element["service"].asString()] = &element;
  }
  Table table({"SERVICE", "LEVEL", "RENDER", "RELOAD", "PROBE"});
  for (const Json::Value& probed : document["probed"]) {
    const std::string service = probed["service"].asString();
    table.add({service, describe_levels(probed["stored-level"], probed["effective-level"]),
               cell_of(rendered[service], "rendered"),
               cell_of(outcomes.of(service, true), "reloaded"), probe_cell(probed)});
  }
  table.print(console.data(), console.colour());
}

void print_foreseen(Console& console, const Json::Value& document) {
  warn_of_faults(console, document["rendered"], "service", ": ");
  warn_of_reloading(console, document["reload-fault"]);
  print_renderings(console, document["rendered"], false);
  for (const Json::Value& rendered : document["rendered"]) {
    console.data() << printable_lines(rendered["diff"].asString());
  }
  print_reloaders(console, document["reloaders"], document["reload-fault"], false);
}

bool any_pending(const Store& store, const std::vector<std::string>& services) {
  ServiceInspector inspector(store);
  return std::any_of(services.begin(), services.end(), [&](const std::string& service) {
    const State state = inspector.inspect(service).state;
    return state != State::kInForce && state != State::kNextContext;
  });
}

}  // namespace kelotlsctl
