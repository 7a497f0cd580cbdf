// Starts, watches and ends the programs that run beside a test.
#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <system_error>
#include <thread>
#include <utility>

#include "private_tree.h"

namespace kelotls::test {

bool eventually(const std::function<bool()>& condition) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + kPatience;
  while (!condition()) {
    if (steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

Process::Process(const std::vector<std::string>& command, std::string output)
    : output_(std::move(output)) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  const int error = spawn(arguments);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), command[0]);
  }
}

Process::~Process() {
  end();
  if (::testing::Test::HasFailure()) {
    std::cerr << output_ << ":\n" << read_file(output_);
  }
}

int Process::end() {
  if (!wait_status_) {
    ::kill(id_, SIGTERM);
  }
  return exit_status();
}

void Process::kill() {
  if (!wait_status_) {
    ::kill(id_, SIGKILL);
  }
  exit_status();
}

int Process::exit_status() {
  if (!wait_status_) {
    int status = 0;
    if (!eventually([&] { return ::waitpid(id_, &status, WNOHANG) == id_; })) {
      ADD_FAILURE() << "process " << id_ << " does not end";
      ::kill(id_, SIGKILL);
      ::waitpid(id_, &status, 0);
    }
    wait_status_ = status;
  }
  return WIFEXITED(*wait_status_) ? WEXITSTATUS(*wait_status_) : -1;
}

int Process::spawn(const std::vector<char*>& arguments) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  // An ignored signal stays ignored in a new program. The test ignores SIGPIPE, but the program has
  // to deal with it itself, so it starts with the default action.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t to_default;
  sigemptyset(&to_default);
  sigaddset(&to_default, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &to_default);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int error =
      posix_spawn(&id_, arguments[0], &actions, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

}  // namespace kelotls::test
