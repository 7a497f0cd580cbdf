// Owns how descriptor files are read, and how the data store is brought in line with them.
#pragma once

#include <json/value.h>

#include <string>

#include "json_document.h"
#include "kelotls/service_desc.h"
#include "member_rules.h"

namespace kelotls {

/// Reads a descriptor. What is no object is no descriptor. False with errno, 0 for a bad text.
bool read_descriptor(JsonReader& reader, const std::string& path, Json::Value& descriptor);

/// What is wrong with a descriptor by its published form, which is stricter than the library.
Faults descriptor_faults(const Json::Value& descriptor);

struct DescriptorFile {
  bool is_readable = false;
  int error = 0;        ///< why it is not; 0 for a bad text
  ServiceDesc service;  ///< what it describes
};

/// Reads a file of the descriptors' directory. A member that is no text raises jsoncpp's exception.
DescriptorFile read_descriptor_file(JsonReader& reader, const std::string& file_name);

}  // namespace kelotls
