// Owns the data store: loading, saving, looking up and changing what it holds.
#include <cerrno>

#include <utility>

#include "internal.h"
#include "kelotls/tls_profile_level.h"
#include "log_messages.h"

namespace kelotls {

Json::Value load_data_store() {
  Json::Value root;
  errno = 0;
  if (!root.fromFile(kDataStorePath)) {
    log::data_store_not_loaded(kDataStorePath);
    return Json::Value();
  }
  if (!validate_data_store(root)) {
    log::data_store_invalid(kDataStorePath);
    return Json::Value();
  }
  return root;
}

int save_data_store(const Json::Value& root) {
  errno = 0;
  if (!root.toFile(kDataStorePath)) {
    log::data_store_not_saved(kDataStorePath);
    return -1;
  }
  return 0;
}

Json::Value get_service_entry(const Json::Value& root, const std::string& name) {
  return root["services"][name];
}

int lookup_service_level(const Json::Value& root, const std::string& name) {
  const Json::Value entry = get_service_entry(root, name);
  if (entry.isNull()) {
    log::lookup_of_unjoined_service(name);
    return kServiceNotJoined;
  }
  const int level = entry["current-level"].asInt();
  return level != TLS_PROFILE_LEVEL_DEFAULT ? level : root["default-level"].asInt();
}

int update_service_level(Json::Value& root, const std::string& name, int level) {
  Json::Value entry = get_service_entry(root, name);
  if (entry.isNull()) {
    log::update_of_unjoined_service(name);
    return kServiceNotJoined;
  }
  entry["current-level"] = level;
  root["services"][name] = std::move(entry);
  return 0;
}

void update_default_level(Json::Value& root, int level) { root["default-level"] = level; }

}  // namespace kelotls
