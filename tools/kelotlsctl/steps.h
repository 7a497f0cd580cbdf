// Bringing levels into force: rendering and reloading, each with a report that the library's own
// results do not give.
#ifndef KELOTLSCTL_STEPS_H
#define KELOTLSCTL_STEPS_H

#include <json/value.h>

#include <string>
#include <vector>

#include "console.h"
#include "failure.h"
#include "rendering.h"
#include "store.h"

namespace kelotlsctl {

/// Writes the level and reads it back. A Failure when it is not there.
void write_service_level(const std::string& service, int level);
void write_default_level(int level);

struct RenderResult {
  std::string service;
  Rendering verdict = Rendering::kNone;  ///< before rendering
  std::string fault;                     ///< why the service was not, or cannot be, rendered
  std::string diff;
};

/// What rendering would change: one result per service with a template, or that has a fault.
std::vector<RenderResult> compare_templates(const Store& store);

/// Renders every template. The results say what was changed and what failed.
std::vector<RenderResult> render_templates(const Store& store);

bool any_failed(const std::vector<RenderResult>& results);
Json::Value render_json(const std::vector<RenderResult>& results, bool with_diff);

struct ReloadResult {
  struct Reloader {
    std::string path;
    std::string fault;  ///< empty when it ended with status 0
  };
  std::vector<Reloader> reloaders;
  std::string fault;  ///< why none has run
  ExitCode code() const;
};

/// What reload would run, in its order.
ReloadResult list_reloaders();

/// Runs every reloader, and notes in the stamp which services have what they should.
ReloadResult run_reloaders(const Store& store);

Json::Value reload_json(const ReloadResult& result);

/// The result of the service's own reloader; null when it has none.
const ReloadResult::Reloader* reloader_of(const std::string& service, const ReloadResult& result);

}  // namespace kelotlsctl

#endif
