// Owns the guess at what a misspelt name was meant to be.
#pragma once

#include <string>
#include <vector>

namespace kelotlsctl {

/// The candidate that is nearest to the name, whatever the case and whether it has "_" or "-";
/// empty where none is near.
std::string nearest(const std::string& name, const std::vector<std::string>& candidates);

/// "; did you mean "modern"?", or nothing.
std::string did_you_mean(const std::string& name, const std::vector<std::string>& candidates);

}  // namespace kelotlsctl
