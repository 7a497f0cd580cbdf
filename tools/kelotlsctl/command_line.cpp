// Owns the command line: the parser that the table makes, and the run of one command.
#include "command_line.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "commands/look/findings.h"
#include "json_document.h"
#include "log_messages.h"
#include "output/suggestion.h"
#include "store/history.h"
#include "system/interruption.h"

namespace kelotlsctl {

namespace {

std::string not_empty(const std::string& text) { return text.empty() ? "is empty" : ""; }

class Parser {
 public:
  Parser() {
    app.name("kelotlsctl");
    app.footer(
        "Exit codes: 0 done, 1 failed, 2 usage, 3 a check says no, 4 data store unreadable, "
        "5 a reloader failed, 10 no such service. See kelotlsctl(8).");
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.add_flag("--json", is_json, "Print JSON, as /usr/share/kelotls/schemas describes");
    app.add_flag("--json-lines", has_lines,
                 "Print JSON, a line for each thing as it happens, and last the document");
    app.add_flag("--quiet", is_quiet, "Print what was asked for, and faults, only");
    app.add_option("--reason", arguments.reason, "Why the change is made; kept in the history")
        ->check(not_empty);
    app.add_flag("--trust-anyway", arguments.trust_anyway,
                 "Go on where others than root may change what is trusted; is logged");
    app.add_flag_callback(
        "--version",
        [] {
          std::cout << "kelotlsctl " KELOTLSCTL_VERSION "\n";
          throw CLI::Success();
        },
        "Show the version");
    for (const CommandRow& row : commands()) {
      add(row);
    }
  }

  CLI::App app{"Manage the TLS security levels of an appliance's services"};
  bool is_json = false;
  bool has_lines = false;
  bool is_quiet = false;
  Arguments arguments;

  Form form() const { return has_lines ? Form::kJsonLines : is_json ? Form::kJson : Form::kText; }

  const CommandRow* requested = &commands().front();

 private:
  void add(const CommandRow& row) {
    CLI::App* const command = app.add_subcommand(row.name, row.help);
    command->footer(std::string("Example: ") + row.example + "\nExit codes: " + row.exit_codes +
                    ". See kelotlsctl(8).");
    command->callback([this, &row] {
      requested = &row;
      arguments.command = row.name;
    });
    for (const ArgumentRow& argument : row.arguments) {
      add(argument, *command);
    }
  }

