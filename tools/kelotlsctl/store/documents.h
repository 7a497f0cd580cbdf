// Owns the documents that an operator hands over: registrations, and backups of the levels.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "registration.h"
#include "store/address.h"
#include "store/store.h"

namespace kelotlsctl {

struct Registration {
  std::string source;  ///< as the operator named it
  Json::Value document;
  kelotls::Faults faults;  ///< it is refused

  std::vector<std::string> names() const;

  /// The addresses that it brings, by service, of one that can be used.
  std::map<std::string, Address> addresses() const;
};

/// Reads the file, or the standard input for "-", and looks for every fault. A Failure when it
/// cannot be read; a text that is no JSON is a fault.
Registration read_registration(const std::string& file, kelotls::Purpose purpose);

/// The same, and a Failure that names the faults where there are any.
Registration require_registration(const std::string& file, kelotls::Purpose purpose);

/// Appends what is wrong with an object that has the members of the table and no others. Whether
/// nothing is.
bool append_exact_faults(const Json::Value& value, const kelotls::MemberRule* rules,
                         const std::string& path, kelotls::Faults& faults);

/// What is likely to fail once the services have joined.
kelotls::Faults file_warnings(const Json::Value& registration);

/// "$.services[0].reloader-path: /run/x: No such file or directory"
std::string fault_text(const kelotls::Fault& fault);

/// A backup of the levels, in the data store's format, from the file, or from the standard input
/// for "-". A Failure for a file that cannot be used,
/// with which the library would set the default level to 0, and for levels that nobody could set.
Store read_backup(const std::string& file);

/// What restoring a backup changes: {"default-level": {"from", "to"}, "changes": [{"service",
/// "from", "to"}], "unknown": [saved, but not joined], "missing": [joined, but not saved]}
Json::Value restoration_json(const Store& live, const Store& saved);

/// "kelotls-levels-20270131-235959.json", in local time.
std::string dated_name(const std::string& head, const std::string& tail);

}  // namespace kelotlsctl
