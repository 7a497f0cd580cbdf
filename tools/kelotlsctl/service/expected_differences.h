// Owns the differences from its level that are expected of a service's server, as the service's
// author has written them down.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "levels/report.h"
#include "store/addresses.h"
#include "store/store.h"

namespace kelotlsctl {

class ExpectedDifferences {
 public:
  /// Of a file; none for an empty path. Nothing is expected by a file that cannot be used, or that
  /// others than root could change, since it would hide what they did.
  static ExpectedDifferences read(const std::string& path);

  /// Why the file is not used; empty where it is, or there is none.
  const std::string& fault() const { return fault_; }

  /// Why the server cannot be at the level; empty where it can.
  std::string refusal(int level) const;

  /// Why the server closes connections instead of sending alerts; empty where it does not.
  std::string closing() const;

  /// Why it differs so at the level, for a probe.
  FindExpected at_level(int level) const;

 private:
  const Json::Value& of_level(int level) const;

  Json::Value document_{Json::objectValue};
  std::string fault_;
};

/// Why the service's server cannot be at its level; empty where it can, or nobody has said.
std::string unreachable_level(const Addresses& addresses, const Store& store,
                              const std::string& service);

/// A Failure that names each of the services whose server cannot be at its level.
void refuse_unreachable_levels(const Addresses& addresses, const Store& store,
                               const std::vector<std::string>& services);

}  // namespace kelotlsctl
