// Owns bringing levels into force: rendering, reloading and probing, each with its report.
#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "output/console.h"
#include "profile.h"
#include "service/service_state.h"
#include "store/store.h"
#include "system/programs.h"

namespace kelotlsctl {

/// Renders, or previews, the templates: [{"service", "path", "change": "none", "new", "changed" or
/// "failed", "fault", "diff": where asked for}], one for each service with a template or a fault.
Json::Value render_templates_of(Console& console, const Store& store, const Selection& selection,
                                kelotls::Rendering rendering, bool with_diff);

/// Whether an element of a report has a "fault".
bool any_fault(const Json::Value& list);

/// "web: template /x is missing", for each element that has a fault, with what the member holds.
void warn_of_faults(Console& console, const Json::Value& list, const char* member,
                    const char* separator);

/// "PATH changed", of each rendering, in the words of what was or would be done.
void print_renderings(Console& console, const Json::Value& renderings, bool is_done);

/// What reload would run, in its order: {"reloaders": [{"path"}], "fault": why none can run}. For
/// all services every reloader; for some of them their own, and the base system's where one of them
/// has none of its own.
Json::Value list_reloaders(const Selection& selection);

/// The same; elements are told a "fault" where they cannot be run.
Json::Value foresee_reloading(const Selection& selection);

struct ReloadOptions {
  std::chrono::seconds timeout = kReloadTimeout;
  bool heeds_interruption = true;  ///< runs no further one once the command was asked to end
};

/// "30" → 30 s. A Failure (usage) for anything that is no time of 1 s to a day.
std::chrono::seconds seconds_in(const std::string& text);

/// Empty: a minute.
ReloadOptions reload_options(const std::string& seconds);

/// Runs them, and notes in the stamp which services have what they should. Elements are told
/// "fault", or "not-run": why one was not even tried.
Json::Value run_reloaders(Console& console, const Store& store, const Selection& selection,
                          const ReloadOptions& options);

/// Has the history say of which services a change did not come out as of the others: of those whose
/// "result" is "failed" or "not-run".
void record_results(const Json::Value& services);

/// Of the one fault for which none has run; null without it.
void warn_of_reloading(Console& console, const Json::Value& fault);

/// A line for each reloader, or that there is none to run.
void print_reloaders(Console& console, const Json::Value& reloaders, const Json::Value& fault,
                     bool is_done);

/// The context that the service gets. A Failure when it gets none.
kelotls::ContextOwner service_context(const Store& store, const std::string& service);

/// All steps for the services, in spite of any failure, so that one service's fault keeps no other
/// from its level: {"rendered", "reloaders", "reload-fault", "probed"}, and the code of the first
/// step that failed. "probed" has an element for each service; the services of one level have the
/// same context, and it is tried once. Faults are warned of.
Report apply_to(Console& console, const Store& store, const Selection& selection,
                const ReloadOptions& options);

/// What apply_to would do; the code is that of what is bound to fail.
Report foresee_application(Console& console, const Store& store, const Selection& selection,
                           bool with_diff);

/// A line for each service that was probed.
void print_application(Console& console, const Json::Value& document);

/// What foresee_application has found.
void print_foreseen(Console& console, const Json::Value& document);

/// Whether any of the services has not yet what it should.
bool any_pending(const Store& store, const std::vector<std::string>& services);

}  // namespace kelotlsctl
