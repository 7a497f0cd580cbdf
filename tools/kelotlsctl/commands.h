// The commands: each does one thing, reports it on the console and gives its exit code. What ends
// one early is a Failure.
#ifndef KELOTLSCTL_COMMANDS_H
#define KELOTLSCTL_COMMANDS_H

#include <string>

#include "console.h"

namespace kelotlsctl {

/// What every command gets.
struct Session {
  Console& console;
  bool dry_run = false;  ///< say what would be done, and write nothing
};

// Looking
int list_services(Session& session, bool names_only);
int show_service(Session& session, const std::string& service);
int get_level(Session& session, const std::string& service);
int show_levels(Session& session);
int explain(Session& session, const std::string& level_or_service);
int probe_service(Session& session, const std::string& service, const std::string& host_and_port);
int check_framework(Session& session);

// Levels
int set_level(Session& session, const std::string& service, const std::string& level, bool apply);
int show_default(Session& session);
int set_default(Session& session, const std::string& level);

// Membership; a file is "-" for the standard input
int validate_registration(Session& session, const std::string& file);
int join_services(Session& session, const std::string& file);
int leave_services(Session& session, const std::string& file);

// Taking up levels
int regenerate(Session& session);
int render(Session& session, bool check);
int reload(Session& session);
int apply_levels(Session& session);

// Keeping and getting back
int backup(Session& session, const std::string& file);
int restore(Session& session, const std::string& file);
int initialise(Session& session, const std::string& default_level);
int recover(Session& session, const std::string& backup_file, const std::string& default_level);

}  // namespace kelotlsctl

#endif
