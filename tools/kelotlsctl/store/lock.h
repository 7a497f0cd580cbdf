// Owns the lock that every writing command holds, and who holds it.
#pragma once

#include <string>

#include "files.h"
#include "output/console.h"

namespace kelotlsctl {

/// Keeps two administrators from losing each other's change: the library itself loads, changes and
/// saves without a lock. The lock is on a file that only root can open, so that nobody else can
/// hold it; the file names its holder. While it is held, signals that ask the command to end are
/// deferred.
class Lock {
 public:
  static constexpr char kPath[] = "/usr/kelo/etc/security-profile/tls-profile/lock";

  /// Takes the lock if the command is going to write. Waits for its holder, a minute at most. A
  /// Failure when it is not to be had.
  Lock(Console& console, const std::string& command, bool is_needed);
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock();

  /// Whether somebody holds the lock. False for who is not root, who cannot see that.
  static bool is_held();

 private:
  const kelotls::Descriptor file_;
};

}  // namespace kelotlsctl
