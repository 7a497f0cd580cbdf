// Reads JSON documents by the letter of the grammar, one function for each of its rules.
#include "json_grammar.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <system_error>
#include <utility>

namespace kelotls::fuzz {

namespace {

constexpr int kMaxDepth = 256;
constexpr std::string_view kDigits = "0123456789";

/// Consumes a text from the front. Each function is true when it found what it is named after.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  bool document(Json::Value& found) { return value(found, 0) && rest_.empty(); }
  bool is_odd() const { return is_odd_; }
  bool has_duplicate_keys() const { return has_duplicate_keys_; }

 private:
  bool value(Json::Value& found, int depth) {
    space();
    std::string text;
    bool is_value = true;
    if (string(text)) {
      found = text;
    } else if (word("null")) {
      found = Json::Value();
    } else if (word("true")) {
      found = true;
    } else if (word("false")) {
      found = false;
    } else {
      is_value = object(found, depth) || array(found, depth) || number(found);
    }
    space();
    return is_value;
  }

  bool object(Json::Value& found, int depth) {
    if (!character('{')) {
      return false;
    }
    found = Json::Value(Json::objectValue);
    space();
    if (depth == kMaxDepth || character('}')) {
      return depth < kMaxDepth || ruin();
    }
    do {
      space();
      std::string key;
      const bool has_key = string(key);
      space();
      Json::Value member;
      if (!has_key || !character(':') || !value(member, depth + 1)) {
        return ruin();
      }
      has_duplicate_keys_ |= found.isMember(key);
      found[key] = std::move(member);
    } while (character(','));
    return character('}') || ruin();
  }

  bool array(Json::Value& found, int depth) {
    if (!character('[')) {
      return false;
    }
    found = Json::Value(Json::arrayValue);
    space();
    if (depth == kMaxDepth || character(']')) {
      return depth < kMaxDepth || ruin();
    }
    do {
      Json::Value element;
      if (!value(element, depth + 1)) {
        return ruin();
      }
      found.append(std::move(element));
    } while (character(','));
    return character(']') || ruin();
  }

  bool string(std::string& found) {
    if (!character('"')) {
      return false;
    }
    while (!rest_.empty() && rest_.front() != '"') {
      const char eaten = rest_.front();
      rest_.remove_prefix(1);
      if (static_cast<unsigned char>(eaten) < ' ' || (eaten == '\\' && !escape(found))) {
        return ruin();
      }
      if (eaten != '\\') {
        found += eaten;
      }
    }
    return character('"') || ruin();
  }

  bool escape(std::string& found) {
    constexpr std::string_view kLetters = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    unsigned unit = 0;
    if (!character('u')) {
      const std::size_t letter = rest_.empty() ? kNone : kLetters.find(rest_.front());
      if (letter != kNone) {
        rest_.remove_prefix(1);
        found += kMeanings[letter];
      }
      return letter != kNone;
    }
    if (!code_unit(unit)) {
      return false;
    }
    if (unit >= 0xD800 && unit < 0xDC00) {
      const std::string_view behind = rest_;
      unsigned second = 0;
      if (word("\\u") && code_unit(second) && second >= 0xDC00 && second < 0xE000) {
        unit = 0x10000 + (unit - 0xD800) * 0x400 + (second - 0xDC00);
      } else {
        rest_ = behind;  // what follows is read for itself
        is_odd_ = true;
      }
    }
    add_utf8(unit, found);
    return true;
  }

  bool code_unit(unsigned& unit) {
    const char* const begin = rest_.data();
    if (rest_.size() < 4 || rest_.substr(0, 4).find_first_of("+-") != kNone ||
        std::from_chars(begin, begin + 4, unit, 16).ptr != begin + 4) {
      return false;
    }
    rest_.remove_prefix(4);
    return true;
  }

  static void add_utf8(unsigned code_point, std::string& found) {
    const auto add = [&](unsigned lead, unsigned shift) {
      found += static_cast<char>(lead | (code_point >> shift));
      while (shift > 0) {
        shift -= 6;
        found += static_cast<char>(0x80 | ((code_point >> shift) & 0x3F));
      }
    };
    code_point < 0x80      ? add(0, 0)
    : code_point < 0x800   ? add(0xC0, 6)
    : code_point < 0x10000 ? add(0xE0, 12)
                           : add(0xF0, 18);
  }

  bool number(Json::Value& found) {
    const std::string_view begin = rest_;
    character('-');
    if (!character('0') && all_of(kDigits) == 0) {
      return false;
    }
    const std::size_t integer_size = begin.size() - rest_.size();
    if (character('.') && all_of(kDigits) == 0) {
      return ruin();
    }
    if (character('e') || character('E')) {
      character('-') || character('+');
      if (all_of(kDigits) == 0) {
        return ruin();
      }
    }
    const std::string text(begin.substr(0, begin.size() - rest_.size()));
    if (text.size() == integer_size &&
        (is_integer<std::int64_t>(text, found) || is_integer<std::uint64_t>(text, found))) {
      return true;
    }
    const double real = std::strtod(text.c_str(), nullptr);
    is_odd_ |= std::isinf(real);
    found = real;
    return true;
  }

  template <typename Integer>
  static bool is_integer(const std::string& text, Json::Value& found) {
    Integer integer = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, integer);
    if (result.ec != std::errc() || result.ptr != end) {
      return false;
    }
    found = Json::Value(integer);
    return true;
  }

  bool word(std::string_view text) {
    if (rest_.substr(0, text.size()) != text) {
      return false;
    }
    rest_.remove_prefix(text.size());
    return true;
  }

  bool character(char expected) { return word({&expected, 1}); }

  std::size_t all_of(std::string_view set) {
    const std::size_t size = rest_.size();
    rest_.remove_prefix(std::min(rest_.find_first_not_of(set), size));
    return size - rest_.size();
  }

  void space() { all_of(" \t\r\n"); }

  /// Refuses the text for good: a token has begun and is malformed, so that no other reading of it
  /// is left.
  bool ruin() {
    rest_ = {};
    return false;
  }

  static constexpr std::size_t kNone = std::string_view::npos;
  std::string_view rest_;
  bool is_odd_ = false;
  bool has_duplicate_keys_ = false;
};

}  // namespace

Document read_document(std::string_view text) {
  Document document;
  Scanner eater(text);
  if (eater.document(document.value)) {
    document.reading = eater.is_odd() ? Reading::kEither : Reading::kYes;
  }
  document.has_duplicate_keys = eater.has_duplicate_keys();
  return document;
}

}  // namespace kelotls::fuzz
