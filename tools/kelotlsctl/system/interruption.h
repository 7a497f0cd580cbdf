// Owns the signals that ask the command to end while it makes a change.
#pragma once

#include <csignal>
#include <string>

namespace kelotlsctl {

/// From here on SIGINT, SIGTERM and SIGHUP wait, and SIGCHLD with them: a change first ends the
/// step that it is at, or undoes it.
void defer_interruptions();

/// The first of the deferred signals that has come since, 0 for none.
int interruption();

/// Waits for one of the signals that defer_interruptions defers, for as long as given at most. Its
/// number; 0 where none has come in time. What asks the command to end is remembered.
int wait_for_signal(const timespec& at_most);

/// "SIGINT"
std::string signal_name(int number);

}  // namespace kelotlsctl
