// Reloaders run, and the stamp of what they have brought into force.
#include <fcntl.h>
#include <kelotls/api_provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "files.h"
#include "log_capture.h"
#include "paths.h"
#include "stamp.h"
#include "steps.h"

namespace kelotlsctl {

namespace {

/// As long as it lives, what is written to the standard output, by reloaders too, goes to the
/// standard error: the former carries nothing but the command's own data.
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

int execute_reloaders() {
  const OutputAside aside;
  return kelotls::APIProvider().execute_service_reloader();
}

/// The files and links of a folder, which is what the library runs.
void append_reloaders(const std::string& folder, ReloadResult& result) {
  std::vector<std::string> names;
  if (!list_folder(folder, names)) {
    result.fault = folder + ": " + std::strerror(errno);
    return;
  }
  for (const std::string& name : names) {
    const std::string path = folder + name;
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0 &&
        (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode))) {
      result.reloaders.push_back({path, {}});
    }
  }
}

/// "api_provider.cpp:349 Reload service return error code. [3]: /path" → what is in the bracket
/// and the path.
void take_failure(const std::string& line, ReloadResult& result) {
  const std::size_t bracket = line.find('[');
  const std::size_t path_at = line.find("]: ", bracket);
  if (bracket == std::string::npos || path_at == std::string::npos) {
    return;
  }
  const bool has_run =
      line.compare(0, std::strlen(line::kReloaderFailed), line::kReloaderFailed) == 0;
  const std::string inside = line.substr(bracket + 1, path_at - bracket - 1);
  const std::size_t text_at = inside.find("][");
  const std::string reason =
      has_run ? "ended with status " + inside
              : "cannot be run: " + inside.substr(text_at == std::string::npos ? 0 : text_at + 2);
  const std::string path = line.substr(path_at + 3);
  for (ReloadResult::Reloader& reloader : result.reloaders) {
    if (reloader.path == path) {
      reloader.fault = reason;
      return;
    }
  }
  result.reloaders.push_back({path, reason});  // it appeared after the listing
}

bool any_base_system_reloader_failed(const ReloadResult& result) {
  const std::string folder = kSystemReloaderDir;
  return std::any_of(result.reloaders.begin(), result.reloaders.end(), [&](const auto& reloader) {
    return !reloader.fault.empty() && reloader.path.compare(0, folder.size(), folder) == 0;
  });
}

/// A service counts as reloaded unless its own reloader failed; one without a link may be served
/// by any of the base system's, so these must all have succeeded. What a reloader that failed has
/// left behind nobody knows: such a service is in no stamp, whatever it had before.
void stamp_services(const Store& store, const ReloadResult& result) {
  const bool is_base_system_reloaded = !any_base_system_reloader_failed(result);
  Stamp stamp;
  for (const std::string& service : store.services.getMemberNames()) {
    const ReloadResult::Reloader* const own = reloader_of(service, result);
    if (own != nullptr ? own->fault.empty() : is_base_system_reloaded) {
      std::string rendered;
      read_file(rendered_path(service), rendered);
      stamp.record(service, store.effective_level(service), rendered);
    }
  }
  stamp.save();
}

}  // namespace

ExitCode ReloadResult::code() const {
  if (!fault.empty()) {
    return kFailed;
  }
  const bool failed = std::any_of(reloaders.begin(), reloaders.end(),
                                  [](const Reloader& reloader) { return !reloader.fault.empty(); });
  return failed ? kReloaderFailed : kDone;
}

ReloadResult list_reloaders() {
  ReloadResult result;
  for (const char* folder : {kSystemReloaderDir, kPackageReloaderDir}) {
    append_reloaders(folder, result);
    if (!result.fault.empty()) {
      result.reloaders.clear();
      break;
    }
  }
  return result;
}

ReloadResult run_reloaders(const Store& store) {
  ReloadResult result = list_reloaders();
  const LogWatch watch;
  if (execute_reloaders() != 0) {
    if (result.fault.empty()) {
      result.fault = "a folder of reloaders cannot be listed";
    }
    result.reloaders.clear();
    return result;
  }
  for (const std::string& line : watch.lines({line::kReloaderNotRun, line::kReloaderFailed})) {
    take_failure(line, result);
  }
  stamp_services(store, result);
  return result;
}

Json::Value reload_json(const ReloadResult& result) {
  Json::Value list(Json::arrayValue);
  for (const ReloadResult::Reloader& reloader : result.reloaders) {
    Json::Value value(Json::objectValue);
    value["path"] = reloader.path;
    if (!reloader.fault.empty()) {
      value["fault"] = reloader.fault;
    }
    list.append(value);
  }
  return list;
}

const ReloadResult::Reloader* reloader_of(const std::string& service, const ReloadResult& result) {
  const std::string path = link_path(service);
  for (const ReloadResult::Reloader& reloader : result.reloaders) {
    if (reloader.path == path) {
      return &reloader;
    }
  }
  return nullptr;
}

}  // namespace kelotlsctl
