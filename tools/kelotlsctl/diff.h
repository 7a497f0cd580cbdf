// The differences of two texts, as diff -u shows them.
#ifndef KELOTLSCTL_DIFF_H
#define KELOTLSCTL_DIFF_H

#include <string>

namespace kelotlsctl {

/// Empty when the texts are equal.
std::string unified_diff(const std::string& old_name, const std::string& new_name,
                         const std::string& old_text, const std::string& new_text);

}  // namespace kelotlsctl

#endif
