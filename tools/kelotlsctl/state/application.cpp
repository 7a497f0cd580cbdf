// Owns bringing levels into force.
#include "state/application.h"

#include <fcntl.h>
#include <kelotls/api_provider.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "files.h"
#include "log_messages.h"
#include "output/text.h"
#include "paths.h"
#include "reloaders.h"
#include "tls/report.h"

namespace kelotlsctl {

namespace {

/// As long as it lives, what reloaders write to the standard output goes to the standard error: the
/// former carries nothing but the command's own data.
class OutputAside {
 public:
  OutputAside() : output_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
  }
  OutputAside(const OutputAside&) = delete;
  OutputAside& operator=(const OutputAside&) = delete;
  ~OutputAside() {
    if (output_.is_open()) {
      ::dup2(output_.get(), STDOUT_FILENO);
    } else {
      ::close(STDOUT_FILENO);
    }
  }

 private:
  const kelotls::Descriptor output_;
};

struct ChangeWords {
  const char* key;
  const char* done;
  const char* foreseen;
};

// clang-format off
constexpr ChangeWords kChangeWords[] = {
    {"none",    "unchanged", "unchanged"},
    {"none",    "unchanged", "unchanged"},
    {"new",     "made",      "would be made"},
    {"changed", "changed",   "would change"},
    {"failed",  "FAILED",    "FAILED"},
};
// clang-format on

std::string diff_of(const Rendered& rendered) {
  const std::string path = printable(kelotls::rendered_path(rendered.service));
  return unified_diff(rendered.change == Change::kNew ? "/dev/null" : path, path,
                      rendered.texts.former, rendered.texts.now);
}

Json::Value rendered_json(const Rendered& rendered, bool with_diff) {
  Json::Value value =
      object({{"service", rendered.service},
              {"path", kelotls::rendered_path(rendered.service)},
              {"change", kChangeWords[static_cast<std::size_t>(rendered.change)].key}});
  if (!rendered.fault.empty()) {
    value["fault"] = rendered.fault;
  } else if (with_diff && rendered.change != Change::kUnchanged) {
    value["diff"] = diff_of(rendered);
  }
  return value;
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

bool any_base_system_reloader_failed(const Json::Value& reloaders) {
  const std::string directory = kelotls::kSystemReloaderDir;
  return std::any_of(reloaders.begin(), reloaders.end(), [&](const Json::Value& reloader) {
    return reloader.isMember("fault") &&
           reloader["path"].asString().compare(0, directory.size(), directory) == 0;
  });
}

/// A service counts as reloaded unless its own reloader failed; one without a link may be served
/// by any of the base system's, so these must all have succeeded. What a reloader that failed has
/// left behind is not known: such a service is in no stamp, whatever it had before.
void stamp_services(const Store& store, const Json::Value& reloaders) {
  const bool is_base_system_reloaded = !any_base_system_reloader_failed(reloaders);
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
    console.progress("probing " + effective_name(level), done, all);
  });
  return has_own_differences(report, false) ? first_difference(report) : std::string();
}

/// [{"service", "stored-level", "effective-level", "agrees", "fault"}]
Json::Value probe_services(Console& console, const Store& store,
                           const std::vector<std::string>& services) {
  std::map<int, std::string> faults;
  Json::Value list = list_of({});
  for (const std::string& service : services) {
    const int level = store.effective_level(service);
    if (faults.count(level) == 0) {
      faults[level] = probe_fault(console, service, level);
    }
    const std::string& fault = faults[level];
    Json::Value& probed =
        list.append(object({{"service", service},
                            {"stored-level", level_json(store.stored_level(service))},
                            {"effective-level", effective_level_json(level)},
                            {"agrees", fault.empty()}}));
    if (!fault.empty()) {
      probed["fault"] = fault;
      console.warn(printable(service) + ": probe: " + printable(fault));
    }
  }
  return list;
}

Json::Value application_json(const Json::Value& renderings, const Reloading& reloading) {
  Json::Value document = object(
      {{"rendered", renderings}, {"reloaders", reloading.reloaders}, {"probed", list_of({})}});
  if (!reloading.fault.empty()) {
    document["reload-fault"] = reloading.fault;
  }
  return document;
}

const char* rendered_cell(const Json::Value* rendered) {
  if (rendered == nullptr) {
    return "-";
  }
  return rendered->isMember("fault")       ? "FAILED"
         : (*rendered)["change"] == "none" ? "unchanged"
                                           : "rendered";
}

const char* reloaded_cell(const Json::Value* reloader) {
  return reloader == nullptr ? "-" : reloader->isMember("fault") ? "FAILED" : "reloaded";
}

}  // namespace

Json::Value render_all(const Store& store, kelotls::Rendering rendering, bool with_diff) {
  kelotls::JsonReader reader;
  Json::Value list = list_of({});
  for (const std::string& service : store.names()) {
    const Rendered rendered = render(store, service, reader, rendering);
    if (rendered.change != Change::kNoTemplate) {
      list.append(rendered_json(rendered, with_diff));
    }
  }
  return list;
}

