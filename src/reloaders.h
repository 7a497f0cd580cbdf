// Owns which reloaders there are, and running one.
#pragma once

#include <string>
#include <vector>

#include "files.h"

namespace kelotls {

/// Appends the paths of all reloaders, the base system's first, in the order in which they run.
/// False with errno when a directory cannot be listed; directory is then that one. The platform
/// collects the names in the list, which is empty before and after.
bool collect_reloaders(FileList& names, std::vector<std::string>& paths, const char*& directory);

struct ReloadResult {
  std::string path;
  int error = 0;   ///< why it could not be run
  int status = 0;  ///< what it ended with where it was run
  bool succeeded() const { return error == 0 && status == 0; }
};

/// Runs one reloader and waits for its end. A failure is logged too.
ReloadResult run_reloader(const std::string& path);

}  // namespace kelotls
