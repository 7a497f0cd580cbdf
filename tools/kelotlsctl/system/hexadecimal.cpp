// Owns octets as hexadecimal digits.
#include "system/hexadecimal.h"

namespace kelotlsctl {

namespace {

/// Negative for what is no digit.
int value_of(char digit) {
  return digit >= '0' && digit <= '9'   ? digit - '0'
         : digit >= 'a' && digit <= 'f' ? digit - 'a' + 10
                                        : -1;
}

}  // namespace

std::string hexadecimal_digits(const std::string& octets) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * octets.size());
  for (const char octet : octets) {
    text += kDigits[static_cast<unsigned char>(octet) >> 4];
    text += kDigits[static_cast<unsigned char>(octet) & 0xf];
  }
  return text;
}

std::string octets_of(const std::string& digits) {
  std::string octets;
  octets.reserve(digits.size() / 2);
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    const int high = value_of(digits[at]);
    const int low = at + 1 < digits.size() ? value_of(digits[at + 1]) : -1;
    if (high < 0 || low < 0) {
      return {};
    }
    octets += static_cast<char>(high << 4 | low);
  }
  return octets;
}

}  // namespace kelotlsctl
