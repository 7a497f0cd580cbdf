// Owns bringing levels into force: rendering, reloading and probing, each with its report.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "output/console.h"
#include "profile.h"
#include "state/service_state.h"
#include "state/store.h"

namespace kelotlsctl {

/// Renders, or previews, every template: [{"service", "path", "change": "none", "new", "changed" or
/// "failed", "fault", "diff": where asked for}], one for each service with a template or a fault.
Json::Value render_all(const Store& store, kelotls::Rendering rendering, bool with_diff);

/// Whether an element of a report has a "fault".
bool any_fault(const Json::Value& list);

/// "web: template /x is missing", for each element that has a fault, with what the member holds.
void warn_of_faults(Console& console, const Json::Value& list, const char* member,
                    const char* separator);

/// "PATH changed", of each rendering, in the words of what was or would be done.
void print_renderings(Console& console, const Json::Value& renderings, bool is_done);

/// What reload would run, in its order: {"reloaders": [{"path", "fault"}], "fault": why none has
/// run}
Json::Value list_reloaders();

/// The same. Runs every reloader, and notes in the stamp which services have what they should.
Json::Value run_reloaders(const Store& store);

/// Of the one fault for which none has run; null without it.
void warn_of_reloading(Console& console, const Json::Value& fault);

/// A line for each reloader, or that there is none to run.
void print_reloaders(Console& console, const Json::Value& reloaders, const Json::Value& fault,
                     bool is_done);

/// The context that the service gets. A Failure when it gets none.
kelotls::ContextOwner service_context(const std::string& service);

/// All steps, in spite of any failure, so that one service's fault keeps no other from its level:
/// {"rendered", "reloaders", "reload-fault", "probed"}, and the code of the first step that failed.
/// Probes the services named; those of one level have the same context, and it is tried once.
/// Faults are warned of.
Report apply_to(Console& console, const Store& store, const std::vector<std::string>& probed);

/// What apply would do.
Json::Value foresee_application(const Store& store);

/// A line for each service that was probed.
void print_application(Console& console, const Json::Value& document);

}  // namespace kelotlsctl
