// Rendering, reloading and probing as one: the levels of all services brought into force.
#ifndef KELOTLSCTL_APPLY_H
#define KELOTLSCTL_APPLY_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "console.h"
#include "steps.h"
#include "store.h"

namespace kelotlsctl {

struct ProbeResult {
  std::string fault;  ///< empty when the service's context does what its level asks for
};

struct Application {
  std::vector<RenderResult> rendered;
  ReloadResult reloaded;
  std::map<std::string, ProbeResult> probed;

  /// The code of the first step that failed.
  ExitCode code() const;
};

/// Whether the differences of a report have another cause than this machine's OpenSSL. Those of a
/// Diffie-Hellman file can be let pass: the service works without, as it was before.
bool has_own_differences(const Json::Value& report, bool dh_file_counts);

/// All steps, whatever fails, so that one service's fault keeps no other from its level. Probes the
/// services named; those of one level have the same context, and it is tried once.
Application apply_to(Console& console, const Store& store, const std::vector<std::string>& probed);

Json::Value application_json(const Application& application);

/// One line per service.
void print_application(Console& console, const Store& store, const Application& application);

}  // namespace kelotlsctl

#endif
