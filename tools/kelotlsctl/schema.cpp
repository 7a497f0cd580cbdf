#include "schema.h"

#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "failure.h"
#include "json_text.h"

namespace kelotlsctl {

namespace {

using valijson::adapters::JsonCppAdapter;

/// A place in the document together with what the schema says of it.
struct Place {
  std::string path = "$";
  const Json::Value* value = nullptr;
  const Json::Value* schema = nullptr;
};

bool begins_with(const std::string& text, const std::string& head) {
  return text.compare(0, head.size(), head) == 0;
}

const Json::Value* schema_of_member(const Json::Value* schema, const std::string& name) {
  if (schema == nullptr) {
    return nullptr;
  }
  const Json::Value* const properties = find_member(*schema, "properties");
  const Json::Value* const own = properties ? find_member(*properties, name) : nullptr;
  return own != nullptr ? own : find_member(*schema, "additionalProperties");
}

/// One step of the validator's context: "[name]" or "[3]".
void descend(Place& place, const std::string& step) {
  const std::string name = step.substr(1, step.size() - 2);
  const Json::Value* const container = place.value;
  if (container != nullptr && container->isArray()) {
    const auto index = static_cast<Json::ArrayIndex>(std::strtoul(name.c_str(), nullptr, 10));
    place.path = path_of_element(place.path, index);
    place.value = container->isValidIndex(index) ? &(*container)[index] : nullptr;
    place.schema = place.schema != nullptr ? find_member(*place.schema, "items") : nullptr;
    return;
  }
  place.path = path_of_member(place.path, name);
  place.value = container != nullptr ? find_member(*container, name) : nullptr;
  place.schema = schema_of_member(place.schema, name);
}

std::string type_name(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return "null";
    case Json::booleanValue:
      return "a boolean";
    case Json::stringValue:
      return "a string";
    case Json::arrayValue:
      return "an array";
    case Json::objectValue:
      return "an object";
    default:
      return "a number";
  }
}

std::string with_article(const std::string& type) {
  const bool begins_with_vowel = !type.empty() && std::string("aeiou").find(type[0]) != type.npos;
  return (begins_with_vowel ? "an " : "a ") + type;
}

/// Replaces each byte beyond ASCII in the strings. The validator counts their characters, and bytes
/// that only continue one lead its count out of its tables.
void make_ascii(Json::Value& value) {
  if (value.isString()) {
    std::string text = value.asString();
    std::replace_if(
        text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; }, '?');
    value = text;
  }
  for (Json::Value& inner : value) {
    make_ascii(inner);
  }
}

/// The validator's words are about the schema; an administrator asks about the document.
std::string explain(const std::string& description, const Place& place) {
  if (begins_with(description, "Value type not permitted") && place.value && place.schema) {
    return "is " + type_name(*place.value) + ", must be " +
           with_article(text_member(*place.schema, "type"));
  }
  if (begins_with(description, "String should be no fewer than")) {
    return "must not be empty";
  }
  const std::string missing = "Missing required property '";
  if (begins_with(description, missing)) {
    const std::size_t end = description.find('\'', missing.size());
    return "lacks \"" + description.substr(missing.size(), end - missing.size()) + "\"";
  }
  return description;
}

}  // namespace

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

std::vector<Fault> schema_faults(const Json::Value& document, const char* schema_text) {
  Json::Value schema_document;
  std::string broken;
  if (!parse_json(schema_text, DuplicateKeys::kRefused, schema_document, broken)) {
    throw Failure(kFailed, "a schema of this program is broken: " + broken);
  }
  valijson::Schema schema;
  valijson::SchemaParser().populateSchema(JsonCppAdapter(schema_document), schema);
  Json::Value to_validate = document;
  make_ascii(to_validate);
  valijson::ValidationResults results;
  valijson::Validator().validate(schema, JsonCppAdapter(to_validate), &results);

  std::vector<Fault> faults;
  for (const valijson::ValidationResults::Error& error : results) {
    // That something inside is at fault; it has an error of its own.
    if (begins_with(error.description, "Failed to validate")) {
      continue;
    }
    Place place;
    place.value = &document;
    place.schema = &schema_document;
    for (std::size_t step = 1; step < error.context.size(); ++step) {
      descend(place, error.context[step]);
    }
    faults.push_back({place.path, explain(error.description, place)});
  }
  return faults;
}

}  // namespace kelotlsctl
