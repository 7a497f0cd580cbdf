// Owns the order in which people expect names.
#include "output/natural_order.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace kelotlsctl {

namespace {

bool is_digit(char character) { return character >= '0' && character <= '9'; }

/// Takes the number at the front of the text, without its leading zeros.
std::string_view take_number(std::string_view& text) {
  const auto size_while = [&text](const auto& condition) {
    return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), condition) -
                                    text.begin());
  };
  text.remove_prefix(size_while([](char character) { return character == '0'; }));
  const std::string_view number = text.substr(0, size_while(is_digit));
  text.remove_prefix(number.size());
  return number;
}

/// Below 0, 0 or above 0. Of two numbers without leading zeros, the longer one is the larger.
int compare_numbers(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) {
    return left.size() < right.size() ? -1 : 1;
  }
  return left.compare(right);
}

}  // namespace

bool natural_less(const std::string& left, const std::string& right) {
  std::string_view left_rest = left;
  std::string_view right_rest = right;
  while (!left_rest.empty() && !right_rest.empty()) {
    if (is_digit(left_rest[0]) && is_digit(right_rest[0])) {
      const std::string_view left_number = take_number(left_rest);
      const int order = compare_numbers(left_number, take_number(right_rest));
      if (order != 0) {
        return order < 0;
      }
      continue;
    }
    if (left_rest[0] != right_rest[0]) {
      // Bytes, not signed characters: UTF-8 comes behind ASCII.
      return left_rest.substr(0, 1) < right_rest.substr(0, 1);
    }
    left_rest.remove_prefix(1);
    right_rest.remove_prefix(1);
  }
  if (left_rest.empty() && right_rest.empty()) {
    return left < right;  // "web01" and "web1"
  }
  return left_rest.empty();
}

std::vector<std::string> in_natural_order(std::vector<std::string> names) {
  std::sort(names.begin(), names.end(), natural_less);
  return names;
}

}  // namespace kelotlsctl
