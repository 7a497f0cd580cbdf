// Owns the rules of what may join and leave the framework.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "kelotls/service_desc.h"
#include "member_rules.h"

namespace kelotls {

enum class Purpose { kJoin, kLeave };

/// The library's verdict: whether the value is a registration that its operations take.
bool is_registration(const Json::Value& registration, Purpose purpose);

/// Every fault, with its place. Where there is none, is_registration holds too; beyond it, the
/// administrator's command refuses a "system-service" that is no boolean, names that no file can
/// have, and a name that is there twice.
Faults registration_faults(const Json::Value& registration, Purpose purpose);

/// Why no service may have this name; empty for one that it may have. The name becomes part of file
/// names, which the library takes as they come.
std::string name_fault(const std::string& name, bool has_template);

/// Of a registration that is_registration accepts. A "system-service" without a truth value raises
/// jsoncpp's exception.
bool is_system_service(const Json::Value& registration);

/// The services of a registration that is_registration accepts, in its order.
std::vector<ServiceDesc> services_of(const Json::Value& registration);

bool needs_reloader_link(const ServiceDesc& service);

}  // namespace kelotls
