// Owns the signals that ask the command to end. While it makes a change they stay blocked, and are
// fetched where a change can end: no handler runs in the middle of anything.
#include "system/interruption.h"

#include <cerrno>

namespace kelotlsctl {

namespace {

int first_interruption = 0;

bool is_ignored(int number) {
  struct sigaction action = {};
  return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t deferred_signals() {
  sigset_t signals = ending_signals();
  ::sigaddset(&signals, SIGCHLD);
  return signals;
}

}  // namespace

sigset_t ending_signals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    if (!is_ignored(number)) {  // one that is blocked would be kept, ignored or not
      ::sigaddset(&signals, number);
    }
  }
  return signals;
}

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
