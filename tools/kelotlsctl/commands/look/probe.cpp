// kelotlsctl probe: handshakes with a service's context or with its running server, held against
// its level.
#include "command_line.h"
#include "state/application.h"
#include "tls/report.h"

namespace kelotlsctl {

namespace {

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

Report probe_service(Console& console, const Arguments& arguments) {
  ProbeTarget target;
  if (!arguments.address.empty()) {
    split_host_and_port(arguments.address, target);
  }
  const Store store = load_store();
  require_service(store, arguments.service);
  const kelotls::ContextOwner context = service_context(store, arguments.service);
  target.context = context.get();
  const Json::Value document = probe(
      target, store.effective_level(arguments.service), [&](std::size_t done, std::size_t all) {
        console.progress("probing " + printable(arguments.service), done, all);
      });
  return {first_own_difference(document, true).empty() ? kDone : kNotSo, document};
}

void print_probed(Console& console, const Json::Value& document) {
  print_probe(console.data(), document, console.colour());
}

}  // namespace kelotlsctl
