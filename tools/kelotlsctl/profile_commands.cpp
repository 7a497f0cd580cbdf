// The commands about what a level means on this machine: levels, explain, probe.
#include <kelotls/api_provider.h>
#include <kelotls/tls_profile_level.h>

#include "apply.h"
#include "capability.h"
#include "commands.h"
#include "level.h"
#include "owners.h"
#include "probe.h"
#include "store.h"

namespace kelotlsctl {

namespace {

struct LevelContext {
  ContextOwner context;
  int level = 0;
};

ContextOwner acquire(const std::string& service) {
  ContextOwner context(kelotls::APIProvider().acquire_server_context(service));
  if (context == nullptr) {
    throw Failure(kFailed, "the service \"" + printable(service) + "\" gets no context",
                  "A log line says why, unless its level is negative.");
  }
  return context;
}

/// A word that is a level, and no service's name, means the level.
LevelContext context_of(const std::string& level_or_service) {
  Store store;
  int level = 0;
  bool is_level = true;
  try {
    level = parse_level(level_or_service);
  } catch (const Failure&) {
    is_level = false;
  }
  if (!is_level) {
    store = load_store();
    require_service(store, level_or_service);
    return {acquire(level_or_service), store.effective_level(level_or_service)};
  }
  if (level == 0) {
    level = load_store().default_level;
  }
  return {make_level_context(level), level};
}

/// "HOST:PORT", "[IPv6 ADDRESS]:PORT" → host and port.
void split_host_and_port(const std::string& text, ProbeTarget& target) {
  const std::size_t colon = text.rfind(':');
  const bool has_both = colon != std::string::npos && colon > 0 && colon + 1 < text.size();
  std::string host = has_both ? text.substr(0, colon) : std::string();
  const bool is_bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (is_bracketed) {
    host = host.substr(1, host.size() - 2);
  }
  if (!has_both || (!is_bracketed && host.find(':') != std::string::npos)) {
    throw Failure(kUsage, "\"" + printable(text) + "\" is not HOST:PORT",
                  "An IPv6 address stands in brackets: [::1]:443");
  }
  target.host = host;
  target.port = text.substr(colon + 1);
}

}  // namespace

int show_levels(Invocation& invocation) {
  Console& console = invocation.console;
  Json::Value document(Json::objectValue);
  document["levels"] = Json::Value(Json::arrayValue);
  for (int level = kelotls::TLS_PROFILE_LEVEL_MODERN; level <= kelotls::TLS_PROFILE_LEVEL_OLD;
       ++level) {
    const Json::Value description = describe_level(level);
    document["levels"].append(description);
    if (!console.json()) {
      print_level(console.data(), description, console.colour());
    }
  }
  if (console.json()) {
    console.document(document);
  }
  return kDone;
}

int explain(Invocation& invocation, const std::string& level_or_service) {
  const LevelContext subject = context_of(level_or_service);
  const Json::Value explanation = explain_context(subject.context.get(), subject.level);
  if (invocation.console.json()) {
    invocation.console.document(explanation);
  } else {
    print_explanation(invocation.console.data(), explanation, invocation.console.colour());
  }
  return kDone;
}

int probe_service(Invocation& invocation, const std::string& service,
                  const std::string& host_and_port) {
  Console& console = invocation.console;
  ProbeTarget target;
  if (!host_and_port.empty()) {
    split_host_and_port(host_and_port, target);
  }
  const Store store = load_store();
  require_service(store, service);
  const ContextOwner context = acquire(service);
  target.context = context.get();
  const Json::Value report =
      probe(target, store.effective_level(service), [&](std::size_t done, std::size_t all) {
        console.progress("probing " + printable(service), done, all);
      });
  if (console.json()) {
    console.document(report);
  } else {
    print_probe(console.data(), report, console.colour());
  }
  return has_own_differences(report, true) ? kNotSo : kDone;
}

}  // namespace kelotlsctl
