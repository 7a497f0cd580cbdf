// kelotlsctl address: at which address a service's running server is asked.
#include <optional>

#include "changes/settling.h"
#include "command_line.h"
#include "store/addresses.h"
#include "store/history.h"
#include "store/store.h"

namespace kelotlsctl {

namespace {

constexpr char kNone[] = "none";
constexpr char kExpected[] = "expected";

bool only_shows(const Arguments& arguments) {
  return arguments.address.empty() && !arguments.remove;
}

void refuse_what_excludes(const Arguments& arguments) {
  const bool has_rest = !arguments.starttls.empty() || !arguments.server_name.empty();
  if (arguments.remove && (!arguments.address.empty() || has_rest)) {
    throw Failure(kUsage, "--remove takes no address, --starttls or --servername");
  }
  if (arguments.address.empty() && has_rest) {
    throw Failure(kUsage, "--starttls and --servername belong to an address",
                  "kelotlsctl address SERVICE HOST:PORT --starttls PROTOCOL");
  }
}

Json::Value json_of(const Address* address) {
  return address != nullptr ? address_json(*address) : Json::Value();
}

/// Of what json_of gave.
std::string text_of(const Json::Value& address) {
  return address.isNull() ? kNone : describe_address(address_of(address));
}

/// An address may be left of a service that is gone, and has to be shown and removed.
void require_known(const Addresses& addresses, const Arguments& arguments) {
  if (!arguments.address.empty() || addresses.find(arguments.service) == nullptr) {
    require_service(load_store(), arguments.service);
  }
}

/// Null where there is none.
Json::Value requested_address(const Arguments& arguments) {
  return arguments.address.empty()
             ? Json::Value()
             : address_json(
                   parse_address(arguments.address, arguments.starttls, arguments.server_name));
}

/// What is expected of a server does not depend on where it listens: it goes with --remove alone.
Json::Value with_expected_of(const Json::Value& from, Json::Value to) {
  if (from.isMember(kExpected) && !to.isNull()) {
    to[kExpected] = from[kExpected];
  }
  return to;
}

void execute(Addresses addresses, const Json::Value& to, const Arguments& arguments) {
  if (to.isNull()) {
    addresses.remove(arguments.service);
  } else {
    addresses.set(arguments.service, address_of(to));
  }
  addresses.save();
}

}  // namespace

Report keep_address(Console& console, const Arguments& arguments) {
  refuse_what_excludes(arguments);
  const bool shows = only_shows(arguments);
  const Json::Value requested = requested_address(arguments);
  std::optional<WriteAccess> access;
  if (!shows && !arguments.dry_run) {
    access.emplace(console, arguments.confidence());
  }
  const Addresses addresses = Addresses::load();
  require_known(addresses, arguments);
  const Json::Value from = json_of(addresses.find(arguments.service));
  const Json::Value to = with_expected_of(from, requested);
  const bool writes = !shows && !arguments.dry_run && from != to;
  if (writes) {
    Json::Value changes = list_of({});
    changes.append(level_change(arguments.service, text_of(from), text_of(to)));
    begin_record(arguments.command, arguments.reason, changes);
    execute(addresses, to, arguments);
  }
  Report report = {kDone, object({{"service", arguments.service},
                                  {"address", shows ? from : to},
                                  {"written", writes}})};
  if (!shows) {
    report.document["former-address"] = from;
  } else if (from.isNull()) {
    report.notes.push_back("No address is kept for " + printable(arguments.service) +
                           ": what is asked is the context that the library makes.");
  }
  return report;
}

void print_address(Console& console, const Json::Value& document) {
  const std::string now = printable(text_of(document["address"]));
  if (!document.isMember("former-address")) {
    console.data() << (document["address"].isNull() ? "" : now + "\n");
    return;
  }
  const std::string former = printable(text_of(document["former-address"]));
  console.data() << printable(document["service"]) << ": "
                 << (former == now                  ? "already " + now
                     : document["written"].asBool() ? former + " became " + now
                                                    : former + " would become " + now)
                 << '\n';
}

}  // namespace kelotlsctl
