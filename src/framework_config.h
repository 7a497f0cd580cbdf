// Owns the data store: loading, validating and saving it, looking up and changing what it holds.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "json_document.h"
#include "kelotls/service_desc.h"

namespace kelotls {

/// Whether the value is a data store; the first fault found is logged. An entry that is not an
/// object goes straight to jsoncpp, whose exception passes through.
bool validate_data_store(const Json::Value& root);

/// Every fault that validate_data_store looks for, and every value that makes jsoncpp raise its
/// exception. A level that is missing follows the default.
Faults data_store_faults(const Json::Value& root);

/// What load_data_store and lookup_service_level would give, found in the text alone; nothing where
/// the text is not of the ordinary form, or has no entry for the service.
std::optional<int> scan_service_level(std::string_view text, std::string_view name);

/// The service's effective level, with all that loading and lookup_service_level log.
int load_service_level(const std::string& name);

/// The validated data store, or null once the reason is logged.
Json::Value load_data_store();

/// The same of a file. Both lines name the live data store, whichever file it is.
Json::Value load_data_store(const std::string& path, void (*log_not_loaded)(const std::string&),
                            void (*log_invalid)(const std::string&));

/// Replaces the data store file with the value as it is, null included. 0, or -1 once logged.
int save_data_store(const Json::Value& root);

/// A copy of the service's entry, or null.
Json::Value get_service_entry(const Json::Value& root, const std::string& name);

/// The service's effective level (negative and unknown values included), or kServiceNotJoined once
/// logged. A level that jsoncpp cannot read as an integer raises its exception.
int lookup_service_level(const Json::Value& root, const std::string& name);

/// Sets the level of a service that has an entry. 0, or kServiceNotJoined once logged.
int update_service_level(Json::Value& root, const std::string& name, int level);

/// Gives each service an entry built afresh, with the level of the one that it replaces, copied as
/// it is, or 0. Turns a null root into an object. Always 0.
int merge_service_entries(Json::Value& root, const std::vector<ServiceDesc>& services);

/// Takes the default level, 0 from null, and the levels of services that have an entry. A saved
/// service that has none is logged and passed over.
void restore_levels(Json::Value& live, const Json::Value& saved);

}  // namespace kelotls
