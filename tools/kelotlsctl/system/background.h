// Owns what goes on after a command has ended: this program, started again, and its waiting.
#pragma once

#include <string>
#include <vector>

#include "files.h"
#include "system/clocks.h"

namespace kelotlsctl {

/// Starts this program with the arguments: as a service of its own where systemd runs, so that the
/// end of the operator's session does not end it; else as a process in the background, in a session
/// of its own, in the directory "/", with nothing on its standard descriptors. Why it could not be
/// started; empty where it was.
std::string start_in_background(const std::vector<std::string>& arguments);

/// Whether systemd runs here, whose timer looks at dates.
bool has_timers();

/// Switches the timer on that looks at dates, or off. Why it could not be; empty where it was, and
/// where there is no systemd.
std::string begin_timer();
std::string end_timer();

/// Notices whatever is written, made or removed in a directory, from the beginning on: also between
/// two waits, so that nothing is missed that comes while its owner looks at the files.
class DirectoryWatch {
 public:
  explicit DirectoryWatch(const char* directory);

  /// Whether something has changed since the last wait, or changes before the time is over.
  /// Suspended time counts. A signal that asks the process to end does end it here.
  bool wait(Milliseconds at_most);

  /// Waits for as long as given, whatever changes.
  void let_pass(Milliseconds time);

 private:
  void forget();

  kelotls::Descriptor changes_;
};

}  // namespace kelotlsctl
