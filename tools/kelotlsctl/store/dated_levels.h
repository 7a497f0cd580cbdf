// Owns the levels that end at a date, kept by service in a file of the command's own.
#pragma once

#include <json/value.h>

#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "system/clocks.h"

namespace kelotlsctl {

struct DatedLevel {
  int level;          ///< that the service has until then, as stored
  int then;           ///< that it has from then on
  std::time_t until;  ///< by the wall's clock
  std::string reason;
  /// The time that the machine may run before the date has come, whatever the wall's clock says:
  /// all of it, what had passed when boot began, and where boot's clock stood at the beginning.
  Milliseconds length;
  Milliseconds ran;
  std::string boot;
  Milliseconds since_boot;
  /// Of the return, once it was begun: its record in the history, and what went wrong.
  std::string record;
  std::string fault;

  /// How long the machine is known to have run since it was set.
  Milliseconds running_time(const Moment& now) const;

  /// Whether the date has come, by either clock.
  bool is_over(const Moment& now) const;
};

class DatedLevels {
 public:
  static constexpr char kPath[] = "/usr/kelo/etc/security-profile/tls-profile/dated.json";

  /// None where there is no file. A Failure that names the place where the file cannot be used.
  static DatedLevels load();

  /// The same, but none where the file cannot be used, or not read by this user.
  static DatedLevels load_usable() { return fault().empty() ? load() : DatedLevels(); }

  /// Why the file cannot be used; empty where it can, or there is none.
  static std::string fault();

  /// Null: the service's level has no date.
  const DatedLevel* find(const std::string& service) const;

  void set(const std::string& service, const DatedLevel& dated) { by_service_[service] = dated; }

  /// Whether the service's level had a date.
  bool remove(const std::string& service) { return by_service_.erase(service) != 0; }

  const std::map<std::string, DatedLevel>& all() const { return by_service_; }

  /// Notes how long the machine has run. Whether that is worth writing: after a restart, and each
  /// hour, because each time costs a write to the appliance's flash.
  bool note_running_time(const Moment& now);

  /// A Failure when it cannot be written.
  void save() const;

 private:
  std::map<std::string, DatedLevel> by_service_;
};

/// {"until", "then", "reason", "fault": where the return has failed}, for reports.
Json::Value dated_json(const DatedLevel& dated);

}  // namespace kelotlsctl
