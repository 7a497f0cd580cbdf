// Programs that run beside a test, and waiting for what they do.
#ifndef KELOTLS_TESTS_BED_PROCESS_H
#define KELOTLS_TESTS_BED_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kelotls::test {

/// How long a test waits at most for what has to happen. It is long because an emulated machine is
/// slow, and costs nothing because each wait ends as soon as its condition holds.
constexpr std::chrono::milliseconds kPatience(20000);

/// Whether the condition comes true in time.
bool eventually(const std::function<bool()>& condition);

/// A program that runs beside the test, and is ended with it.
class Process {
 public:
  /// What it says goes to a file of the given name, and is shown if the test fails.
  Process(const std::vector<std::string>& command, std::string output);

  /// Asks it to end first, since a server killed would leave its workers behind.
  ~Process();

  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t id() const { return id_; }

  /// Asks it to end, and gives the exit status.
  int end();

  /// Kills it, whatever it is doing.
  void kill();

  /// Waits for the end and gives the exit status. A program that does not end is killed, and that
  /// fails the test.
  int exit_status();

 private:
  int spawn(const std::vector<char*>& arguments);

  const std::string output_;
  pid_t id_ = -1;
  std::optional<int> wait_status_;
};

}  // namespace kelotls::test

#endif
