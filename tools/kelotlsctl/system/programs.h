// Owns how programs are run: for how long, with which environment, and what ends them.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace kelotlsctl {

constexpr std::chrono::seconds kReloadTimeout{60};

struct ProgramResult {
  enum class End { kByItself, kLate, kInterrupted };

  int error = 0;   ///< why it could not be run
  int status = 0;  ///< its exit status, or 128 + the signal that ended it
  End end = End::kByItself;
};

/// Runs a program, by its path and with its arguments, and waits for its end. It is the leader of a
/// process group of its own, in the directory "/", with umask 022, an empty standard input, default
/// signals, no descriptor above 2, and of the environment PATH (a fixed one), LANG, LC_*, TZ and
/// TERM alone. What it writes to the standard output goes to the standard error.
///
/// Once its time is over, or at the second signal that asks the command to end, its whole group
/// gets SIGTERM, and SIGKILL two seconds later. A program whose parent is killed gets SIGTERM.
ProgramResult run_to_end(const std::vector<std::string>& command, std::chrono::seconds timeout);

/// Starts this very program again, with these words as its command line, as a process that goes on
/// after this one: in a session of its own, in the directory "/", with nothing on its standard
/// descriptors, and in the same environment as above. Why it could not be started; 0 where it was.
int start_detached(const std::vector<std::string>& arguments);

}  // namespace kelotlsctl
