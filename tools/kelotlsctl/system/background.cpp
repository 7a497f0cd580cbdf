// Owns what goes on after a command has ended.
#include "system/background.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>

#include "files.h"
#include "system/programs.h"

namespace kelotlsctl {

namespace {

constexpr char kSystemd[] = "/run/systemd/system";  // there while it runs
constexpr char kSystemctl[] = "/usr/bin/systemctl";
constexpr char kTimer[] = "kelotls-settle.timer";
constexpr char kSystemdRun[] = "/usr/bin/systemd-run";
constexpr std::chrono::seconds kPatience{30};

std::vector<std::string> operator+(std::vector<std::string> words,
                                   const std::vector<std::string>& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

/// Why the program did not succeed; empty where it did.
std::string run_program(const std::vector<std::string>& command) {
  const ProgramResult result = run_to_end(command, kPatience);
  return result.error != 0    ? command[0] + ": " + std::strerror(result.error)
         : result.status != 0 ? command[0] + " ended with status " + std::to_string(result.status)
                              : "";
}

std::string switch_timer(const char* verb) {
  return has_timers() ? run_program({kSystemctl, verb, "--now", "--quiet", kTimer}) : "";
}

}  // namespace

bool has_timers() { return kelotls::exists_at(kSystemd); }

std::string begin_timer() { return switch_timer("enable"); }

std::string end_timer() { return switch_timer("disable"); }

std::string start_in_background(const std::vector<std::string>& arguments) {
  std::error_code no_error;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe", no_error).string();
  const std::vector<std::string> command = std::vector<std::string>{self} + arguments;
  if (has_timers()) {
    const std::vector<std::string> as_service = {kSystemdRun, "--quiet", "--collect",
                                                 "--property=Restart=on-failure"};
    return run_program(as_service + command);
  }
  const int error = start_detached(command);
  return error != 0 ? std::string("a process in the background: ") + std::strerror(error) : "";
}

bool wait_for_change(const char* directory, Milliseconds at_most) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(at_most);
  itimerspec time = {};
  time.it_value.tv_sec = static_cast<std::time_t>(seconds.count());
  time.it_value.tv_nsec =
      static_cast<long>(std::chrono::nanoseconds(at_most - seconds).count()) + 1;  // 0 would disarm
  const kelotls::Descriptor timer(::timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC));
  const kelotls::Descriptor changes(::inotify_init1(IN_CLOEXEC));
  if (!timer.is_open() || ::timerfd_settime(timer.get(), 0, &time, nullptr) != 0) {
    ::sleep(1);
    return false;
  }
  if (directory != nullptr) {
    ::inotify_add_watch(changes.get(), directory,
                        IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_CLOSE_WRITE);
  }
  sigset_t none;
  ::sigemptyset(&none);
  pollfd events[] = {{timer.get(), POLLIN, 0}, {changes.get(), POLLIN, 0}};
  return ::ppoll(events, 2, nullptr, &none) > 0 && (events[0].revents & POLLIN) == 0;
}

}  // namespace kelotlsctl