bool any_fault(const Json::Value& list) {
  return std::any_of(list.begin(), list.end(),
                     [](const Json::Value& element) { return element.isMember("fault"); });
}

void warn_of_renderings(Console& console, const Json::Value& renderings) {
  for (const Json::Value& rendered : renderings) {
    if (rendered.isMember("fault")) {
      console.warn(printable(rendered["service"].asString()) + ": " +
                   printable(rendered["fault"].asString()));
    }
  }
}

void print_renderings(Console& console, const Json::Value& renderings, bool is_done) {
  for (const Json::Value& rendered : renderings) {
    const ChangeWords& words =
        *std::find_if(std::begin(kChangeWords), std::end(kChangeWords) - 1,
                      [&](const ChangeWords& row) { return rendered["change"] == row.key; });
    console.data() << printable(rendered["service"].asString()) << ": "
                   << printable(rendered["path"].asString()) << ' '
                   << (is_done ? words.done : words.foreseen) << '\n';
  }
}

ExitCode Reloading::code() const {
  return !fault.empty() ? kFailed : any_fault(reloaders) ? kReloaderFailed : kDone;
}

Reloading list_reloaders() {
  Reloading reloading = {list_of({}), {}};
  kelotls::FileList names = kelotls::make_file_list();
  std::vector<std::string> paths;
  const char* directory = nullptr;
  errno = 0;
  if (!kelotls::collect_reloaders(names, paths, directory)) {
    reloading.fault = std::string(directory) + ": " + std::strerror(errno);
    return reloading;
  }
  for (const std::string& path : paths) {
    reloading.reloaders.append(object({{"path", path}}));
  }
  return reloading;
}

Reloading run_reloaders(const Store& store) {
  Reloading reloading = list_reloaders();
  if (!reloading.fault.empty()) {
    kelotls::log::reloaders_not_listed(kelotls::kConfigDir);
    return reloading;
  }
  {
    const OutputAside aside;
    for (Json::Value& reloader : reloading.reloaders) {
      run_listed(reloader);
    }
  }
  stamp_services(store, reloading.reloaders);
  return reloading;
}

void warn_of_reloading(Console& console, const Reloading& reloading) {
  if (!reloading.fault.empty()) {
    console.warn("no reloader has run: " + printable(reloading.fault));
  }
}

void print_reloaders(Console& console, const Json::Value& reloaders, bool is_done) {
  for (const Json::Value& reloader : reloaders) {
    const std::string verdict = is_done ? reloader.get("fault", "done").asString() : "would be run";
    console.data() << printable(reloader["path"].asString()) << ": " << printable(verdict) << '\n';
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

Application apply_to(Console& console, const Store& store, const std::vector<std::string>& probed) {
  console.progress("rendering", 0, 3);
  const Json::Value renderings = render_all(store, kelotls::Rendering::kInForce, false);
  console.progress("reloading", 1, 3);
  const Reloading reloading = run_reloaders(store);
  console.progress("reloading", 3, 3);

  Application application;
  application.document = application_json(renderings, reloading);
  application.document["probed"] = probe_services(console, store, probed);
  warn_of_renderings(console, renderings);
  warn_of_reloading(console, reloading);
  for (const Json::Value& reloader : reloading.reloaders) {
    if (reloader.isMember("fault")) {
      console.warn(printable(reloader["path"].asString()) + " " +
                   printable(reloader["fault"].asString()));
    }
  }
  application.code = any_fault(renderings)                       ? kFailed
                     : reloading.code() != kDone                 ? reloading.code()
                     : any_fault(application.document["probed"]) ? kNotSo
                                                                 : kDone;
  return application;
}

Application foresee_application(Console& console, const Store& store) {
  const Json::Value renderings = render_all(store, kelotls::Rendering::kPreview, false);
  const Reloading reloading = list_reloaders();
  if (!console.json()) {
    warn_of_renderings(console, renderings);
    warn_of_reloading(console, reloading);
  }
  return {application_json(renderings, reloading), kDone};
}

void print_application(Console& console, const Json::Value& document) {
  Table table({"SERVICE", "LEVEL", "RENDER", "RELOAD", "PROBE"});
  for (const Json::Value& probed : document["probed"]) {
    const std::string service = probed["service"].asString();
    table.add(
        {service,
         describe_levels(probed["stored-level"]["value"].asInt(),
                         probed["effective-level"]["value"].asInt()),
         rendered_cell(element_with(document["rendered"], "service", service)),
         reloaded_cell(element_with(document["reloaders"], "path", kelotls::link_path(service))),
         probed["agrees"].asBool() ? "agrees" : "FAILED"});
  }
  table.print(console.data(), console.colour());
}

}  // namespace kelotlsctl
