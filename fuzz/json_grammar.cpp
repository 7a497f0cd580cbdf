#include "json_grammar.h"

#include <cstddef>

namespace kelotls::fuzz {

namespace {

constexpr int kMaxDepth = 256;
constexpr std::string_view kDigits = "0123456789";

/// Eats a text from the front. Each function is true when it found what it is named after.
class Eater {
 public:
  explicit Eater(std::string_view text) : rest_(text) {}

  bool document() { return value(0) && rest_.empty(); }
  bool is_odd() const { return is_odd_; }

 private:
  bool value(int depth) {
    space();
    const bool found = string() || list('{', '}', depth) || list('[', ']', depth) || word("null") ||
                       word("true") || word("false") || number();
    space();
    return found;
  }

  bool list(char open, char close, int depth) {
    if (!character(open)) {
      return false;
    }
    if (depth == kMaxDepth) {
      return ruin();
    }
    space();
    if (character(close)) {
      return true;
    }
    do {
      if (open == '{') {
        space();
        const bool keyed = string();
        space();
        if (!keyed || !character(':')) {
          return ruin();
        }
      }
      if (!value(depth + 1)) {
        return ruin();
      }
    } while (character(','));
    return character(close) || ruin();
  }

  bool string() {
    if (!character('"')) {
      return false;
    }
    while (!rest_.empty() && rest_.front() != '"') {
      const char eaten = rest_.front();
      if (eaten == '\0') {
        return ruin();
      }
      is_odd_ |= static_cast<unsigned char>(eaten) < ' ';
      rest_.remove_prefix(1);
      if (eaten == '\\' && !escape()) {
        return ruin();
      }
    }
    return character('"') || ruin();
  }

  bool escape() {
    if (character('u')) {
      is_odd_ |= rest_.substr(0, 1) == "d" || rest_.substr(0, 1) == "D";  // half of a pair
      for (int digit = 0; digit < 4; ++digit) {
        if (any_of("0123456789abcdefABCDEF") != 1) {
          return false;
        }
      }
      return true;
    }
    return any_of("\"\\/bfnrt") == 1;
  }

  bool number() {
    if (rest_.empty() || std::string_view("-+0123456789").find(rest_.front()) == kNone) {
      return false;
    }
    is_odd_ |= !character('-') && character('+');
    is_odd_ |= rest_.substr(0, 1) == "0" && rest_.size() > 1 && kDigits.find(rest_[1]) != kNone;
    const std::size_t digits = all_of(kDigits);
    is_odd_ |= digits == 0 || digits > 300 || (character('.') && all_of(kDigits) == 0);
    is_odd_ |= all_of("0123456789+-.eE") > 0;  // an exponent, which may be too large
    return true;
  }

  bool word(std::string_view text) {
    if (rest_.substr(0, text.size()) != text) {
      return false;
    }
    rest_.remove_prefix(text.size());
    return true;
  }

  bool character(char wanted) {
    if (rest_.empty() || rest_.front() != wanted) {
      return false;
    }
    rest_.remove_prefix(1);
    return true;
  }

  std::size_t any_of(std::string_view set) {
    if (rest_.empty() || set.find(rest_.front()) == kNone) {
      return 0;
    }
    rest_.remove_prefix(1);
    return 1;
  }

  std::size_t all_of(std::string_view set) {
    std::size_t count = 0;
    while (any_of(set) == 1) {
      ++count;
    }
    return count;
  }

  void space() { all_of(" \t\r\n"); }

  /// What began as one thing cannot be another: nothing after this can make it a document.
  bool ruin() {
    rest_ = {};
    return false;
  }

  static constexpr std::size_t kNone = std::string_view::npos;
  std::string_view rest_;
  bool is_odd_ = false;
};

}  // namespace

Reading reading_of(std::string_view text) {
  Eater eater(text);
  if (!eater.document()) {
    return Reading::kNo;
  }
  return eater.is_odd() ? Reading::kEither : Reading::kYes;
}

}  // namespace kelotls::fuzz
