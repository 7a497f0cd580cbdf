// Owns which characters of a text may be printed.
#include "output/safe_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace kelotlsctl {

namespace {

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

// clang-format off
constexpr Range kUnseen[] = {
    {0x0000, 0x001f}, {0x007f, 0x009f},                                      // control characters
    {0x061c, 0x061c}, {0x200e, 0x200f}, {0x202a, 0x202e}, {0x2066, 0x2069},  // direction
    {0x200b, 0x200d}, {0x2060, 0x2060}, {0xfeff, 0xfeff},                    // no width
};
// clang-format on

bool is_unseen(std::uint32_t character) {
  return std::any_of(std::begin(kUnseen), std::end(kUnseen), [&](const Range& range) {
    return character >= range.first && character <= range.last;
  });
}

/// One character of a text, or one byte that belongs to none.
struct Character {
  std::size_t size;
  std::uint32_t number;
  bool is_utf8;
};

/// How many bytes a character has that begins with this one; 0 where none does.
std::size_t size_of(unsigned char first) {
  return first < 0x80                     ? 1
         : first >= 0xc2 && first <= 0xdf ? 2
         : first >= 0xe0 && first <= 0xef ? 3
         : first >= 0xf0 && first <= 0xf4 ? 4
                                          : 0;
}

Character character_at(const std::string& text, std::size_t at) {
  const auto first = static_cast<unsigned char>(text[at]);
  const Character broken = {1, first, false};
  const std::size_t size = size_of(first);
  if (size == 0 || text.size() - at < size) {
    return broken;
  }
  std::uint32_t number = size == 1 ? first : first & (0xffu >> (size + 1));
  for (std::size_t index = 1; index < size; ++index) {
    const auto next = static_cast<unsigned char>(text[at + index]);
    if ((next & 0xc0) != 0x80) {
      return broken;
    }
    number = number << 6 | (next & 0x3fu);
  }
  const bool is_overlong = (size == 3 && number < 0x800) || (size == 4 && number < 0x10000);
  const bool is_surrogate = number >= 0xd800 && number <= 0xdfff;
  return is_overlong || is_surrogate || number > 0x10ffff ? broken : Character{size, number, true};
}

std::string escape(const char* format, std::uint32_t number) {
  char text[16];
  static_cast<void>(std::snprintf(text, sizeof text, format, static_cast<unsigned int>(number)));
  return text;
}

bool is_plain(char character) { return character >= ' ' && character < 0x7f; }

/// The text with each character that must not be printed replaced by what the function makes of it.
template <typename Replace>
std::string with_replaced(const std::string& text, bool keeps_lines, Replace replace) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    if (is_plain(text[at]) || (keeps_lines && (text[at] == '\n' || text[at] == '\t'))) {
      result += text[at++];
      continue;
    }
    const Character character = character_at(text, at);
    if (character.is_utf8 && !is_unseen(character.number)) {
      result.append(text, at, character.size);
    } else {
      result += replace(character);
    }
    at += character.size;
  }
  return result;
}

std::string printed(const Character& character) {
  const bool is_byte = !character.is_utf8 || character.number < 0x80;
  return escape(is_byte ? "\\x%02x" : "\\u%04x", character.number);
}

}  // namespace

std::string printable(const std::string& text) { return with_replaced(text, false, printed); }

std::string printable_lines(const std::string& text) { return with_replaced(text, true, printed); }

std::string text_fault(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const Character character = character_at(text, at);
    if (!character.is_utf8) {
      return "holds bytes that are no UTF-8";
    }
    if (is_unseen(character.number)) {
      return "holds the character " + escape("U+%04X", character.number) + ", which nobody can see";
    }
    at += character.size;
  }
  return {};
}

std::string printable_json(const std::string& json) {
  return with_replaced(json, true, [](const Character& character) {
    return escape(character.is_utf8 ? "\\u%04x" : "\\\\x%02x", character.number);
  });
}

}  // namespace kelotlsctl