  void add(const ArgumentRow& argument, CLI::App& command) {
    CLI::Option* const option =
        argument.flag != nullptr
            ? command.add_flag(argument.name, arguments.*argument.flag, argument.help)
        : argument.list != nullptr
            ? command.add_option(argument.name, arguments.*argument.list, argument.help)
            : command.add_option(argument.name, arguments.*argument.text, argument.help);
    option->required(argument.is_required);
    if (argument.flag == nullptr && !argument.may_be_empty) {
      option->check(not_empty);
    }
  }
};

/// The first word that is neither an option nor the value of one; null without one.
const char* command_word(int argc, char** argv) {
  for (int index = 1; index < argc; ++index) {
    if (std::strcmp(argv[index], "--reason") == 0) {
      ++index;
    } else if (argv[index][0] != '-') {
      return argv[index];
    }
  }
  return nullptr;
}

/// Why the word is no command; empty for one. It is refused before the parser sees it: that would
/// answer "--help" behind it with the help of the whole program.
std::string command_fault(const char* word) {
  std::vector<std::string> names;
  for (const CommandRow& row : commands()) {
    names.emplace_back(row.name);
  }
  if (word == nullptr || std::find(names.begin(), names.end(), word) != names.end()) {
    return {};
  }
  return std::string("The following argument was not expected: ") + word +
         did_you_mean(word, names);
}

void print(Console& console, const CommandRow& row, const Report& report) {
  if (console.json()) {
    console.document(report.document);
  } else {
    (report.print != nullptr ? report.print : row.print)(console, report.document);
  }
  for (const std::string& warning : report.warnings) {
    console.warn(warning);
  }
  for (const std::string& note : report.notes) {
    console.say(note);
  }
}

int run(Console& console, const CommandRow& row, const Arguments& arguments) {
  try {
    if (row.trusted != nullptr) {
      require_trust(console, walk_places(console, row.trusted(arguments)), arguments.confidence());
    }
    const Report report = row.run(console, arguments);
    print(console, row, report);
    return report.code;
  } catch (const Failure& failure) {
    console.error(failure);
    return failure.code;
  } catch (const Json::Exception& exception) {
    console.error(
        Failure(kFailed, std::string("a file holds a value of the wrong type: ") + exception.what(),
                "kelotlsctl check says which."));
  } catch (const std::exception& exception) {
    console.error(Failure(kFailed, exception.what()));
  }
  return kFailed;
}

/// Closes what the command has begun: its record, and the wait of signals that ask it to end.
int end(Console& console, int code) {
  const int signal = interruption();
  const int exit_status = signal != 0 ? 128 + signal : code;
  if (!end_record(code, exit_status)) {
    console.warn(std::string(kHistoryPath) + ": " + std::strerror(errno));
  }
  if (signal != 0) {
    console.warn("interrupted by " + signal_name(signal));
  }
  return exit_status;
}

/// A reader of our output that goes away, or a limit of file sizes, must not end a change halfway:
/// the call that meets it fails instead. A handler rather than ignoring, because programs that are
/// run inherit the latter.
void outlive_failed_writes() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ::sigaction(SIGPIPE, &action, nullptr);
  ::sigaction(SIGXFSZ, &action, nullptr);
}

/// The parser stops at what it does not understand, and may not have come to the option.
bool asks_for(const char* wanted, int argc, char** argv) {
  const auto is = [](const char* option) {
    return [option](const std::string& argument) { return argument == option; };
  };
  char** const end = std::find_if(argv + 1, argv + std::max(argc, 1), is("--"));
  return std::any_of(argv + 1, std::max(end, argv + 1), is(wanted));
}

/// Where a standard descriptor is closed, the next file that is opened takes its number, and
/// messages would be written into it.
void occupy_standard_descriptors() {
  int descriptor = 0;
  do {
    descriptor = ::open("/dev/null", O_RDWR | O_NOCTTY);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) {
    ::close(descriptor);
  }
}

/// What the library makes has the mode that the umask leaves; nobody else shall write it.
void keep_files_from_others() { ::umask(::umask(077) | 022); }

/// How faults of the command line are told, and the exit status that says so.
enum class Audience { kPeople, kPrograms, kReadersOfLines, kMonitoring };

Audience audience(int argc, char** argv) {
  return asks_for("--plugin", argc, argv)       ? Audience::kMonitoring
         : asks_for("--json-lines", argc, argv) ? Audience::kReadersOfLines
         : asks_for("--json", argc, argv)       ? Audience::kPrograms
                                                : Audience::kPeople;
}

/// Says what is wrong with the command line. Before the parser is through there is no console.
int refuse_usage(const std::string& fault, Audience audience) {
  constexpr char kAdvice[] = "Run with --help for more information.";
  if (audience == Audience::kMonitoring) {
    std::cout << plugin_line(kUnknown, fault) << '\n';
    return kUnknown;
  }
  std::cerr << printable(fault) << '\n' << kAdvice << '\n';
  if (audience != Audience::kPeople) {
    const bool has_lines = audience == Audience::kReadersOfLines;
    Console console(has_lines ? Form::kJsonLines : Form::kJson, false);
    console.document(Failure(kUsage, fault, kAdvice));
    console.end();
  }
  return kUsage;
}

}  // namespace

int run_program(int argc, char** argv) {
  occupy_standard_descriptors();
  keep_files_from_others();
  outlive_failed_writes();
  const Audience wanted = audience(argc, argv);
  const std::string fault = command_fault(command_word(argc, argv));
  if (!fault.empty()) {
    return refuse_usage(fault, wanted);
  }
  Parser parser;
  try {
    parser.app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool is_answered = error.get_exit_code() == 0;  // help, or the version
    return is_answered ? parser.app.exit(error) : refuse_usage(error.what(), wanted);
  }
  Console console(parser.form(), parser.is_quiet);
  // Many failures are a line of the system log: the operator sees each as well.
  static Console* observing = nullptr;
  observing = &console;
  kelotls::log::observe([](const char* line) {
    observing->log_line(line);
    return true;
  });
  const int code = end(console, run(console, *parser.requested, parser.arguments));
  kelotls::log::observe(nullptr);
  return console.end()             ? code
         : parser.arguments.plugin ? int{kUnknown}
                                   : (code == kDone ? int{kFailed} : code);
}

}  // namespace kelotlsctl
