// Owns the signals that ask the command to end.
#pragma once

#include <csignal>
#include <string>

namespace kelotlsctl {

/// SIGINT, SIGTERM and SIGHUP, without those that the command was started to ignore: nohup and a
/// shell's & mean that it is to go on.
sigset_t ending_signals();

/// From here on the ending signals wait, and SIGCHLD with them: a change first ends the step that
/// it is at, or undoes it.
void defer_interruptions();

/// The first of the deferred signals that has come since, 0 for none.
int interruption();

/// Waits for one of the signals that defer_interruptions defers, for as long as given at most. Its
/// number; 0 where none has come in time. What asks the command to end is remembered.
int wait_for_signal(const timespec& at_most);

/// "SIGINT"
std::string signal_name(int number);

}  // namespace kelotlsctl
