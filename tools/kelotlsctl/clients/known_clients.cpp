// Owns looking up the names of clients.
#include "clients/known_clients.h"

#include "clients/client_hello.h"
#include "json_document.h"
#include "system/hexadecimal.h"

namespace kelotlsctl {

KnownClients KnownClients::load(const std::string& path) {
  KnownClients known;
  Json::Value document;
  kelotls::JsonReader reader;
  if (!reader.read(path, document) || !document.isObject() || !document["clients"].isArray()) {
    return known;
  }
  for (const Json::Value& client : document["clients"]) {
    const std::string key = comparison_key(octets_of(kelotls::text_member(client, "hello")));
    const std::string name = kelotls::text_member(client, "name");
    if (!key.empty() && !name.empty()) {
      known.by_key_[key].push_back(name);
    }
  }
  return known;
}

std::vector<std::string> KnownClients::names_of(const std::string& hello) const {
  const auto found = by_key_.find(comparison_key(hello));
  return found != by_key_.end() ? found->second : std::vector<std::string>();
}

}  // namespace kelotlsctl
