// Owns how descriptor files are read, and how the data store is brought in line with them.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "json_document.h"
#include "kelotls/service_desc.h"

namespace kelotls {

/// Reads a descriptor. What is no object is no descriptor. False with errno, 0 for a bad text.
bool read_descriptor(JsonReader& reader, const std::string& path, Json::Value& descriptor);

/// What is wrong with a descriptor by its published form, which is stricter than the library.
Faults descriptor_faults(const Json::Value& descriptor);

/// What a file of the descriptors' directory describes; nothing where it cannot be read, and error
/// is then errno, 0 for a bad text. A member that is no text raises jsoncpp's exception.
std::optional<ServiceDesc> read_service(JsonReader& reader, const std::string& file_name,
                                        int& error);

}  // namespace kelotls
