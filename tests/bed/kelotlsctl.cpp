// Runs kelotlsctl on pipes or on a terminal, and checks its JSON against the schemas.
#include "kelotlsctl.h"

#include <fcntl.h>
#include <json/reader.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

extern char** environ;

namespace kelotls::test {

namespace {

void require(bool succeeded, const std::string& what) {
  if (!succeeded) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

std::vector<char*> pointers(Arguments& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) {
    result.push_back(text.data());
  }
  result.push_back(nullptr);
  return result;
}

/// The test's own environment with these variables added, in place of those of the same names.
Arguments environment(Arguments variables) {
  const auto is_locale = [](const std::string& text) { return text.compare(0, 7, "LC_ALL=") == 0; };
  if (std::none_of(variables.begin(), variables.end(), is_locale)) {
    variables.emplace_back("LC_ALL=C.UTF-8");
  }
  Arguments result = variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    bool is_replaced = text.compare(0, 9, "NO_COLOR=") == 0;
    for (const std::string& given : variables) {
      is_replaced =
          is_replaced || given.compare(0, given.find('=') + 1, text, 0, text.find('=') + 1) == 0;
    }
    if (!is_replaced) {
      result.push_back(text);
    }
  }
  return result;
}

pid_t spawn(Arguments command, const Arguments& variables, posix_spawn_file_actions_t& actions) {
  Arguments all = environment(variables);
  pid_t process = 0;
  errno = ::posix_spawnp(&process, command[0].c_str(), &actions, nullptr, pointers(command).data(),
                         pointers(all).data());
  require(errno == 0, command[0]);
  return process;
}

int status_of(pid_t process) {
  int status = 0;
  require(::waitpid(process, &status, 0) == process, "waitpid");
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

Arguments kelotlsctl_command(const Arguments& arguments) {
  Arguments command = {KELOTLSCTL};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

}  // namespace

Outcome run_program(const Arguments& command, const std::string& input,
                    const Arguments& variables) {
  static std::atomic<int> count{0};  // several threads may run one each
  const std::string base = "/tmp/run" + std::to_string(++count);
  write_file(base + ".in", input);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 0, (base + ".in").c_str(), O_RDONLY, 0);
  constexpr int kNew = O_WRONLY | O_CREAT | O_TRUNC;
  ::posix_spawn_file_actions_addopen(&actions, 1, (base + ".out").c_str(), kNew, 0600);
  ::posix_spawn_file_actions_addopen(&actions, 2, (base + ".err").c_str(), kNew, 0600);
  const int status = status_of(spawn(command, variables, actions));
  ::posix_spawn_file_actions_destroy(&actions);
  return {status, read_file(base + ".out"), read_file(base + ".err")};
}

Outcome run(const Arguments& arguments, const std::string& input, const Arguments& variables) {
  return run_program(kelotlsctl_command(arguments), input, variables);
}

Outcome run_on_terminal(const Arguments& arguments, const Arguments& variables,
                        unsigned short columns) {
  const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  require(master >= 0 && ::grantpt(master) == 0 && ::unlockpt(master) == 0, "posix_openpt");
  const std::string terminal = ::ptsname(master);
  const winsize size = {24, columns, 0, 0};
  require(::ioctl(master, TIOCSWINSZ, &size) == 0, "TIOCSWINSZ");
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  for (int descriptor = 0; descriptor < 3; ++descriptor) {
    ::posix_spawn_file_actions_addopen(&actions, descriptor, terminal.c_str(), O_RDWR | O_NOCTTY,
                                       0);
  }
  Arguments all = variables;
  all.push_back("TERM=xterm");
  const pid_t process = spawn(kelotlsctl_command(arguments), all, actions);
  ::posix_spawn_file_actions_destroy(&actions);

  Outcome outcome;
  char buffer[4096];
  // Once the last writer has closed the terminal, reading fails with an error.
  for (ssize_t count = 0; (count = ::read(master, buffer, sizeof buffer)) > 0;) {
    outcome.out.append(buffer, static_cast<std::size_t>(count));
  }
  outcome.status = status_of(process);
  ::close(master);
  return outcome;
}

JsonOutcome run_json(const std::string& command, const Arguments& arguments) {
  Arguments all = {"--json", command};
  all.insert(all.end(), arguments.begin(), arguments.end());
  const Outcome outcome = run(all);
  JsonOutcome result;
  result.status = outcome.status;
  result.document = json(outcome.out);
  EXPECT_EQ(faults_against(std::string(KELOTLS_SCHEMAS) + "/output/" + command + ".schema.json",
                           result.document),
            "")
      << outcome.out;
  return result;
}

double seconds_of(const std::string& command, const std::string& output_path) {
  const Outcome outcome =
      run_program({"bash", "-c", "TIMEFORMAT='%U %S'; time \"$0\" \"$1\" > \"$2\"", KELOTLSCTL,
                   command, output_path});
  double user = 0;
  double system = 0;
  EXPECT_EQ(std::sscanf(outcome.err.c_str(), "%lf %lf", &user, &system), 2) << outcome.err;
  return user + system;
}

double seconds_for_a_thousand_services() {
#ifdef KELOTLSCTL_LIST_SECONDS
  return KELOTLSCTL_LIST_SECONDS;
#else
  constexpr int kStarts =
      150;           // 50 to 75 of them were seen to be enough, by how busy the machine is
  double start = 0;  // of three: what else the machine does takes its part of any of them
  for (int round = 0; round < 3; ++round) {
    start = std::max(start, seconds_of("levels", "/dev/null"));
  }
  return kStarts * start;
#endif
}

std::string faults_against(const std::string& schema_path, const Json::Value& document) {
  const Json::Value schema_document = read_json(schema_path);
  valijson::Schema schema;
  valijson::SchemaParser().populateSchema(valijson::adapters::JsonCppAdapter(schema_document),
                                          schema);
  valijson::ValidationResults results;
  valijson::Validator().validate(schema, valijson::adapters::JsonCppAdapter(document), &results);
  std::string faults;
  for (const valijson::ValidationResults::Error& error : results) {
    for (const std::string& step : error.context) {
      faults += step;
    }
    faults += ": " + error.description + "\n";
  }
  return faults;
}

void Kelotlsctl::SetUp() {
  PrivateTree::SetUp();
  write_file(kDataStore, data_store_text(2, {}));
  write_file(kLock, "");  // as the first change has left it
  ::chmod(kLock, 0600);
  write_dh_files();
  write_file(kTemplate,
             "level {{#mozilla_modern}}modern{{/mozilla_modern}}"
             "{{#mozilla_intermediate}}intermediate{{/mozilla_intermediate}}"
             "{{#mozilla_old}}old{{/mozilla_old}}\n");
  write_file(kReloaderStatus, "0");
  write_file(kReloaderRuns, "");
  write_program(kReloader, std::string("#!/bin/sh\necho run >> ") + kReloaderRuns +
                               "\nexit $(cat " + kReloaderStatus + ")\n");
}

std::string web_registration() {
  return std::string(R"({"services": [{"service": "web", "display-name": "Web server",)") +
         R"( "mustache-path": ")" + kTemplate + R"(", "reloader-path": ")" + kReloader + R"("}]})";
}

void Kelotlsctl::join_web() { ASSERT_EQ(run({"join", "-"}, web_registration()).status, 0); }

void Kelotlsctl::join_both() {
  join_web();
  ASSERT_EQ(
      run({"join", "-"}, R"({"services": [{"service": "ssh", "display-name": "Shell"}]})").status,
      0);
  ASSERT_EQ(run({"render"}).status, 0);
  ASSERT_EQ(run({"reload"}).status, 0);
  write_file(kReloaderRuns, "");
  log();
}

constexpr char kCopyForUsers[] = "/tmp/kelotlsctl";

void KelotlsctlWithoutRoot::SetUp() {
  Kelotlsctl::SetUp();
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  join_both();
  std::filesystem::copy_file(KELOTLSCTL, kCopyForUsers);
  std::filesystem::permissions(kCopyForUsers, std::filesystem::perms(0755));
  std::filesystem::permissions("/tmp", std::filesystem::perms(0755));
}

Outcome KelotlsctlWithoutRoot::run_as_user(const Arguments& arguments) {
  Arguments command = {"setpriv", "--reuid", "1", "--regid", "1", "--clear-groups", kCopyForUsers};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return run_program(command);
}

int stored_level(const std::string& service) {
  return read_json(kDataStore)["services"][service]["current-level"].asInt();
}

::testing::AssertionResult contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos ? ::testing::AssertionSuccess()
                                              : ::testing::AssertionFailure()
                                                    << "\"" << part << "\" is not in:\n"
                                                    << text;
}

}  // namespace kelotls::test
