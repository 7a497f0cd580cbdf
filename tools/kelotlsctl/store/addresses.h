// Owns the addresses of running servers, kept by service in a file of the command's own.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "store/address.h"

namespace kelotlsctl {

class Addresses {
 public:
  static constexpr char kPath[] = "/usr/kelo/etc/security-profile/tls-profile/addresses.json";

  /// None where there is no file. A Failure that names the place where the file cannot be used: it
  /// is for people to write, too, and nothing in it may be lost.
  static Addresses load();

  /// The same, but none where the file cannot be used; check names it.
  static Addresses load_usable() { return fault().empty() ? load() : Addresses(); }

  /// Why the file cannot be used; empty where it can, or there is none.
  static std::string fault();

  /// Null: none is kept for the service.
  const Address* find(const std::string& service) const;

  void set(const std::string& service, const Address& address) { by_service_[service] = address; }

  /// Whether one was kept.
  bool remove(const std::string& service) { return by_service_.erase(service) != 0; }

  /// A Failure when it cannot be written.
  void save() const;

 private:
  std::map<std::string, Address> by_service_;
};

}  // namespace kelotlsctl
