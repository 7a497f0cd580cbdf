// Owns JSON documents: the strict reader, the writer, the rules of members.
#include "json_document.h"

#include <json/writer.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <sstream>
#include <utility>

#include "files.h"

namespace kelotls {
namespace {

constexpr int kMaxNesting = 256;

/// Judges a text by the grammar of RFC 8259. jsoncpp takes more than that, throws when nesting
/// passes its limit, and takes a NUL byte for the end: it only ever sees what was accepted here.
/// The library goes without the reasons, which would cost it bytes.
template <bool kSaysWhy>
class Grammar {
 public:
  /// The text has a NUL byte behind its end, where every step stops.
  Grammar(const char* begin, const char* end) : begin_(begin), at_(begin), end_(end) {}

  bool accepts() {
    if (!value(0)) {
      return false;
    }
    skip_blanks();
    return at_ == end_ || refuse("nothing may follow the document");
  }

  std::size_t place() const { return static_cast<std::size_t>(at_ - begin_); }
  const char* reason() const { return reason_; }

 private:
  bool value(int depth) {
    skip_blanks();
    return *at_ == '{'   ? list(depth, '}', &Grammar::member)
           : *at_ == '[' ? list(depth, ']', &Grammar::value)
           : *at_ == '"' ? string()
           : *at_ == 't' ? word("true")
           : *at_ == 'f' ? word("false")
           : *at_ == 'n' ? word("null")
                         : number();
  }

  bool list(int depth, char closing, bool (Grammar::*element)(int)) {
    if (depth == kMaxNesting) {
      return refuse("nested deeper than 256");
    }
    ++at_;
    if (take(closing)) {
      return true;
    }
    do {
      if (!(this->*element)(depth + 1)) {
        return false;
      }
    } while (take(','));
    return take(closing) || refuse("a comma or the end of the list is missing");
  }

  bool member(int depth) {
    skip_blanks();
    return (*at_ == '"' ? string() : refuse("a key in quotes is missing")) &&
           (take(':') || refuse("a colon is missing")) && value(depth);
  }

  bool string() {
    for (++at_; *at_ != '"'; ++at_) {
      if (static_cast<unsigned char>(*at_) < ' ') {
        return refuse("a control character, or the end, within a string");
      }
      if (*at_ == '\\' && !escape()) {
        return refuse("no such escape");
      }
    }
    ++at_;
    return true;
  }

  /// Ends on its last character.
  bool escape() {
    const char kind = *++at_;
    if (kind == 'u') {
      return is_hex(*++at_) && is_hex(*++at_) && is_hex(*++at_) && is_hex(*++at_);
    }
    return kind == '"' || kind == '\\' || kind == '/' || kind == 'b' || kind == 'f' ||
           kind == 'n' || kind == 'r' || kind == 't';
  }

  bool number() {
    skip('-');
    if (!skip('0') && !digits()) {
      return refuse("a value is missing");
    }
    if (skip('.') && !digits()) {
      return refuse("a digit is missing");
    }
    if (!skip('e') && !skip('E')) {
      return true;
    }
    static_cast<void>(skip('+') || skip('-'));
    return digits() || refuse("a digit is missing");
  }

  bool digits() {
    const char* const first = at_;
    while (*at_ >= '0' && *at_ <= '9') {
      ++at_;
    }
    return at_ != first;
  }

  bool word(const char* rest) {
    for (; *rest != '\0'; ++rest) {
      if (!skip(*rest)) {
        return refuse("a value is missing");
      }
    }
    return true;
  }

  bool take(char expected) {
    skip_blanks();
    return skip(expected);
  }

  /// Takes the next character where it is the expected one.
  bool skip(char expected) {
    const bool is_expected = *at_ == expected;
    at_ += is_expected ? 1 : 0;
    return is_expected;
  }

