// Owns the address at which a running server is asked.
#include "store/address.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <algorithm>
#include <vector>

#include "output/console.h"
#include "peers/starttls.h"
#include "store/documents.h"

namespace kelotlsctl {

namespace {

constexpr char kUnix[] = "unix:";
constexpr char kAdvice[] =
    "An address is HOST:PORT, [IPV6]:PORT or unix:PATH, such as localhost:443.";
constexpr std::size_t kMostHost = 253;

constexpr kelotls::MemberRule kMembers[] = {
    {"address", Json::stringValue, true, false},
    {"starttls", Json::stringValue, false, false},
    {"server-name", Json::stringValue, false, false},
    {"expected", Json::stringValue, false, false},
    {},
};

bool holds_only(const std::string& text, const char* characters) {
  return text.find_first_not_of(characters) == std::string::npos;
}

/// Why a text is no name of a host; also where it is a number, as the field of TLS that carries
/// the name takes none.
std::string host_fault(const std::string& host) {
  constexpr char kOfHosts[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
  const std::string quoted = "\"" + host + "\"";
  return host.empty()              ? "names no host"
         : host.size() > kMostHost ? "names a host with more than 253 characters"
         : !holds_only(host, kOfHosts) || host[0] == '-' || host[0] == '.'
             ? quoted + " is no name of a host"
             : "";
}

/// An interface may stand behind it: "fe80::1%eth0".
bool is_ipv6(const std::string& host) {
  constexpr char kOfInterfaces[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
  const std::size_t percent = host.find('%');
  const std::string interface = percent == std::string::npos ? "any" : host.substr(percent + 1);
  in6_addr parsed = {};
  return ::inet_pton(AF_INET6, host.substr(0, percent).c_str(), &parsed) == 1 &&
         !interface.empty() && holds_only(interface, kOfInterfaces);
}

std::string port_fault(const std::string& port) {
  constexpr int kMost = 65535;
  const bool is_number = !port.empty() && port.size() <= 5 && holds_only(port, "0123456789") &&
                         port[0] != '0' && std::stoi(port) <= kMost;
  return is_number ? "" : "\"" + port + "\" is no port from 1 to 65535";
}

std::string read_unix_path(const std::string& path, Address& address) {
  address.unix_path = path;
  return path[0] != '/' ? "names no absolute path"
         : path.size() >= sizeof(sockaddr_un::sun_path)
             ? "names a path of more than " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
                   " bytes"
             : "";
}

/// Why it is no address, or empty.
std::string read_address(const std::string& text, Address& address) {
  std::string unreadable = text_fault(text);
  if (!unreadable.empty()) {
    return unreadable;
  }
  if (text.rfind(kUnix, 0) == 0) {
    return read_unix_path(text.substr(sizeof kUnix - 1), address);
  }
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    return "names no port";
  }
  address.host = text.substr(0, colon);
  address.port = text.substr(colon + 1);
  if (address.host[0] != '[') {
    const std::string fault = address.host.find(':') != std::string::npos
                                  ? "holds an IPv6 address without brackets"
                                  : host_fault(address.host);
    return fault.empty() ? port_fault(address.port) : fault;
  }
  if (address.host.back() != ']') {
    return text.find(']') == std::string::npos ? "lacks a \"]\"" : "names no port";
  }
  address.host = address.host.substr(1, address.host.size() - 2);
  return is_ipv6(address.host) ? port_fault(address.port)
                               : "\"" + address.host + "\" is no IPv6 address";
}

std::string starttls_fault(const std::string& protocol) {
  const std::vector<std::string>& known = starttls_protocols();
  if (std::find(known.begin(), known.end(), protocol) != known.end()) {
    return "";
  }
  std::string names;
  for (const std::string& name : known) {
    names += (names.empty() ? "" : ", ") + name;
  }
  return "\"" + protocol + "\" is no protocol that can start TLS: " + names + " are";
}

std::string server_name_fault(const std::string& name) {
  in_addr parsed = {};
  const std::string fault = host_fault(name);
  return !fault.empty() || ::inet_pton(AF_INET, name.c_str(), &parsed) == 1
             ? "\"" + name + "\" is no name of a server"
             : "";
}

void require_faultless(const std::string& fault, const char* advice) {
  if (!fault.empty()) {
    throw Failure(kUsage, printable(fault), advice);
  }
}

}  // namespace

Address parse_address(const std::string& text) { return parse_address(text, "", ""); }

Address parse_address(const std::string& text, const std::string& starttls,
                      const std::string& server_name) {
  Address address;
  const std::string fault = read_address(text, address);
  require_faultless(fault.empty() ? "" : "the address \"" + text + "\": " + fault, kAdvice);
  require_faultless(starttls.empty() ? "" : starttls_fault(starttls), "");
  require_faultless(server_name.empty() ? "" : server_name_fault(server_name), "");
  address.starttls = starttls;
  address.server_name = server_name;
  return address;
}

std::string address_text(const Address& address) {
  const bool is_ipv6 = address.host.find(':') != std::string::npos;
  return !address.unix_path.empty() ? kUnix + address.unix_path
         : is_ipv6                  ? "[" + address.host + "]:" + address.port
                                    : address.host + ":" + address.port;
}

std::string describe_address(const Address& address) {
  return address_text(address) +
         (address.starttls.empty() ? "" : ", STARTTLS by " + address.starttls) +
         (address.server_name.empty() ? "" : ", server name " + address.server_name) +
         (address.expected.empty() ? "" : ", expected differences " + address.expected);
}

void append_address_faults(const Json::Value& value, const std::string& path,
                           kelotls::Faults& faults) {
  const bool is_text = value.isString();
  if (!is_text && !value.isObject()) {
    faults.push_back({path, "must be an address, as a string or in an object"});
    return;
  }
  const auto add = [&](const std::string& place, const std::string& fault) {
    if (!fault.empty()) {
      faults.push_back({place, fault});
    }
  };
  if (is_text || append_exact_faults(value, kMembers, path, faults)) {
    Address address = address_of(value);
    add(is_text ? path : path + ".address",
        read_address((is_text ? value : value["address"]).asString(), address));
    add(path + ".starttls", address.starttls.empty() ? "" : starttls_fault(address.starttls));
    add(path + ".server-name",
        address.server_name.empty() ? "" : server_name_fault(address.server_name));
    add(path + ".expected",
        address.expected.empty() || address.expected[0] == '/' ? "" : "must be an absolute path");
  }
}

Address address_of(const Json::Value& value) {
  Address address;
  if (value.isString()) {
    read_address(value.asString(), address);
    return address;
  }
  read_address(kelotls::text_member(value, "address"), address);
  address.starttls = kelotls::text_member(value, "starttls");
  address.server_name = kelotls::text_member(value, "server-name");
  address.expected = kelotls::text_member(value, "expected");
  return address;
}

Json::Value address_json(const Address& address) {
  Json::Value value = object({{"address", address_text(address)}});
  if (!address.starttls.empty()) {
    value["starttls"] = address.starttls;
  }
  if (!address.server_name.empty()) {
    value["server-name"] = address.server_name;
  }
  if (!address.expected.empty()) {
    value["expected"] = address.expected;
  }
  return value;
}

}  // namespace kelotlsctl
