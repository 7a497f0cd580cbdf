// Owns JSON documents: one strict reader, by the letter of RFC 8259, that can say where and why a
// text is no document; one writer; how the members of an object are judged by a table.
// Json::Value::fromFile and toFile are the first two on whole files.
#pragma once

#include <json/reader.h>
#include <json/value.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kelotls {

enum class DuplicateKeys { kLastCounts, kRefused };

/// Reads documents. The bytes of strings are taken as they are, valid UTF-8 or not; arrays and
/// objects nest 256 deep at most. One reader for many files saves time: making it is dear.
class JsonReader {
 public:
  explicit JsonReader(DuplicateKeys duplicates = DuplicateKeys::kLastCounts);

  // Read a regular file of bounded size, or a text. On failure the document is as it was; of a
  // file, errno is that of the call that failed, 0 for a text that is no document.
  bool read(const std::string& path, Json::Value& document);
  bool parse(const std::string& text, Json::Value& document);

  /// Of the text that was refused last: "Line 2, Column 5: a value is missing".
  std::string fault() const;

 private:
  bool parse_bracketed(std::string text, Json::Value& document);

  DuplicateKeys duplicates_;
  std::unique_ptr<Json::CharReader> reader_;
  std::string refused_;  // in brackets
};

enum class Colons { kSpaced, kPlain };  ///< "key" : value, as toFile writes it; or "key": value

/// The text of a value: indented, UTF-8 as it is, a line end behind it.
std::string json_text(const Json::Value& value, Colons colons = Colons::kPlain);

/// Null where the value is no object or has no such member.
const Json::Value* find_member(const Json::Value& value, std::string_view key);

/// The member's text, or the empty string where it is missing or no string.
std::string text_member(const Json::Value& value, std::string_view key);

struct Fault {
  std::string path;  ///< "$.services[2].display-name"
  std::string text;  ///< "is a number, must be a string"
};
using Faults = std::vector<Fault>;

/// One row of a table of members; a null key ends the table.
struct MemberRule {
  const char* key;
  Json::ValueType type;
  bool is_required;
  bool may_be_empty;  // of a string
};

/// The first rule from here on that the value breaks, or null. What is no object lacks every
/// member.
const MemberRule* broken_rule(const Json::Value& value, const MemberRule* rule);

/// Appends every rule that the value breaks as a fault; one for a value that is no object.
void append_faults(const Json::Value& value, const MemberRule* rules, const std::string& path,
                   Faults& faults);

std::string path_of_member(const std::string& path, const std::string& name);
std::string path_of_element(const std::string& path, std::size_t index);

}  // namespace kelotls
