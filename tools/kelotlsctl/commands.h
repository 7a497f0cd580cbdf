// The commands: each does one thing, reports it on the console and gives its exit code. What ends
// one early is a Failure.
#ifndef KELOTLSCTL_COMMANDS_H
#define KELOTLSCTL_COMMANDS_H

#include <string>

#include "console.h"

namespace kelotlsctl {

/// What every command gets.
struct Invocation {
  Console& console;
  bool dry_run = false;  ///< say what would be done, and write nothing
};

// Looking
int list_services(Invocation& invocation, bool names_only);
int show_service(Invocation& invocation, const std::string& service);
int get_level(Invocation& invocation, const std::string& service);
int show_levels(Invocation& invocation);
int explain(Invocation& invocation, const std::string& level_or_service);
int probe_service(Invocation& invocation, const std::string& service,
                  const std::string& host_and_port);
int check_framework(Invocation& invocation);

// Levels
int set_level(Invocation& invocation, const std::string& service, const std::string& level,
              bool apply);
int show_default(Invocation& invocation);
int set_default(Invocation& invocation, const std::string& level);

// Membership; a file is "-" for the standard input
int validate_registration(Invocation& invocation, const std::string& file);
int join_services(Invocation& invocation, const std::string& file);
int leave_services(Invocation& invocation, const std::string& file);

// Taking up levels
int regenerate(Invocation& invocation);
int render(Invocation& invocation, bool check);
int reload(Invocation& invocation);
int apply_levels(Invocation& invocation);

// Keeping and getting back
int backup(Invocation& invocation, const std::string& file);
int restore(Invocation& invocation, const std::string& file);
int initialise(Invocation& invocation, const std::string& default_level);
int recover(Invocation& invocation, const std::string& backup_file,
            const std::string& default_level);

}  // namespace kelotlsctl

#endif
