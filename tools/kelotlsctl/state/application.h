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

/// "web: template /x is missing", for each rendering that has a fault.
void warn_of_renderings(Console& console, const Json::Value& renderings);

/// "PATH changed", of each rendering, in the words of what was or would be done.
void print_renderings(Console& console, const Json::Value& renderings, bool is_done);

struct Reloading {
  Json::Value reloaders;  ///< [{"path", "fault"}]
  std::string fault;      ///< why none has run
  ExitCode code() const;
};

/// What reload would run, in its order.
Reloading list_reloaders();

/// Runs every reloader, and notes in the stamp which services have what they should.
Reloading run_reloaders(const Store& store);

void warn_of_reloading(Console& console, const Reloading& reloading);
void print_reloaders(Console& console, const Json::Value& reloaders, bool is_done);

/// The context that the service gets. A Failure when it gets none.
kelotls::ContextOwner service_context(const std::string& service);

struct Application {
  Json::Value document;   ///< {"rendered", "reloaders", "reload-fault", "probed"}
  ExitCode code = kDone;  ///< of the first step that failed
};

/// All steps, in spite of any failure, so that one service's fault keeps no other from its level.
/// Probes the services named; those of one level have the same context, and it is tried once.
/// Faults are warned of.
Application apply_to(Console& console, const Store& store, const std::vector<std::string>& probed);

/// What apply would do.
Application foresee_application(Console& console, const Store& store);

/// A line for each service that was probed.
void print_application(Console& console, const Json::Value& document);

}  // namespace kelotlsctl
