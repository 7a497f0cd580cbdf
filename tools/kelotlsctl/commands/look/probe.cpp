// kelotlsctl probe: handshakes with a service's context or with its running server, held against
// its level.
#include "command_line.h"
#include "levels/report.h"
#include "state/application.h"

namespace kelotlsctl {

namespace {

/// "HOST:PORT", "[IPv6 ADDRESS]:PORT" → host and port.
void split_host_and_port(const std::string& text, Address& target) {
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

Patience patience_of(const Arguments& arguments) {
  Patience patience;
  const auto take = [](const std::string& text, std::chrono::milliseconds& time) {
    time = text.empty() ? time : std::chrono::milliseconds(seconds_in(text));
  };
  take(arguments.timeout, patience.timeout);
  take(arguments.deadline, patience.deadline);
  return patience;
}

/// What only this machine's OpenSSL keeps back is no fault of the service.
ExitCode code_of(const Json::Value& document) {
  return !first_own_difference(document, true).empty() ? kNotSo
         : !document["not-known"].empty()              ? kCannotTell
                                                       : kDone;
}

}  // namespace

Report probe_service(Console& console, const Arguments& arguments) {
  ProbeTarget target;
  if (!arguments.address.empty()) {
    split_host_and_port(arguments.address, target.address);
    target.address.starttls = arguments.starttls;
    target.address.server_name = arguments.server_name;
  }
  target.patience = patience_of(arguments);
  const Store store = load_store();
  require_service(store, arguments.service);
  const kelotls::ContextOwner context = service_context(store, arguments.service);
  target.context = context.get();
  const Json::Value document = probe(
      target, store.effective_level(arguments.service), [&](std::size_t done, std::size_t all) {
        console.progress("probing " + printable(arguments.service), done, all);
      });
  return {code_of(document), document};
}

void print_probed(Console& console, const Json::Value& document) {
  print_probe(console.data(), document, console.colour());
}

}  // namespace kelotlsctl
