// What commands leave running, and a systemd that only notes what it is told.
#ifndef KELOTLS_TESTS_BED_BACKGROUND_H
#define KELOTLS_TESTS_BED_BACKGROUND_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelotls::test {

/// The processes of this private tree that run the program.
std::vector<pid_t> processes_of(const std::string& program);

/// From here on systemd seems to run.
void pretend_systemd();

/// What it has been told since the last call: "systemctl enable --now", a line each.
std::string told_to_systemd();

}  // namespace kelotls::test

#endif
