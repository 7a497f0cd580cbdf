// kelotlsctl clients record, import and forget: what is kept of a service's clients.
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "clients/records.h"
#include "command_line.h"
#include "output/text.h"
#include "recording/recorder.h"
#include "store/addresses.h"
#include "store/history.h"
#include "store/lock.h"
#include "store/store.h"

namespace kelotlsctl {

namespace {

/// A whole number from the least to the most; a Failure (usage) that names the option for others.
std::uint64_t number_of(const std::string& text, const char* option, std::uint64_t least,
                        std::uint64_t most) {
  constexpr std::size_t kMostDigits = 15;
  const bool is_number = !text.empty() && text.size() <= kMostDigits &&
                         text.find_first_not_of("0123456789") == std::string::npos;
  const std::uint64_t number = is_number ? std::stoull(text) : 0;
  if (!is_number || number < least || number > most) {
    throw Failure(kUsage, std::string(option) + " takes a number from " + std::to_string(least) +
                              " to " + std::to_string(most) + ", not \"" + printable(text) + "\"");
  }
  return number;
}

/// "90s", "30m", "24h", "7d"
std::chrono::seconds duration_of(const std::string& text) {
  constexpr char kUnits[] = "smhd";
  constexpr std::int64_t kSeconds[] = {1, 60, 3600, 86400};
  constexpr std::uint64_t kMost = 366;
  const char* const unit = text.empty() ? nullptr : std::strchr(kUnits, text.back());
  if (unit == nullptr || *unit == '\0') {
    throw Failure(
        kUsage, "--for takes a time such as 90s, 30m, 24h or 7d, not \"" + printable(text) + "\"");
  }
  const std::int64_t seconds = kSeconds[unit - kUnits];
  const std::uint64_t most = kMost * 86400 / static_cast<std::uint64_t>(seconds);
  const std::uint64_t count = number_of(text.substr(0, text.size() - 1), "--for", 1, most);
  return std::chrono::seconds(static_cast<std::int64_t>(count) * seconds);
}

AddressRule address_rule_of(const Arguments& arguments) {
  AddressRule rule;
  rule.keeps_any = !arguments.no_addresses;
  if (!arguments.prefix.empty()) {
    rule.ipv4_bits = static_cast<int>(number_of(arguments.prefix, "--prefix", 0, 32));
    rule.ipv6_bits = 64;
  }
  if (!arguments.prefix6.empty()) {
    rule.ipv6_bits = static_cast<int>(number_of(arguments.prefix6, "--prefix6", 0, 128));
  }
  return rule;
}

RecordingOptions options_of(const Arguments& arguments) {
  constexpr std::uint64_t kLeast = 4096;
  RecordingOptions options;
  options.addresses = address_rule_of(arguments);
  if (!arguments.limit.empty()) {
    options.limit =
        static_cast<std::size_t>(number_of(arguments.limit, "--limit", kLeast, kMostRecordBytes));
  }
  if (!arguments.duration.empty()) {
    options.duration = duration_of(arguments.duration);
  }
  return options;
}

struct AddressInfoRelease {
  void operator()(addrinfo* info) const { ::freeaddrinfo(info); }
};
using AddressInfo = std::unique_ptr<addrinfo, AddressInfoRelease>;

NetworkAddress network_address_of(const addrinfo& info) {
  NetworkAddress address;
  address.version = info.ai_family == AF_INET ? 4 : 6;
  if (address.version == 4) {
    std::memcpy(address.octets.data(), &reinterpret_cast<sockaddr_in*>(info.ai_addr)->sin_addr, 4);
  } else {
    std::memcpy(address.octets.data(), &reinterpret_cast<sockaddr_in6*>(info.ai_addr)->sin6_addr,
                16);
  }
  return address;
}

/// 127.0.0.0/8, ::1, and those that stand for all. A service is often asked there, and listens at
/// every address of this machine.
bool stands_for_this_machine(const NetworkAddress& address) {
  const auto is_zero = [](std::uint8_t octet) { return octet == 0; };
  const auto* const begin = address.octets.begin();
  return address.version == 4 ? address.octets[0] == 127 || std::all_of(begin, begin + 4, is_zero)
                              : address.octets[15] <= 1 && std::all_of(begin, begin + 15, is_zero);
}

/// None: any.
std::vector<NetworkAddress> resolve(const std::string& service, const Address& address) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = ::getaddrinfo(address.host.c_str(), nullptr, &hints, &found);
  const AddressInfo owner(found);
  if (result != 0) {
    throw Failure(kFailed, "the address of " + printable(service) + ", " + printable(address.host) +
                               ", cannot be resolved: " + ::gai_strerror(result));
  }
  std::vector<NetworkAddress> addresses;
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    if (one->ai_family == AF_INET || one->ai_family == AF_INET6) {
      addresses.push_back(network_address_of(*one));
    }
  }
  const bool is_here = std::any_of(addresses.begin(), addresses.end(), stands_for_this_machine);
  return is_here ? std::vector<NetworkAddress>() : addresses;
}

