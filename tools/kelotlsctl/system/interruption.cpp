// Owns the signals that ask the command to end while it makes a change. They stay blocked, and are
// fetched where a change can end: no handler runs in the middle of anything.
#include "system/interruption.h"

#include <cerrno>

namespace kelotlsctl {

namespace {

int first_interruption = 0;

sigset_t deferred_signals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
    ::sigaddset(&signals, number);
  }
  return signals;
}

}  // namespace

void defer_interruptions() {
  const sigset_t signals = deferred_signals();
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
}

int wait_for_signal(const timespec& at_most) {
  const sigset_t signals = deferred_signals();
  const int number = ::sigtimedwait(&signals, nullptr, &at_most);
  if (number > 0 && number != SIGCHLD && first_interruption == 0) {
    first_interruption = number;
  }
  return number > 0 ? number : 0;
}

int interruption() {
  while (wait_for_signal({}) != 0) {
  }
  return first_interruption;
}

std::string signal_name(int number) {
  return number == SIGINT    ? "SIGINT"
         : number == SIGTERM ? "SIGTERM"
         : number == SIGHUP  ? "SIGHUP"
                             : "signal " + std::to_string(number);
}

}  // namespace kelotlsctl
