// Owns which reloaders there are.
#pragma once

#include <string>
#include <vector>

#include "files.h"

namespace kelotls {

/// Appends the paths of all reloaders, the base system's first, in the order in which they run.
/// False with errno when a directory cannot be listed; directory is then that one. The platform
/// collects the names in the list, which is empty before and after.
bool collect_reloaders(FileList& names, std::vector<std::string>& paths, const char*& directory);

}  // namespace kelotls