WatchedService watched_at(const std::string& service, const Address& address) {
  if (!address.unix_path.empty()) {
    throw Failure(kFailed,
                  printable(service) + " is asked at unix:" + printable(address.unix_path) +
                      ": what is said over a socket in the file system is on no network",
                  "Where its clients come over a network, name its port: --port NUMBER");
  }
  WatchedService watched;
  watched.port = static_cast<std::uint16_t>(std::stoi(address.port));
  watched.addresses = resolve(service, address);
  watched.starttls = address.starttls;
  return watched;
}

/// --port takes the place of the address; what is spoken before TLS stays.
WatchedService watched_of(const std::string& service, const Addresses& addresses,
                          const Arguments& arguments) {
  constexpr std::uint64_t kMostPort = 65535;
  const Address* const kept = addresses.find(service);
  if (arguments.port.empty()) {
    if (kept == nullptr) {
      throw Failure(kFailed, "no address is kept for " + printable(service),
                    "kelotlsctl address SERVICE HOST:PORT keeps one; or name its port: "
                    "--port NUMBER");
    }
    return watched_at(service, *kept);
  }
  WatchedService watched;
  watched.port = static_cast<std::uint16_t>(number_of(arguments.port, "--port", 1, kMostPort));
  watched.starttls = kept != nullptr ? kept->starttls : "";
  return watched;
}

bool are_at_one_place(const WatchedService& one, const WatchedService& other) {
  const auto has = [&](const NetworkAddress& address) {
    return other.listens_at(address, one.port);
  };
  return one.port == other.port && (one.addresses.empty() || other.addresses.empty() ||
                                    std::any_of(one.addresses.begin(), one.addresses.end(), has));
}

/// Whose connection it is could not be told.
void require_places_of_their_own(const std::vector<RecordedService>& services) {
  for (std::size_t i = 0; i < services.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (are_at_one_place(services[i].watched, services[j].watched)) {
        throw Failure(kUsage, printable(services[j].name) + " and " + printable(services[i].name) +
                                  " are at the same port: record one of them");
      }
    }
  }
}

std::vector<RecordedService> services_of(const std::vector<std::string>& requested,
                                         const Arguments& arguments) {
  const Selection selection = select_services(load_store(), requested);
  if (selection.names.size() > 1 && !arguments.port.empty()) {
    throw Failure(kUsage, "--port is the port of one service");
  }
  const Addresses addresses = Addresses::load();
  std::vector<RecordedService> services;
  for (const std::string& name : selection.names) {
    services.push_back({name, watched_of(name, addresses, arguments)});
  }
  require_places_of_their_own(services);
  return services;
}

void require_root(const Arguments& arguments) {
  if (::geteuid() != 0) {
    throw Failure(kFailed, "kelotlsctl clients " + arguments.subject + " needs root",
                  "Nothing was changed.");
  }
}

