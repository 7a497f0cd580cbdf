// Owns bringing levels into force: rendering, reloading and probing, each with its report.
#ifndef KELOTLSCTL_STATE_APPLICATION_H
#define KELOTLSCTL_STATE_APPLICATION_H

#include <json/value.h>

#include <string>
#include <vector>

#include "output/console.h"
#include "profile.h"
#include "reloaders.h"
#include "state/service_state.h"
#include "state/store.h"

namespace kelotlsctl {

using Renderings = std::vector<Rendered>;

/// One result per service with a template, or that has a fault.
Renderings render_all(const Store& store, kelotls::Rendering rendering);

bool any_failed(const Renderings& renderings);
void warn_of(Console& console, const Renderings& renderings);

/// [{"service", "path", "change", "fault", "diff"}]
Json::Value renderings_json(const Renderings& renderings, bool with_diff);

/// "PATH changed", of each element, in the words of what was or would be done.
void print_renderings(Console& console, const Json::Value& renderings, bool is_done);

struct Reloading {
  std::vector<kelotls::ReloadResult> reloaders;
  std::string fault;  ///< why none has run
  ExitCode code() const;
};

/// What reload would run, in its order.
Reloading list_reloaders();

/// Runs every reloader, and notes in the stamp which services have what they should.
Reloading run_reloaders(const Store& store);

void warn_of(Console& console, const Reloading& reloading);

/// [{"path", "fault"}]
Json::Value reloaders_json(const Reloading& reloading);
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

#endif
