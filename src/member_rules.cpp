// Owns how the members of a JSON object are judged by a table, and how a fault is named.
#include "member_rules.h"

#include <json/writer.h>

#include <algorithm>
#include <cctype>

#include "json_document.h"

namespace kelotls {
namespace {

bool keeps_to(const MemberRule& rule, const Json::Value& member) {
  return rule.type == Json::stringValue && !rule.may_be_empty ? is_filled_string(&member)
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

bool is_filled_string(const Json::Value* value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  return value != nullptr && value->getString(&begin, &end) && begin != end;
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
