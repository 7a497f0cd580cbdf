// The command line: which command, with which options.
#include "command_line.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <functional>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "failure.h"
#include "log_capture.h"

namespace kelotlsctl {

namespace {

/// What the command line fills in. Each command uses its own part.
struct Arguments {
  bool json = false;
  bool quiet = false;
  bool dry_run = false;
  bool names = false;
  bool check = false;
  bool apply = false;
  std::string service;
  std::string level;
  std::string subject;
  std::string host_and_port;
  std::string file;
  std::string backup_file;
  std::string default_level;
};

/// An option that is given means something.
std::string not_empty(const std::string& text) { return text.empty() ? "is empty" : ""; }

using Action = std::function<int(Invocation&)>;

class CommandLine {
 public:
  CommandLine() {
    app_.name("kelotlsctl");
    app_.footer(
        "Exit codes: 0 done, 1 failed, 2 usage, 3 a check says no, 4 data store unreadable, "
        "5 a reloader failed, 10 no such service. See kelotlsctl(8).");
    app_.require_subcommand(0, 1);
    app_.fallthrough();
    app_.add_flag("--json", arguments_.json, "Print JSON, as /usr/share/kelotls/schemas describes");
    app_.add_flag("--quiet", arguments_.quiet, "Print what was asked for, and faults, only");
    app_.add_flag_callback(
        "--version",
        [] {
          std::cout << "kelotlsctl " KELOTLSCTL_VERSION "\n";
          throw CLI::Success();
        },
        "Show the version");
    add_looking();
    add_levels();
    add_membership();
    add_taking_up();
    add_keeping();
  }

  CLI::App& app() { return app_; }
  const Arguments& arguments() const { return arguments_; }
  const Action& action() const { return action_; }

 private:
  CLI::App* add(const char* name, const char* description, const Action& action) {
    CLI::App* const command = app_.add_subcommand(name, description);
    command->callback([this, action] { action_ = action; });
    return command;
  }

  CLI::App* add_writer(const char* name, const char* description, const Action& action) {
    CLI::App* const command = add(name, description, action);
    command->add_flag("--dry-run", arguments_.dry_run, "Say what would be done, write nothing");
    return command;
  }

  void add_service(CLI::App* command) {
    command->add_option("SERVICE", arguments_.service, "The name that the service joined with")
        ->required();
  }

  void add_looking() {
    Arguments& a = arguments_;
    CLI::App* command = add("list", "Show all services (without a command, this)",
                            [&a](Invocation& i) { return list_services(i, a.names); });
    command->add_flag("--names", a.names)->group("");
    add_service(add("show", "Show one service and its files",
                    [&a](Invocation& i) { return show_service(i, a.service); }));
    add_service(add("get", "Show a service's level",
                    [&a](Invocation& i) { return get_level(i, a.service); }));
    add("levels", "Show what each level asks for", [](Invocation& i) { return show_levels(i); });
    command = add("explain", "Show what this machine gives of a level, and why",
                  [&a](Invocation& i) { return explain(i, a.subject); });
    command->add_option("LEVEL|SERVICE", a.subject, "A level, or a service and its level")
        ->required();
    command = add("probe", "Shake hands with a service and compare",
                  [&a](Invocation& i) { return probe_service(i, a.service, a.host_and_port); });
    add_service(command);
    command->add_option("--connect", a.host_and_port, "HOST:PORT of a running server")
        ->check(not_empty);
    add("check", "Look for whatever is wrong", [](Invocation& i) { return check_framework(i); });
  }

  void add_levels() {
    Arguments& a = arguments_;
    CLI::App* command = add_writer("set", "Set a service's level", [&a](Invocation& i) {
      return set_level(i, a.service, a.level, a.apply);
    });
    add_service(command);
    command->add_option("LEVEL", a.level, "modern, intermediate, old, default, or 0 to 3")
        ->required();
    command->add_flag("--apply", a.apply, "Render, reload and probe; undo when a step fails");
    command = add_writer("default", "Show or set the default level", [&a](Invocation& i) {
      return a.level.empty() ? show_default(i) : set_default(i, a.level);
    });
    command->add_option("LEVEL", a.level, "modern, intermediate, old, or 1 to 3")->check(not_empty);
  }

