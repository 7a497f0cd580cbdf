// Owns what goes on after a command has ended: this program, started again, and its waiting.
#pragma once

#include <string>
#include <vector>

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

/// Whether it did not take the whole time. Waits until something in the directory is written, made
/// or removed, unless that is null, and as long as given at most, counting suspended time. A signal
/// that asks the process to end does end it here.
bool wait_for_change(const char* directory, Milliseconds at_most);

}  // namespace kelotlsctl
