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
#include "tls/report.h"

namespace kelotlsctl {

namespace {

using kelotls::ReloadResult;

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
    if (output_ < 0) {
      ::close(STDOUT_FILENO);
      return;
    }
    ::dup2(output_, STDOUT_FILENO);
    ::close(output_);
  }

 private:
  int output_;
};

struct ChangeWords {
  const char* key;
  const char* done;
  const char* foreseen;
};

// clang-format off
constexpr ChangeWords kChangeWords[] = {
    {"none",   "unchanged", "unchanged"},
    {"none",   "unchanged", "unchanged"},
    {"new",    "made",      "would be made"},
    {"changed", "changed",  "would change"},
    {"failed", "FAILED",    "FAILED"},
};
// clang-format on

const ChangeWords& words_of(const Json::Value& change) {
  return *std::find_if(std::begin(kChangeWords), std::end(kChangeWords) - 1,
                       [&](const ChangeWords& words) { return change == words.key; });
}

std::string diff_of(const Rendered& rendered) {
  const std::string path = printable(kelotls::rendered_path(rendered.service));
  return unified_diff(rendered.change == Change::kNew ? "/dev/null" : path, path,
                      rendered.texts.former, rendered.texts.now);
}

std::string fault_of(const ReloadResult& reloader) {
  if (reloader.error != 0) {
    return std::string("cannot be run: ") + std::strerror(reloader.error);
  }
  return reloader.status != 0 ? "ended with status " + std::to_string(reloader.status) : "";
}

/// Where a reloader with the path has run.
const ReloadResult* reloader_at(const std::string& path, const Reloading& reloading) {
  for (const ReloadResult& reloader : reloading.reloaders) {
    if (reloader.path == path) {
      return &reloader;
    }
  }
  return nullptr;
}

bool any_base_system_reloader_failed(const Reloading& reloading) {
  const std::string directory = kelotls::kSystemReloaderDir;
  return std::any_of(
      reloading.reloaders.begin(), reloading.reloaders.end(), [&](const ReloadResult& reloader) {
        return !reloader.succeeded() && reloader.path.compare(0, directory.size(), directory) == 0;
      });
}

