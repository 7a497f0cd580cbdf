#include "service_state.h"

#include <array>

#include "json_text.h"
#include "level.h"

namespace kelotlsctl {

namespace {

struct StateWords {
  const char* text;
  const char* key;
};

// clang-format off
constexpr std::array<StateWords, 6> kWords = {{
    {"in force",                       "in-force"},
    {"pending render",                 "pending-render"},
    {"pending reload",                 "pending-reload"},
    {"in force from its next context", "next-context"},
    {"cannot be rendered",             "cannot-render"},
    {"unusable level",                 "unusable-level"},
}};
// clang-format on

const StateWords& words_of(State state) { return kWords[static_cast<std::size_t>(state)]; }

}  // namespace

ServiceStatus ServiceInspector::inspect(const std::string& service) {
  const Json::Value& entry = store_.services[service];
  ServiceStatus status;
  status.name = service;
  status.display_name = text_member(entry, "display-name");
  status.i18n_display_name = text_member(entry, "display-name-i18n");
  status.stored = store_.stored_level(service);
  status.effective = store_.effective_level(service);
  status.descriptor = read_descriptor(service);
  status.link_target = link_target(service);
  status.rendered = renderer_.compare(service, status.descriptor, status.effective);
  status.state = state_of(status);
  return status;
}

State ServiceInspector::state_of(const ServiceStatus& status) const {
  if (status.effective < 0) {
    return State::kUnusableLevel;
  }
  switch (status.rendered.verdict) {
    case Rendering::kImpossible:
      return State::kCannotRender;
    case Rendering::kNew:
    case Rendering::kChanged:
      return State::kPendingRender;
    case Rendering::kNone:
      if (status.link_target.empty() && status.descriptor.reloader_path().empty()) {
        return State::kNextContext;
      }
      break;
    case Rendering::kUnchanged:
      break;
  }
  return stamp_.matches(status.name, status.effective, status.rendered.now) ? State::kInForce
                                                                            : State::kPendingReload;
}

std::string state_text(State state) { return words_of(state).text; }

std::string state_key(State state) { return words_of(state).key; }

Json::Value status_json(const ServiceStatus& status) {
  Json::Value value(Json::objectValue);
  value["service"] = status.name;
  value["display-name"] = status.display_name;
  value["stored-level"] = level_json(status.stored);
  value["effective-level"] = effective_level_json(status.effective);
  value["state"] = state_key(status.state);
  if (!status.rendered.fault.empty()) {
    value["fault"] = status.rendered.fault;
  }
  return value;
}

}  // namespace kelotlsctl
