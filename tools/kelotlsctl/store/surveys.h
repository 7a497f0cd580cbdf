// Owns what was last seen of each service's running server, kept in a file of the command's own.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#include "store/addresses.h"

namespace kelotlsctl {

class Surveys {
 public:
  static constexpr char kPath[] = "/usr/kelo/etc/security-profile/tls-profile/surveys.json";

  /// What the file holds; none where it is missing or cannot be used: the next survey replaces it.
  static Surveys load();

  /// {"time", "address", "level", "verdict", "text": where there is one, "certificates": [{"kind",
  /// "not-after"}]}; null: none is kept for the service.
  const Json::Value* find(const std::string& service) const;

  /// The same, where it is still about the server at the service's address and about this level.
  Json::Value still_true(const Addresses& addresses, const std::string& service, int level) const;

  /// Now, what survey_running_server has given of the service at the level.
  void set(const std::string& service, int level, const Json::Value& seen);

  /// A Failure when it cannot be written.
  void save() const;

 private:
  std::map<std::string, Json::Value> by_service_;
};

}  // namespace kelotlsctl
