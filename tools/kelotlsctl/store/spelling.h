// Owns the look at how the members of a registration are spelt.
#pragma once

#include <json/value.h>

#include "registration.h"

namespace kelotlsctl {

/// Members that mean nothing, but nearly have the name of one that does. Others may be anybody's.
kelotls::Faults misspelt_members(const Json::Value& registration);

}  // namespace kelotlsctl
