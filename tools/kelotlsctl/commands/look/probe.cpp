// kelotlsctl probe: handshakes with a service's context or with its running server, held against
// its level.
#include "changes/application.h"
#include "command_line.h"
#include "levels/report.h"
#include "service/expected_differences.h"
#include "store/addresses.h"

namespace kelotlsctl {

namespace {

/// What the command line says, or what is kept; none for the library's context. What is expected of
/// the service's server is expected of it anywhere.
Address address_of(const Arguments& arguments) {
  if (arguments.address.empty() &&
      (!arguments.starttls.empty() || !arguments.server_name.empty())) {
    throw Failure(kUsage, "--starttls and --servername need --connect");
  }
  const Addresses addresses = arguments.context ? Addresses() : Addresses::load();
  const Address* const kept = addresses.find(arguments.service);
  if (arguments.address.empty()) {
    return kept != nullptr ? *kept : Address();
  }
  Address address = parse_address(arguments.address, arguments.starttls, arguments.server_name);
  address.expected = kept != nullptr ? kept->expected : "";
  return address;
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
  return !first_own_difference(document, true).empty()        ? kNotSo
         : !expected_of(document["not-known"], false).empty() ? kCannotTell
                                                              : kDone;
}

}  // namespace

Report probe_service(Console& console, const Arguments& arguments) {
  ProbeTarget target;
  target.address = address_of(arguments);
  target.patience = patience_of(arguments);
  const Store store = load_store();
  require_service(store, arguments.service);
  const kelotls::ContextOwner context = service_context(store, arguments.service);
  target.context = context.get();
  const int level = store.effective_level(arguments.service);
  const ExpectedDifferences expected = ExpectedDifferences::read(target.address.expected);
  target.find_expected = expected.at_level(level);
  target.closing = expected.closing();
  Json::Value document = probe(target, level, [&](std::size_t done, std::size_t all) {
    console.progress("probing", arguments.service, done, all);
  });
  if (!expected.fault().empty()) {
    document["notes"].append("No difference is expected: " + expected.fault());
  }
  return {code_of(document), document};
}

void print_probed(Console& console, const Json::Value& document) {
  print_probe(console.data(), document, console.colour());
}

}  // namespace kelotlsctl
