// Owns the rules of what may join and leave the framework.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "json_document.h"
#include "kelotls/service_desc.h"

namespace kelotls {

enum class Purpose { kJoin, kLeave };

/// Whether the library's operations take the value.
bool is_registration(const Json::Value& registration, Purpose purpose);

/// Every fault: those of is_registration, a "system-service" that is no boolean, names that no file
/// can have, and a name that is there twice.
Faults registration_faults(const Json::Value& registration, Purpose purpose);

/// The members that a registration can have, and a service in it that joins.
std::vector<std::string> registration_members();
std::vector<std::string> service_members();

/// Why no service may have this name, which becomes part of file names; empty where one may.
std::string name_fault(const std::string& name, bool has_template);

// Of what is_registration accepts. A "system-service" without a truth value raises jsoncpp's
// exception.
bool is_system_service(const Json::Value& registration);
std::vector<ServiceDesc> services_of(const Json::Value& registration);

bool needs_reloader_link(const ServiceDesc& service);

}  // namespace kelotls