  void skip_blanks() {
    while (*at_ == ' ' || *at_ == '\n' || *at_ == '\t' || *at_ == '\r') {
      ++at_;
    }
  }

  bool refuse(const char* reason) {
    reason_ = kSaysWhy ? reason : nullptr;
    return false;
  }

  static bool is_hex(char c) {
    const char lower = static_cast<char>(c | 0x20);
    return (c >= '0' && c <= '9') || (lower >= 'a' && lower <= 'f');
  }

  const char* const begin_;
  const char* at_;
  const char* const end_;
  const char* reason_ = nullptr;
};

Json::CharReaderBuilder make_reader_settings(DuplicateKeys duplicates) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["rejectDupKeys"] = duplicates == DuplicateKeys::kRefused;
  builder["stackLimit"] = kMaxNesting + 2;  // the brackets around the document, the innermost value
  return builder;
}

/// What jsoncpp says of a text that keeps to the grammar: half a surrogate pair, a number that is
/// too large, a key that is there twice. "* Line 1, Column 2\n  Text\n" → "Line 1, Column 2: Text".
std::string jsoncpp_fault(const std::string& text, DuplicateKeys duplicates) {
  Json::CharReaderBuilder settings = make_reader_settings(duplicates);
  settings["strictRoot"] = false;
  const std::unique_ptr<Json::CharReader> reader(settings.newCharReader());
  Json::Value ignored;
  std::string errors;
  reader->parse(text.data(), text.data() + text.size(), &ignored, &errors);
  const std::size_t line_end = errors.find("\n  ");
  return errors.substr(2, line_end - 2) + ": " +
         errors.substr(line_end + 3, errors.find('\n', line_end + 1) - line_end - 3);
}

Json::StreamWriterBuilder make_writer_settings(Colons colons) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  if (colons == Colons::kPlain) {
    builder["enableYAMLCompatibility"] = true;
  }
  return builder;
}

template <Colons colons>
std::string write_text(const Json::Value& value) {
  static const Json::StreamWriterBuilder settings = make_writer_settings(colons);
  std::ostringstream text(std::ios::out);
  text.exceptions(std::ios::badbit);  // or a text cut short for want of memory would look whole
  std::unique_ptr<Json::StreamWriter>(settings.newStreamWriter())->write(value, &text);
  text << '\n';
  return text.str();
}

bool is_filled_string(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  return value.getString(&begin, &end) && begin != end;
}

bool keeps_to(const MemberRule& rule, const Json::Value& member) {
  return rule.type == Json::stringValue && !rule.may_be_empty ? is_filled_string(member)
         : rule.type == Json::intValue                        ? member.isInt()
                                                              : member.type() == rule.type;
}

const char* type_name(Json::ValueType type) {
  constexpr const char* kNames[] = {"null",     "a number",  "a number", "a number",
                                    "a string", "a boolean", "an array", "an object"};
  return kNames[type];
}

std::string wrong_type(const Json::Value& value, Json::ValueType type) {
  return std::string("is ") + type_name(value.type()) + ", must be " +
         (type == Json::intValue ? "an integer" : type_name(type));
}

}  // namespace

JsonReader::JsonReader(DuplicateKeys duplicates) : duplicates_(duplicates) {
  static const Json::CharReaderBuilder last_counts =
      make_reader_settings(DuplicateKeys::kLastCounts);
  reader_.reset(duplicates == DuplicateKeys::kLastCounts
                    ? last_counts.newCharReader()
                    : make_reader_settings(duplicates).newCharReader());
}

bool JsonReader::read(const std::string& path, Json::Value& document) {
  std::string text = "[";
  if (!read_file(path, text)) {
    return false;
  }
  const int error = errno;  // reading numbers may set it
  const bool is_document = parse_bracketed(std::move(text), document);
  errno = is_document ? error : 0;
  return is_document;
}

bool JsonReader::parse(const std::string& text, Json::Value& document) {
  return parse_bracketed("[" + text, document);
}