/// A service counts as reloaded unless its own reloader failed; one without a link may be served
/// by any of the base system's, so these must all have succeeded. What a reloader that failed has
/// left behind is not known: such a service is in no stamp, whatever it had before.
void stamp_services(const Store& store, const Reloading& reloading) {
  const bool is_base_system_reloaded = !any_base_system_reloader_failed(reloading);
  Stamp stamp;
  for (const std::string& service : store.names()) {
    const ReloadResult* const own = reloader_at(kelotls::link_path(service), reloading);
    if (own != nullptr ? own->succeeded() : is_base_system_reloaded) {
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

Json::Value application_json(const Renderings& renderings, const Reloading& reloading) {
  Json::Value document = object({{"rendered", renderings_json(renderings, false)},
                                 {"reloaders", reloaders_json(reloading)},
                                 {"probed", list_of({})}});
  if (!reloading.fault.empty()) {
    document["reload-fault"] = reloading.fault;
  }
  return document;
}

/// Probes the services. Whether each context does what its level asks for.
bool probe_services(Console& console, const Store& store, const std::vector<std::string>& services,
                    Json::Value& list) {
  std::map<int, std::string> faults;
  bool all_agree = true;
  for (const std::string& service : services) {
    const int level = store.effective_level(service);
    if (faults.count(level) == 0) {
      faults[level] = probe_fault(console, service, level);
    }
    const std::string& fault = faults[level];
    Json::Value probed = object({{"service", service},
                                 {"stored-level", level_json(store.stored_level(service))},
                                 {"effective-level", effective_level_json(level)},
                                 {"agrees", fault.empty()}});
    if (!fault.empty()) {
      probed["fault"] = fault;
      console.warn(printable(service) + ": probe: " + printable(fault));
      all_agree = false;
    }
    list.append(probed);
  }
  return all_agree;
}

/// The element whose member is the text; null without one.
const Json::Value* element_with(const Json::Value& list, const char* member,
                                const std::string& text) {
  const auto found = std::find_if(list.begin(), list.end(), [&](const Json::Value& element) {
    return element[member].asString() == text;
  });
  return found != list.end() ? &*found : nullptr;
}

const char* rendered_cell(const Json::Value* rendered) {
  if (rendered == nullptr) {
    return "-";
  }
  const std::string change = (*rendered)["change"].asString();
  return change == "none" ? "unchanged" : change == "failed" ? "FAILED" : "rendered";
}

const char* reloaded_cell(const Json::Value* reloader) {
  return reloader == nullptr ? "-" : reloader->isMember("fault") ? "FAILED" : "reloaded";
}

}  // namespace

Renderings render_all(const Store& store, kelotls::Rendering rendering) {
  kelotls::JsonReader reader;
  Renderings renderings;
  for (const std::string& service : store.names()) {
    Rendered rendered = render(store, service, reader, rendering);
    if (rendered.change != Change::kNoTemplate) {
      renderings.push_back(std::move(rendered));
    }
  }
  return renderings;
}

bool any_failed(const Renderings& renderings) {
  return std::any_of(renderings.begin(), renderings.end(),
                     [](const Rendered& rendered) { return rendered.change == Change::kFailed; });
}

void warn_of(Console& console, const Renderings& renderings) {
  for (const Rendered& rendered : renderings) {
    if (!rendered.fault.empty()) {
      console.warn(printable(rendered.service) + ": " + printable(rendered.fault));
    }
  }
}

Json::Value renderings_json(const Renderings& renderings, bool with_diff) {
  Json::Value list = list_of({});
  for (const Rendered& rendered : renderings) {
    const ChangeWords& words = kChangeWords[static_cast<std::size_t>(rendered.change)];
    Json::Value value = object({{"service", rendered.service},
                                {"path", kelotls::rendered_path(rendered.service)},
                                {"change", words.key}});
    if (!rendered.fault.empty()) {
      value["fault"] = rendered.fault;
    } else if (with_diff && rendered.change != Change::kUnchanged) {
      value["diff"] = diff_of(rendered);
    }
    list.append(value);
  }
  return list;
}

void print_renderings(Console& console, const Json::Value& renderings, bool is_done) {
  for (const Json::Value& rendered : renderings) {
    const ChangeWords& words = words_of(rendered["change"]);
    console.data() << printable(rendered["service"].asString()) << ": "
                   << printable(rendered["path"].asString()) << ' '
                   << (is_done ? words.done : words.foreseen) << '\n';
  }
}

ExitCode Reloading::code() const {
  if (!fault.empty()) {
    return kFailed;
  }
  return std::all_of(reloaders.begin(), reloaders.end(),
                     [](const ReloadResult& reloader) { return reloader.succeeded(); })
             ? kDone
             : kReloaderFailed;
}

Reloading list_reloaders() {
  Reloading reloading;
  kelotls::FileList names = kelotls::make_file_list();
  std::vector<std::string> paths;
  const char* directory = nullptr;
  errno = 0;
  if (!kelotls::collect_reloaders(names, paths, directory)) {
    reloading.fault = std::string(directory) + ": " + std::strerror(errno);
    return reloading;
  }
  for (const std::string& path : paths) {
    reloading.reloaders.emplace_back().path = path;
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
    for (ReloadResult& reloader : reloading.reloaders) {
      reloader = kelotls::run_reloader(reloader.path);
    }
  }
  stamp_services(store, reloading);
  return reloading;
}

void warn_of(Console& console, const Reloading& reloading) {
  if (!reloading.fault.empty()) {
    console.warn("no reloader has run: " + printable(reloading.fault));
  }
}

Json::Value reloaders_json(const Reloading& reloading) {
  Json::Value list = list_of({});
  for (const ReloadResult& reloader : reloading.reloaders) {
    Json::Value value = object({{"path", reloader.path}});
    if (!reloader.succeeded()) {
      value["fault"] = fault_of(reloader);
    }
    list.append(value);
  }
  return list;
}

void print_reloaders(Console& console, const Json::Value& reloaders, bool is_done) {
  for (const Json::Value& reloader : reloaders) {
    const std::string verdict = !is_done                     ? "would be run"
                                : reloader.isMember("fault") ? reloader["fault"].asString()
                                                             : "done";
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
  const Renderings renderings = render_all(store, kelotls::Rendering::kInForce);
  console.progress("reloading", 1, 3);
  const Reloading reloading = run_reloaders(store);
  console.progress("reloading", 3, 3);

  Application application;
  application.document = application_json(renderings, reloading);
  const bool all_agree = probe_services(console, store, probed, application.document["probed"]);
  warn_of(console, renderings);
  warn_of(console, reloading);
  for (const ReloadResult& reloader : reloading.reloaders) {
    if (!reloader.succeeded()) {
      console.warn(printable(reloader.path) + " " + printable(fault_of(reloader)));
    }
  }
  application.code = any_failed(renderings)      ? kFailed
                     : reloading.code() != kDone ? reloading.code()
                     : all_agree                 ? kDone
                                                 : kNotSo;
  return application;
}

Application foresee_application(Console& console, const Store& store) {
  const Renderings renderings = render_all(store, kelotls::Rendering::kPreview);
  const Reloading reloading = list_reloaders();
  if (!console.json()) {
    warn_of(console, renderings);
    warn_of(console, reloading);
  }
  Application application;
  application.document = application_json(renderings, reloading);
  return application;
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
