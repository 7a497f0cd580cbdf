// Whether a service's level has reached the service.
#ifndef KELOTLSCTL_SERVICE_STATE_H
#define KELOTLSCTL_SERVICE_STATE_H

#include <string>

#include "descriptor.h"
#include "rendering.h"
#include "stamp.h"
#include "store.h"

namespace kelotlsctl {

enum class State {
  kInForce,
  kPendingRender,  ///< the rendered file is not what the template gives for the level
  kPendingReload,  ///< level or rendered file differ from when the reloaders last ran
  kNextContext,    ///< neither template nor reloader: in force from its next context on
  kCannotRender,
  kUnusableLevel,  ///< negative: the service gets no context at all
};

struct ServiceStatus {
  std::string name;
  std::string display_name;
  std::string i18n_display_name;
  int stored = 0;
  int effective = 0;
  State state = State::kInForce;
  Descriptor descriptor;
  RenderedFile rendered;
  std::string link_target;
};

/// Looks at services one after another, reading what they share once.
class ServiceInspector {
 public:
  explicit ServiceInspector(const Store& store) : store_(store), stamp_(Stamp::load()) {}

  ServiceStatus inspect(const std::string& service);

 private:
  State state_of(const ServiceStatus& status) const;

  const Store& store_;
  Stamp stamp_;
  Renderer renderer_;
};

/// For people: "pending reload"; and for programs: "pending-reload".
std::string state_text(State state);
std::string state_key(State state);

/// What "list --json" gives for the service.
Json::Value status_json(const ServiceStatus& status);

}  // namespace kelotlsctl

#endif
