// Owns how the members of a JSON object are judged by a table, and how a fault is named.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kelotls {

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

/// Whether there is a value and it is a string with something in it.
bool is_filled_string(const Json::Value* value);

/// The first rule from here on that the value breaks, or null. What is no object lacks every
/// member.
const MemberRule* broken_rule(const Json::Value& value, const MemberRule* rule);

/// Appends every rule that the value breaks as a fault; one for a value that is no object.
void append_faults(const Json::Value& value, const MemberRule* rules, const std::string& path,
                   Faults& faults);

std::string path_of_member(const std::string& path, const std::string& name);
std::string path_of_element(const std::string& path, std::size_t index);

}  // namespace kelotls