  void add_membership() {
    Arguments& a = arguments_;
    const auto add_file = [&a](CLI::App* command) {
      command->add_option("FILE", a.file, "A registration; - for the standard input")->required();
    };
    add_file(add("validate", "Name every fault of a registration",
                 [&a](Invocation& i) { return validate_registration(i, a.file); }));
    add_file(add_writer("join", "Make services join",
                        [&a](Invocation& i) { return join_services(i, a.file); }));
    add_file(add_writer("leave", "Make services leave",
                        [&a](Invocation& i) { return leave_services(i, a.file); }));
  }

  void add_taking_up() {
    Arguments& a = arguments_;
    add_writer("regen", "Bring the data store in line with the descriptors",
               [](Invocation& i) { return regenerate(i); });
    add_writer("render", "Render all templates", [&a](Invocation& i) {
      return render(i, a.check);
    })->add_flag("--check", a.check, "Show what would change, with the differences");
    add_writer("reload", "Run all reloaders", [](Invocation& i) { return reload(i); });
    add_writer("apply", "Render, reload and probe", [](Invocation& i) { return apply_levels(i); });
  }

  void add_keeping() {
    Arguments& a = arguments_;
    add_writer("backup", "Save all levels", [&a](Invocation& i) { return backup(i, a.file); })
        ->add_option("FILE", a.file, "A new file; a dated one in this folder unless named")
        ->check(not_empty);
    add_writer("restore", "Take levels from a backup",
               [&a](Invocation& i) { return restore(i, a.file); })
        ->add_option("FILE", a.file, "The backup")
        ->required();
    add_writer("init", "Make the first data store of a fresh appliance",
               [&a](Invocation& i) {
                 return initialise(i, a.default_level.empty() ? "intermediate" : a.default_level);
               })
        ->add_option("--default", a.default_level, "The default level; else intermediate")
        ->check(not_empty);
    CLI::App* const command =
        add_writer("recover", "Get back from a data store that is missing or broken",
                   [&a](Invocation& i) { return recover(i, a.backup_file, a.default_level); });
    command->add_option("--from", a.backup_file, "A backup to take the levels from")
        ->check(not_empty);
    command->add_option("--default", a.default_level, "The default level")->check(not_empty);
  }

  CLI::App app_{"Manage the TLS security levels of an appliance's services"};
  Arguments arguments_;
  Action action_ = [](Invocation& invocation) { return list_services(invocation, false); };
};

int run(Console& console, const CommandLine& command_line) {
  Invocation invocation{console, command_line.arguments().dry_run};
  try {
    return command_line.action()(invocation);
  } catch (const Failure& failure) {
    console.error(failure);
    return failure.code();
  } catch (const Json::Exception& exception) {
    console.error(
        Failure(kFailed, std::string("a file holds a value of the wrong type: ") + exception.what(),
                "kelotlsctl check says which."));
  } catch (const std::exception& exception) {
    console.error(Failure(kFailed, exception.what()));
  }
  return kFailed;
}

/// A reader of our output that goes away must not end a change halfway. A handler rather than
/// ignoring, because programs that are run inherit the latter.
void outlive_closed_pipes() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ::sigaction(SIGPIPE, &action, nullptr);
}

/// A file opened where a standard descriptor was closed would be written into by whoever complains.
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

}  // namespace

int run_program(int argc, char** argv) {
  occupy_standard_descriptors();
  keep_files_from_others();
  outlive_closed_pipes();
  CommandLine command_line;
  try {
    command_line.app().parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return command_line.app().exit(error) == 0 ? kDone : kUsage;
  }
  Console console;
  console.set_json(command_line.arguments().json);
  console.set_quiet(command_line.arguments().quiet);
  on_log_line([&console](const std::string& text) { console.log_line(text); });
  const int code = run(console, command_line);
  on_log_line(nullptr);
  return console.flush() ? code : (code == kDone ? kFailed : code);
}

}  // namespace kelotlsctl