/// Of "[" and a text. jsoncpp reads it in brackets, as the one element of an array: it takes a
/// scalar for a document only where it also takes text behind it.
bool JsonReader::parse_bracketed(std::string text, Json::Value& document) {
  const bool is_accepted = Grammar<false>(text.data() + 1, text.data() + text.size()).accepts();
  text += ']';
  Json::Value documents;
  if (!is_accepted ||
      !reader_->parse(text.data(), text.data() + text.size(), &documents, nullptr)) {
    refused_ = std::move(text);
    return false;
  }
  document = std::move(documents[0]);
  return true;
}

std::string JsonReader::fault() const {
  const std::string text = refused_.substr(1, refused_.size() - 2);
  Grammar<true> grammar(text.data(), text.data() + text.size());
  if (grammar.accepts()) {
    return jsoncpp_fault(text, duplicates_);
  }
  const std::string before = text.substr(0, grammar.place());
  const auto line = 1 + std::count(before.begin(), before.end(), '\n');
  const std::size_t column = before.size() - before.rfind('\n');  // no line end before: npos, -1
  return "Line " + std::to_string(line) + ", Column " + std::to_string(column) + ": " +
         grammar.reason();
}

std::string json_text(const Json::Value& value, Colons colons) {
  return colons == Colons::kSpaced ? write_text<Colons::kSpaced>(value)
                                   : write_text<Colons::kPlain>(value);
}

const Json::Value* find_member(const Json::Value& value, std::string_view key) {
  return value.isObject() ? value.find(key.data(), key.data() + key.size()) : nullptr;
}

std::string text_member(const Json::Value& value, std::string_view key) {
  const Json::Value* const member = find_member(value, key);
  return member != nullptr && member->isString() ? member->asString() : std::string();
}

const MemberRule* broken_rule(const Json::Value& value, const MemberRule* rule) {
  for (; rule->key != nullptr; ++rule) {
    const Json::Value* const member = find_member(value, rule->key);
    if (member != nullptr ? !keeps_to(*rule, *member) : rule->is_required) {
      return rule;
    }
  }
  return nullptr;
}

void append_faults(const Json::Value& value, const MemberRule* rules, const std::string& path,
                   Faults& faults) {
  if (!value.isObject()) {
    faults.push_back({path, wrong_type(value, Json::objectValue)});
    return;
  }
  for (const MemberRule* rule = rules; (rule = broken_rule(value, rule)) != nullptr; ++rule) {
    const Json::Value* const member = find_member(value, rule->key);
    if (member == nullptr) {
      faults.push_back({path, std::string("lacks \"") + rule->key + "\""});
    } else {
      // A number beyond 32 bits is no integer here, whatever jsoncpp keeps it as.
      const bool is_empty = rule->type == Json::stringValue && member->isString();
      faults.push_back({path_of_member(path, rule->key),
                        is_empty ? "must not be empty" : wrong_type(*member, rule->type)});
    }
  }
}

std::string path_of_member(const std::string& path, const std::string& name) {
  const bool is_plain =
      !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char character) {
        return std::isalnum(character) != 0 || character == '-' || character == '_';
      });
  return is_plain ? path + "." + name : path + "[" + Json::valueToQuotedString(name.c_str()) + "]";
}

std::string path_of_element(const std::string& path, std::size_t index) {
  return path + "[" + std::to_string(index) + "]";
}

}  // namespace kelotls

bool Json::Value::fromFile(const String& path) { return kelotls::JsonReader().read(path, *this); }

bool Json::Value::toFile(const String& path, bool in_place) const {
  if (kelotls::has_nul(path)) {
    return kelotls::fail(EINVAL);
  }
  const std::string text = kelotls::write_text<kelotls::Colons::kSpaced>(*this);
  return in_place ? kelotls::write_in_place(path, text) : kelotls::replace_file(path, text);
}
