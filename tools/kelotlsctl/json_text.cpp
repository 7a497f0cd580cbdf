#include "json_text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "files.h"

namespace kelotlsctl {

namespace {

constexpr int kMaxNesting = 256;

Json::CharReaderBuilder reader_settings(DuplicateKeys duplicates) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["rejectDupKeys"] = duplicates == DuplicateKeys::kRefused;
  builder["stackLimit"] = kMaxNesting + 1;  // the innermost value counts too
  return builder;
}

/// "* Line 1, Column 2\n  Syntax error…\n" → "line 1, column 2: syntax error…", the first only.
std::string first_fault(std::string errors) {
  const std::size_t second = errors.find("\n* ");
  errors = errors.substr(0, second);
  errors.erase(0, errors.compare(0, 2, "* ") == 0 ? 2 : 0);
  for (std::size_t at = errors.find('\n'); at != std::string::npos; at = errors.find('\n', at)) {
    const std::size_t next = errors.find_first_not_of(" \n", at);
    errors.replace(at, (next == std::string::npos ? errors.size() : next) - at,
                   next == std::string::npos ? "" : ": ");
  }
  return errors;
}

}  // namespace

bool parse_json(const std::string& text, DuplicateKeys duplicates, Json::Value& value,
                std::string& fault) {
  if (text.find('\0') != std::string::npos) {
    fault = "not a JSON text: it holds a NUL byte";
    return false;
  }
  static const Json::CharReaderBuilder last_one_counts = reader_settings(DuplicateKeys::kAllowed);
  static const Json::CharReaderBuilder strict = reader_settings(DuplicateKeys::kRefused);
  const std::unique_ptr<Json::CharReader> reader(
      (duplicates == DuplicateKeys::kAllowed ? last_one_counts : strict).newCharReader());
  Json::Value document;
  std::string errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &document, &errors)) {
      fault = "not a JSON text: " + first_fault(errors);
      return false;
    }
  } catch (const Json::Exception&) {
    fault = "not a JSON text: nested deeper than " + std::to_string(kMaxNesting);
    return false;
  }
  value = std::move(document);
  return true;
}

bool read_json_file(const std::string& path, Json::Value& value, std::string& fault) {
  std::string text;
  if (!read_file(path, text)) {
    fault = std::strerror(errno);
    return false;
  }
  return parse_json(text, DuplicateKeys::kAllowed, value, fault);
}

std::string json_text(const Json::Value& value) {
  Json::StreamWriterBuilder settings;
  settings["indentation"] = "  ";
  settings["emitUTF8"] = true;
  settings["enableYAMLCompatibility"] = true;  // "key": value, as people write it
  return Json::writeString(settings, value) + '\n';
}

const Json::Value* find_member(const Json::Value& value, const std::string& key) {
  return value.isObject() ? value.find(key.data(), key.data() + key.size()) : nullptr;
}

std::string text_member(const Json::Value& value, const std::string& key) {
  const Json::Value* const member = find_member(value, key);
  return member != nullptr && member->isString() ? member->asString() : std::string();
}

}  // namespace kelotlsctl
