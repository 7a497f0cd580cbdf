// Owns which reloaders there are, and running one.
#include "reloaders.h"

#include <cerrno>

#include "files.h"
#include "kelotls/api_provider.h"
#include "log_messages.h"
#include "paths.h"

namespace kelotls {

namespace {

/// Runs one reloader and waits for its end. A failure is logged.
void run_reloader(const std::string& path) {
  errno = 0;
  const int status = KLIBCExec(path.c_str(), nullptr, nullptr, nullptr, nullptr);
  if (errno != 0) {
    log::reloader_not_run(path);
  } else if (status != 0) {
    log::reloader_failed(status, path);
  }
}

}  // namespace

bool collect_reloaders(FileList& names, std::vector<std::string>& paths, const char*& directory) {
  for (const char* listed : {kSystemReloaderDir, kPackageReloaderDir}) {
    directory = listed;
    if (list_files(directory, names) < 0) {
      return false;
    }
    for (int32_t index = 0; index < names->count; ++index) {
      paths.push_back(std::string(directory) + KLIBCSzListGet(names.get(), index));
    }
    KLIBCSzListRemoveAll(names.get());
  }
  return true;
}

int APIProvider::execute_service_reloader() const {
  FileList names = make_file_list();
  std::vector<std::string> paths;
  const char* directory = nullptr;
  if (!collect_reloaders(names, paths, directory)) {
    log::reloaders_not_listed(kConfigDir);  // whichever directory it was; the text is kept
    leak_on_purpose(names);
    return -1;
  }
  for (const std::string& path : paths) {
    run_reloader(path);
  }
  return 0;
}

}  // namespace kelotls
