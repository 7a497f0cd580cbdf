// Owns the order in which people expect names: numbers in them by their value.
#pragma once

#include <string>
#include <vector>

namespace kelotlsctl {

/// Whether "web2" comes before "web10", as it does here.
bool natural_less(const std::string& left, const std::string& right);

std::vector<std::string> in_natural_order(std::vector<std::string> names);

}  // namespace kelotlsctl
