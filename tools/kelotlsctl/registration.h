// Registrations: what may join and leave through this command.
#ifndef KELOTLSCTL_REGISTRATION_H
#define KELOTLSCTL_REGISTRATION_H

#include <json/value.h>

#include <string>
#include <vector>

#include "schema.h"

namespace kelotlsctl {

enum class Purpose { kJoin, kLeave };

struct Registration {
  std::string source;  ///< as the operator named it
  Json::Value document;
  std::vector<Fault> faults;    ///< it is refused
  std::vector<Fault> warnings;  ///< it can join, but something is likely to fail later
};

/// Reads the file, or the standard input for "-", and looks for every fault. A Failure when it
/// cannot be read; a text that is no JSON is a fault.
Registration read_registration(const std::string& file, Purpose purpose);

/// The same, and a Failure that names the faults where there are any.
Registration require_registration(const std::string& file, Purpose purpose);

/// Why no service may have this name; empty for one that it may have. The name becomes part of
/// file names, which the library takes as they come.
std::string name_fault(const std::string& name, bool has_template);

std::vector<std::string> services_of(const Registration& registration);
bool is_system_service(const Registration& registration);

}  // namespace kelotlsctl

#endif
