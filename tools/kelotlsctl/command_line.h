// Owns the command line: what a command is, the table of all of them, and running one.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "changes/trusted_places.h"
#include "output/console.h"

namespace kelotlsctl {

/// What the command line fills in. Each command uses its own part.
struct Arguments {
  bool dry_run = false;  ///< say what would be done, and write nothing
  bool names = false;
  bool check = false;
  bool apply = false;
  bool all = false;
  bool replace = false;
  bool context = false;
  bool terse = false;
  bool findings = false;
  bool files = false;  ///< ask no running server
  bool plugin = false;
  bool survey = false;
  std::string command;  ///< its name
  std::string reason;   ///< why the operator makes the change
  std::string reload_timeout;
  bool force = false;
  bool trust_anyway = false;
  bool remove = false;
  std::string service;
  std::vector<std::string> services;  ///< names and patterns
  std::string level;
  std::string state;  ///< its key
  std::string subject;
  std::string address;
  std::string starttls;
  std::string server_name;
  std::string timeout;
  std::string deadline;
  std::string preview;
  std::string textfile;
  std::string duration;
  std::string interface;
  std::string port;
  std::string prefix;
  std::string prefix6;
  std::string limit;
  std::string certificate;
  bool no_addresses = false;
  bool refuse_loss = false;
  std::string confirm;  ///< how long to wait for a confirmation
  std::string until;    ///< a date
  std::string then;     ///< the level after it
  std::string count;
  bool wait = false;
  bool before_services = false;
  std::string file;  ///< "-" for the standard input

  Confidence confidence() const { return {command, trust_anyway, dry_run}; }
};

/// One argument of a command: a flag, an option ("--from") or a positional ("SERVICE").
struct ArgumentRow {
  const char* name;
  const char* help;
  bool Arguments::*flag = nullptr;
  std::string Arguments::*text = nullptr;
  bool is_required = false;
  bool may_be_empty = false;
  std::vector<std::string> Arguments::*list = nullptr;
};

using CommandFunction = Report(Console& console, const Arguments& arguments);

struct CommandRow {
  const char* name;
  const char* help;
  std::vector<ArgumentRow> arguments;
  const char* exit_codes;
  const char* example;  ///< a whole command line, without quotes
  CommandFunction* run;
  PrintFunction* print;
  /// What has to be root's alone before it runs, called like this. What it trusts for the services
  /// that it acts on it looks at itself, once it knows them.
  Places (*trusted)(const Arguments& arguments);
};

// The commands' functions: for each, what does it and what prints its document.

// look/: what changes nothing
CommandFunction list_services, show_status, show_service, get_level, show_levels, explain,
    probe_service, check_framework, show_metrics, show_history, validate_registration,
    show_catalogue;
PrintFunction print_services, print_status, print_service, print_level_of_service, print_levels,
    print_explained, print_probed, print_findings, print_metrics, print_history, print_validated,
    print_catalogue;

// change/: what writes, renders or runs
CommandFunction set_level, default_level, join_services, leave_services, regenerate,
    render_templates, reload, apply_levels, backup, restore, initialise, recover, make_dh_files,
    keep_address, confirm, revert, settle_due, undo, redo;
PrintFunction print_set, print_default, print_joined, print_left, print_regenerated, print_rendered,
    print_reloaded, print_applied, print_backup, print_restored, print_initialised, print_recovered,
    print_dh_files, print_address, print_kept, print_reverted, print_settled, print_undone;

/// What "clients" does: each is handed on to by the word that follows it.
Report manage_clients(Console& console, const Arguments& arguments);
CommandFunction record_clients, import_clients, show_clients, judge_clients,
    forget_recorded_clients;
PrintFunction print_recorded, print_clients, print_judged, print_forgotten;

/// What "render --preview" does.
Report preview_templates(Console& console, const Arguments& arguments);

/// Every command, in the order of the help.
const std::vector<CommandRow>& commands();

/// Parses the command line and runs the command. The exit code.
int run_program(int argc, char** argv);

}  // namespace kelotlsctl
