// Owns what a service may leave behind: temporaries of its rendered file, and files that name that.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace kelotlsctl {

/// The temporary files that failed renderings of the service have left, sorted.
std::vector<std::string> temporaries_of(const std::string& service);

/// {PATH: [files that name it]}: of the regular files below /etc and /usr/kelo/etc, without the
/// framework's own. No link is followed, no file above 1 MiB is read, and no more than 2,000 are.
Json::Value files_that_name(const std::vector<std::string>& paths);

}  // namespace kelotlsctl
