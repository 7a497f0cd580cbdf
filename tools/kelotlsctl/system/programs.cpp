// Owns how reloaders are run.
#include "system/programs.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <vector>

#include "files.h"
#include "system/interruption.h"

namespace kelotlsctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kGrace{2};
constexpr char kPath[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

bool is_passed_on(const char* variable) {
  for (const char* const name : {"LANG=", "LC_", "TZ=", "TERM="}) {
    if (std::strncmp(variable, name, std::strlen(name)) == 0) {
      return true;
    }
  }
  return false;
}

std::vector<char*> clean_environment() {
  std::vector<char*> variables = {const_cast<char*>(kPath)};
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (is_passed_on(*variable)) {
      variables.push_back(*variable);
    }
  }
  variables.push_back(nullptr);
  return variables;
}

void set_default_signals() {
  for (int number = 1; number < NSIG; ++number) {
    static_cast<void>(::signal(number, SIG_DFL));
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Descriptors that the command itself was started with are nothing to any program.
void close_others_at_exec() {
  std::vector<std::string> numbers;
  kelotls::list_directory("/proc/self/fd", numbers);
  for (const std::string& number : numbers) {
    const int descriptor = std::stoi(number);
    if (descriptor > STDERR_FILENO) {
      ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
  }
}

/// The arguments as execve takes them. They stay the command's.
std::vector<char*> arguments_of(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  return arguments;
}

/// In the new process, as execve failed.
[[noreturn]] void give_reason(int reasons) {
  const int error = errno;
  const ssize_t written = ::write(reasons, &error, sizeof error);  // into an empty pipe: at once
  static_cast<void>(written);
  ::_exit(127);
}

/// In the new process: becomes the program, or writes the reason why not. Until then it shares the
/// memory of its parent, which waits: nothing here may allocate.
[[noreturn]] void become(char** arguments, char** environment, pid_t parent, int reasons) {
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  const int empty = ::open("/dev/null", O_RDONLY);
  ::dup2(empty, STDIN_FILENO);
  ::close(empty);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  ::umask(022);
  set_default_signals();
  if (::getppid() == parent && ::chdir("/") == 0) {
    ::execve(arguments[0], arguments, environment);
  }
  give_reason(reasons);
}

/// In the new process: goes on as one that nobody waits for and no terminal belongs to.
[[noreturn]] void become_detached(char** arguments, char** environment, int reasons) {
  ::setsid();
  const pid_t again = ::fork();  // one that leads no session cannot get a terminal either
  if (again != 0) {
    ::_exit(again < 0 ? 127 : 0);
  }
  const int empty = ::open("/dev/null", O_RDWR);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    ::dup2(empty, standard);
  }
  ::close(empty);
  set_default_signals();
  if (::chdir("/") == 0) {
    ::execve("/proc/self/exe", arguments, environment);
  }
  give_reason(reasons);
}

/// A copy of this process, and of its tables of pages, would cost more than most reloaders do.
pid_t start(char** arguments, char** environment, int reasons) {
  const pid_t parent = ::getpid();
  const pid_t program = ::vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
  if (program == 0) {
    become(arguments, environment, parent, reasons);
  }
  return program;
}

/// Why the program could not be run; 0 once it runs, because the pipe closes with that.
int reason_from(int reasons) {
  int error = 0;
  ssize_t count = 0;
  do {
    count = ::read(reasons, &error, sizeof error);
  } while (count < 0 && errno == EINTR);
  return count == sizeof error ? error : 0;
}

/// Waits for one program that has been started, and ends it where it must not go on.
class Watch {
 public:
  Watch(pid_t program, std::chrono::seconds timeout)
      : program_(program), deadline_(Clock::now() + timeout) {}

  ProgramResult wait() {
    int status = 0;
    while (::waitpid(program_, &status, WNOHANG) == 0) {
      wait_for_next_signal();
      end_where_needed();
    }
    result_.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return result_;
  }

 private:
  void wait_for_next_signal() {
    const auto left = std::max(deadline_ - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    timespec at_most = {};
    at_most.tv_sec = static_cast<std::time_t>(seconds.count());
    at_most.tv_nsec = static_cast<long>(std::chrono::nanoseconds(left - seconds).count());
    const int number = wait_for_signal(at_most);
    requests_ += number != 0 && number != SIGCHLD ? 1 : 0;
  }

  void end_where_needed() {
    const bool is_late = Clock::now() >= deadline_;
    if (is_ending_ && is_late) {
      end_group(SIGKILL);
    } else if (!is_ending_ && (is_late || requests_ > 1)) {
      result_.end = is_late ? ProgramResult::End::kLate : ProgramResult::End::kInterrupted;
      end_group(SIGTERM);
    }
  }

  void end_group(int signal) {
    ::kill(-program_, signal);
    is_ending_ = true;
    deadline_ = Clock::now() + kGrace;
  }

  const pid_t program_;
  Clock::time_point deadline_;
  int requests_ = 0;  // to end, by the operator
  bool is_ending_ = false;
  ProgramResult result_;
};

ProgramResult not_run(int error) {
  ProgramResult result;
  result.error = error;
  return result;
}

}  // namespace

ProgramResult run_to_end(const std::vector<std::string>& command, std::chrono::seconds timeout) {
  std::vector<char*> environment = clean_environment();
  std::vector<char*> arguments = arguments_of(command);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    return not_run(errno);
  }
  const kelotls::Descriptor reasons(ends[0]);
  kelotls::Descriptor writer(ends[1]);
  close_others_at_exec();
  const pid_t program = start(arguments.data(), environment.data(), writer.get());
  if (program < 0) {
    return not_run(errno);
  }
  ::setpgid(program, program);  // whichever of the two comes first
  writer.close();
  const int error = reason_from(reasons.get());
  const ProgramResult result = Watch(program, timeout).wait();
  return error != 0 ? not_run(error) : result;
}

int start_detached(const std::vector<std::string>& arguments) {
  std::vector<char*> environment = clean_environment();
  std::vector<char*> words = arguments_of(arguments);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    return errno;
  }
  const kelotls::Descriptor reasons(ends[0]);
  kelotls::Descriptor writer(ends[1]);
  close_others_at_exec();
  const pid_t process = ::fork();
  if (process == 0) {
    become_detached(words.data(), environment.data(), writer.get());
  }
  if (process < 0) {
    return errno;
  }
  writer.close();
  const int error = reason_from(reasons.get());
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return error != 0 ? error : status != 0 ? EAGAIN : 0;
}

}  // namespace kelotlsctl
