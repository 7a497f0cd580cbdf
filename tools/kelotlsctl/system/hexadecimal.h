// Owns octets as hexadecimal digits.
#pragma once

#include <string>

namespace kelotlsctl {

std::string hexadecimal_digits(const std::string& octets);

/// Back from lower-case digits: nothing of a text that is not such.
std::string octets_of(const std::string& digits);

}  // namespace kelotlsctl