Json::Value result_json(const RecordingResult& result) {
  return object({{"service", result.service},
                 {"connections", Json::UInt64{result.connections}},
                 {"new-hellos", Json::UInt64{result.new_hellos}},
                 {"unread", result.unread.json()},
                 {"kernel-drops", Json::UInt64{result.kernel_drops}},
                 {"hellos", Json::UInt64{result.hellos}}});
}

Report report_of(const Arguments& arguments, const Recording& recording) {
  constexpr const char* kEnds[] = {"time", "signal", "file"};
  Report report;
  report.document = object({{"action", arguments.subject},
                            {"ended-by", kEnds[static_cast<std::size_t>(recording.end)]},
                            {"packets", Json::UInt64{recording.packets}},
                            {"services", list_of(recording.services, result_json)}});
  const std::uint64_t drops = recording.services[0].kernel_drops;
  if (drops > 0) {
    report.warnings.push_back("the kernel could not keep " + std::to_string(drops) +
                              " packets: some connections were not seen");
  }
  return report;
}

int open_capture(const std::string& file) {
  const int descriptor = file == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                                     : ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) {
    throw system_failure(printable(file));
  }
  return descriptor;
}

/// "2 not TLS, 1 incomplete"
std::string unread_text(const Json::Value& unread) {
  constexpr std::pair<const char*, const char*> kKinds[] = {{"not-tls", "not TLS"},
                                                            {"ssl2", "in the form of SSL 2"},
                                                            {"incomplete", "incomplete"},
                                                            {"too-large", "too large"}};
  std::string text;
  for (const auto& [key, words] : kKinds) {
    if (unread[key].asUInt64() > 0) {
      text += (text.empty() ? "" : ", ") + unread[key].asString() + " " + words;
    }
  }
  return text;
}

}  // namespace

Report record_clients(Console& console, const Arguments& arguments) {
  require_root(arguments);
  const RecordingOptions options = options_of(arguments);
  const std::vector<RecordedService> services = services_of(arguments.services, arguments);
  CaptureSource source;
  source.interface = arguments.interface.empty() ? "any" : arguments.interface;
  const auto say = [&] { console.say("recording; SIGINT or SIGTERM ends it"); };
  return report_of(arguments, record(source, services, options, say));
}

Report import_clients(Console& /*console*/, const Arguments& arguments) {
  require_root(arguments);
  if (!arguments.duration.empty() || !arguments.interface.empty()) {
    throw Failure(kUsage, "--for and --interface belong to kelotlsctl clients record");
  }
  const RecordingOptions options = options_of(arguments);
  const std::vector<RecordedService> services = services_of({arguments.services[0]}, arguments);
  const kelotls::Descriptor file(open_capture(arguments.services[1]));
  CaptureSource source;
  source.file = file.get();
  return report_of(arguments, record(source, services, options, [] {}));
}

void print_recorded(Console& console, const Json::Value& document) {
  for (const Json::Value& one : document["services"]) {
    const std::string unread = unread_text(one["unread"]);
    console.data() << printable(one["service"]) << ": " << one["connections"].asString()
                   << " connections; " << one["new-hellos"].asString() << " new hellos, "
                   << one["hellos"].asString() << " are kept"
                   << (unread.empty() ? "" : "; without a hello: " + unread) << '\n';
  }
}

Report forget_recorded_clients(Console& console, const Arguments& arguments) {
  const std::string& service = arguments.services.at(0);
  const Lock lock(console, arguments.command, true);
  if (!ClientRecords::exist_of(service)) {
    require_service(load_store(), service);  // a record may be left of a service that is gone
  }
  const RecordLock record_lock(service);  // who records would write it again
  begin_record(arguments.command + " forget", arguments.reason, changes_of({service}));
  return {
      kDone,
      object({{"action", "forget"}, {"service", service}, {"removed", forget_clients(service)}})};
}

void print_forgotten(Console& console, const Json::Value& document) {
  console.data() << printable(document["service"])
                 << (document["removed"].asBool() ? ": the record of its clients was removed\n"
                                                  : ": no record of its clients is kept\n");
}

}  // namespace kelotlsctl
