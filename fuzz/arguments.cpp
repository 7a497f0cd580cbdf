// Any command line, one argument a line; what follows a line that reads "%%" is the standard input.
// The command runs on a small framework and in an empty directory of its own: its exit code is a
// documented one, messages and data go to the right streams, and a command that should write
// nothing writes nothing.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <utility>

#include "command_line.h"
#include "harness.h"
#include "private_tree.h"

namespace kelotls::fuzz {
namespace {

constexpr char kWorkingDirectory[] = "/usr/kelo/working-directory";

/// A file in memory in the place of a standard descriptor.
class Redirection {
 public:
  explicit Redirection(int descriptor, std::string_view text = {})
      : descriptor_(descriptor),
        saved_(::fcntl(descriptor, F_DUPFD_CLOEXEC, 100)),
        file_(::memfd_create("redirection", MFD_CLOEXEC)) {
    require(saved_ >= 0 && file_ >= 0, "a descriptor can be redirected");
    require(::pwrite(file_, text.data(), text.size(), 0) >= 0, "a file in memory can be written");
    ::dup2(file_, descriptor);
  }
  ~Redirection() {
    if (file_ >= 0) {
      end();
    }
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

  /// Restores the descriptor. Gives what was written meanwhile.
  std::string end() {
    ::dup2(saved_, descriptor_);
    ::close(saved_);
    std::string text(static_cast<std::size_t>(::lseek(file_, 0, SEEK_END)), '\0');
    require(::pread(file_, text.data(), text.size(), 0) >= 0, "a file in memory can be read");
    ::close(std::exchange(file_, -1));
    return text;
  }

 private:
  int descriptor_;
  int saved_;
  int file_;
};

void make_framework() {
  using namespace test;
  for (const char* directory :
       {"/usr/kelo/etc", kSystemReloaders, kPackageReloaders, kWorkingDirectory}) {
    remove_all(directory);
  }
  for (const char* directory :
       {kServices, kConfig, kSystemReloaders, kPackageReloaders, kWorkingDirectory}) {
    make_directories(directory);
  }
  require(::chdir(kWorkingDirectory) == 0, "the directory can be entered");
  write_file(kDataStore, data_store_text(1, {{"one", "1"}, {"two", "0"}}));
  write_file("/usr/kelo/one.mustache", "{{#mozilla_modern}}modern{{/mozilla_modern}}\n");
  write_file(
      std::string(kServices) + "one.conf",
      R"({"service": "one", "display-name": "One", "mustache-path": "/usr/kelo/one.mustache"})");
  write_file(std::string(kServices) + "two.conf", R"({"service": "two", "display-name": "2"})");
  write_file("saved.json", data_store_text(2, {{"one", "3"}}));
  write_file("join.json", R"({"services": [{"service": "new", "display-name": "New"}]})");
}

std::vector<std::string> arguments_of(std::string_view text) {
  std::vector<std::string> arguments = {"kelotlsctl"};
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    arguments.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    // The arguments of a real program end at their NUL bytes.
    arguments.back().resize(std::string(arguments.back().c_str()).size());
  }
  return arguments;
}

struct Outcome {
  int code;
  std::string output;
  std::string errors;
};

Outcome run(std::vector<std::string> arguments, std::string_view standard_input) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  Redirection input(STDIN_FILENO, standard_input);
  Redirection output(STDOUT_FILENO);
  Redirection errors(STDERR_FILENO);
  // An exception that leaves is a finding: the program would end with a bare message.
  const int code = kelotlsctl::run_program(static_cast<int>(arguments.size()), argv.data());
  std::cout.flush();
  return {code, output.end(), errors.end()};
}

bool contains(const std::vector<std::string>& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

/// Whether each option is spelled out in full. Otherwise the arguments do not tell what the command
/// does: it may be asked for help, an option may be taken back, or a name may look like an option.
bool is_straight(const std::vector<std::string>& arguments) {
  static const std::vector<std::string> kOptions = {"-",       "--json",   "--quiet", "--dry-run",
                                                    "--apply", "--check",  "--names", "--connect",
                                                    "--from",  "--default"};
  return std::all_of(arguments.begin(), arguments.end(), [](const std::string& argument) {
    return argument[0] != '-' || contains(kOptions, argument);
  });
}

bool may_write(const std::vector<std::string>& arguments, int code) {
  static const std::vector<std::string> kWriters = {
      "set",   "default", "join",    "leave", "regen",   "render", "reload",
      "apply", "backup",  "restore", "init",  "recover", "dh",     "address"};
  return code != kelotlsctl::kUsage &&
         std::any_of(arguments.begin(), arguments.end(),
                     [](const std::string& argument) { return contains(kWriters, argument); }) &&
         !(is_straight(arguments) && contains(arguments, "--dry-run"));
}

void check_outcome(const std::vector<std::string>& arguments, const Outcome& outcome) {
  const std::vector<int> documented = {0, 1, 2, 3, 4, 5, 10};
  require(std::count(documented.begin(), documented.end(), outcome.code) == 1,
          "the exit code is one of those documented");
  require(
      outcome.code != kelotlsctl::kUsage || outcome.output.empty() || contains(arguments, "--json"),
      "a mistake in the arguments puts nothing but JSON on the standard output");
  const bool has_answer = outcome.code == kelotlsctl::kDone || outcome.code == kelotlsctl::kNotSo;
  require(has_answer || !outcome.errors.empty(), "a failure says what failed");
  Json::Value document;
  require(outcome.code != kelotlsctl::kDone || !is_straight(arguments) ||
              !contains(arguments, "--json") || parse(outcome.output, document),
          "with --json the standard output is one document");
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls;
  using namespace kelotls::fuzz;
  static test::Lines framework;
  if (framework.empty()) {
    make_framework();
    framework = test::tree();
  }
  std::string_view input = text_of(data, size);
  const std::vector<std::string> arguments = arguments_of(take_part(input));

  const Outcome outcome = run(arguments, input);

  check_outcome(arguments, outcome);
  if (test::tree() != framework) {
    require(may_write(arguments, outcome.code),
            "a command that only looks, or only says what it would do, writes nothing");
    framework.clear();
  }
  return 0;
}
