// Saved levels: a file in the data store's format.
#ifndef KELOTLSCTL_BACKUP_H
#define KELOTLSCTL_BACKUP_H

#include <json/value.h>

#include <string>
#include <vector>

#include "store.h"

namespace kelotlsctl {

struct Backup {
  Json::Value document;
  std::vector<std::string> warnings;

  int default_level() const;
  int level_of(const std::string& service) const;
};

/// A Failure for a file that cannot be used. The library, given one, sets the default level to 0.
Backup read_backup(const std::string& file);

struct Restoration {
  struct Change {
    std::string service;
    int from = 0;
    int to = 0;
  };
  int default_from = 0;
  int default_to = 0;
  std::vector<Change> changes;
  std::vector<std::string> unknown;  ///< saved, but not joined
  std::vector<std::string> missing;  ///< joined, but not saved
};

Restoration foresee_restoration(const Store& live, const Backup& saved);

/// Restores the levels and reads them back. A Failure when they are not there.
void run_restoration(const Backup& saved, const Restoration& restoration);

/// "kelotls-levels-20270131-235959.json", in local time.
std::string dated_name(const std::string& head, const std::string& tail);

}  // namespace kelotlsctl

#endif
