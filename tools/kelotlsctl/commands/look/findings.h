// Owns what "check" finds: its words, and the search that other commands share.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "service/service_state.h"
#include "store/store.h"

namespace kelotlsctl {

// Severities
constexpr char kError[] = "error";      // something does not work, or is not safe
constexpr char kWarning[] = "warning";  // something is not as it should be
constexpr char kNote[] = "note";        // nothing is wrong, but it should be known

/// The kind of what could not be looked at, or was not told.
constexpr char kNotKnown[] = "not-known";

/// Every kind that a finding can have.
std::vector<std::string> finding_kinds();

/// All that is wrong, or what is wrong with the services where any are named: [{"kind", "severity",
/// "path", "text", "action"}]. see: what running servers are taken to be like.
Json::Value find_faults(Console& console, const std::optional<Store>& store,
                        const std::vector<std::string>& services, const SeeServer& see);

/// Whether there is no error and no warning among them.
bool is_healthy(const Json::Value& findings);

// What a monitoring plugin ends with
enum PluginState : int { kOk = 0, kWarn = 1, kCritical = 2, kUnknown = 3 };

/// "KELOTLS OK - TEXT": one line, without what the convention of plugins gives a meaning to.
std::string plugin_line(PluginState state, const std::string& text);

/// What "check --plugin" does: the same in one line, as monitoring systems call for it.
Report check_as_plugin(Console& console, const Arguments& arguments);

}  // namespace kelotlsctl
