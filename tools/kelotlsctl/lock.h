// The lock that every writing command holds, so that two administrators never lose each other's
// change: the library itself loads, changes and saves without one.
#ifndef KELOTLSCTL_LOCK_H
#define KELOTLSCTL_LOCK_H

namespace kelotlsctl {

class Console;

class Lock {
 public:
  /// Takes the lock if the command is going to write. Waits for whoever holds it, a minute at most.
  /// On the framework's folder itself, so that no lock file is left behind and none need exist.
  Lock(Console& console, bool is_needed);
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock();

 private:
  int folder_;
};

}  // namespace kelotlsctl

#endif
