// JSON documents out of files and back, as strictly as the library reads its own.
#ifndef KELOTLSCTL_JSON_TEXT_H
#define KELOTLSCTL_JSON_TEXT_H

#include <json/value.h>

#include <string>

namespace kelotlsctl {

/// Whether a key may stand twice in an object, the last one counting, as in the library's files.
enum class DuplicateKeys { kAllowed, kRefused };

/// Parses one strict JSON object or array. On failure the fault says what and where.
bool parse_json(const std::string& text, DuplicateKeys duplicates, Json::Value& value,
                std::string& fault);

/// The same for a file.
bool read_json_file(const std::string& path, Json::Value& value, std::string& fault);

/// The text of a document, indented, with a line end.
std::string json_text(const Json::Value& value);

/// The member of an object, or null where the value is no object or has none.
const Json::Value* find_member(const Json::Value& value, const std::string& key);

/// The member's text, or the empty string where it is missing or no string.
std::string text_member(const Json::Value& value, const std::string& key);

}  // namespace kelotlsctl

#endif
