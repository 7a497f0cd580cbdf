// Owns the names of clients whose hellos are known.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kelotlsctl {

/// Out of a file of hellos that were recorded from packaged clients as they come. Several clients
/// can have the same hello, because they share a library.
class KnownClients {
 public:
  static constexpr char kPath[] = "/usr/share/kelotls/known_clients.json";

  /// None where the file is not there or cannot be used: then no client has a name.
  static KnownClients load(const std::string& path = kPath);

  /// Those that send this hello, by its comparison_key; none where it is not known.
  std::vector<std::string> names_of(const std::string& hello) const;

 private:
  std::map<std::string, std::vector<std::string>> by_key_;
};

}  // namespace kelotlsctl
