// Documents against the published JSON Schemas, every fault named by its place.
#ifndef KELOTLSCTL_SCHEMA_H
#define KELOTLSCTL_SCHEMA_H

#include <json/value.h>

#include <string>
#include <vector>

namespace kelotlsctl {

/// The schemas of schemas/, built in.
extern const char kRegistrationSchema[];
extern const char kDescriptorSchema[];
extern const char kDataStoreSchema[];

struct Fault {
  std::string path;  ///< "$.services[2].display-name"
  std::string text;
};

std::vector<Fault> schema_faults(const Json::Value& document, const char* schema_text);

/// One more step of a path: a member's name, an element's number.
std::string path_of_member(const std::string& path, const std::string& name);
std::string path_of_element(const std::string& path, std::size_t index);

}  // namespace kelotlsctl

#endif
