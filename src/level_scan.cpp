// Finds a service's level in the data store's text in one pass, without building its tree.
#include "framework_config.h"

#include <string>

#include "kelotls/tls_profile_level.h"

namespace kelotls {
namespace {

/// Takes a JSON text apart from its front. Each operation skips the blanks before it, and is false
/// for anything that the parser has to judge: escapes, control characters, other types, faults.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  bool at_end() {
    skip_blanks();
    return text_.empty();
  }

  bool take(char expected) {
    skip_blanks();
    return take_next(expected);
  }

  bool take_string(std::string_view& value) {
    if (!take('"')) {
      return false;
    }
    std::size_t length = 0;
    while (length < text_.size() && is_plain(text_[length])) {
      ++length;
    }
    value = text_.substr(0, length);
    text_.remove_prefix(length);
    return take_next('"');
  }

  /// One digit: more of them are no level that exists.
  bool take_level(int& level) {
    skip_blanks();
    if (text_.empty() || text_.front() < '0' || text_.front() > '9') {
      return false;
    }
    level = text_.front() - '0';
    text_.remove_prefix(1);
    return true;
  }

 private:
  static bool is_blank(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; }
  static bool is_plain(char c) {
    return static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\';
  }

  bool take_next(char expected) {
    const bool is_next = !text_.empty() && text_.front() == expected;
    text_.remove_prefix(is_next ? 1 : 0);
    return is_next;
  }

  void skip_blanks() {
    while (!text_.empty() && is_blank(text_.front())) {
      text_.remove_prefix(1);
    }
  }

  std::string_view text_;
};

/// Takes an object; take_value takes the value of the key that it is given.
template <typename TakeValue>
bool take_object(Scanner& scanner, TakeValue take_value) {
  const bool begins = scanner.take('{');
  if (!begins || scanner.take('}')) {
    return begins;
  }
  do {
    std::string_view key;
    if (!scanner.take_string(key) || !scanner.take(':') || !take_value(key)) {
      return false;
    }
  } while (scanner.take(','));
  return scanner.take('}');
}

/// Takes a service's entry, if it is one that the validator would let pass. An entry without a
/// level leaves it as it was.
bool take_entry(Scanner& scanner, int& level) {
  bool has_display_name = false;
  const bool taken = take_object(scanner, [&](std::string_view key) {
    if (key == "current-level") {
      return scanner.take_level(level);
    }
    has_display_name = has_display_name || key == "display-name";
    std::string_view text;
    return scanner.take_string(text) &&
           (key == "display-name" || (key == "display-name-i18n" && !text.empty()));
  });
  return taken && has_display_name;
}

}  // namespace

std::optional<int> scan_service_level(std::string_view text, std::string_view name) {
  Scanner scanner(text);
  std::optional<int> default_level;
  std::optional<int> own_level;
  // Of members with the same key the last one counts, as for the parser.
  const bool taken = take_object(scanner, [&](std::string_view key) {
    if (key == "default-level") {
      return scanner.take_level(default_level.emplace());
    }
    if (key != "services") {
      return false;
    }
    own_level.reset();
    return take_object(scanner, [&](std::string_view service) {
      int level = TLS_PROFILE_LEVEL_DEFAULT;
      const bool entry_taken = take_entry(scanner, level);
      if (service == name) {
        own_level = level;
      }
      return entry_taken;
    });
  });
  if (!taken || !scanner.at_end() || !default_level || !own_level) {
    return std::nullopt;
  }
  return *own_level != TLS_PROFILE_LEVEL_DEFAULT ? own_level : default_level;
}

}  // namespace kelotls
