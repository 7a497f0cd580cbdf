// Owns the list of the commands' functions: for each, what does it and what prints its document.
#pragma once

#include "command_line.h"

namespace kelotlsctl {

using CommandFunction = Report(Console& console, const Arguments& arguments);
using PrintFunction = void(Console& console, const Json::Value& document);

// look/: what changes nothing
CommandFunction list_services, show_service, get_level, show_levels, explain, probe_service,
    check_framework, validate_registration;
PrintFunction print_services, print_service, print_level_of_service, print_levels, print_explained,
    print_probed, print_findings, print_validated;

// change/: what writes, renders or runs
CommandFunction set_level, default_level, join_services, leave_services, regenerate,
    render_templates, reload, apply_levels, backup, restore, initialise, recover;
PrintFunction print_set, print_default, print_joined, print_left, print_regenerated, print_rendered,
    print_reloaded, print_applied, print_backup, print_restored, print_initialised, print_recovered;

}  // namespace kelotlsctl
