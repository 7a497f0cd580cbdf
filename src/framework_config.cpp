// Owns the data store, and is the operations of DataStoreProvider.
#include "framework_config.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "files.h"
#include "kelotls/data_store_provider.h"
#include "kelotls/tls_profile_level.h"
#include "log_messages.h"
#include "paths.h"

namespace kelotls {
namespace {

constexpr MemberRule kDataStore[] = {
    {"default-level", Json::intValue, true, false},
    {"services", Json::objectValue, true, false},
    {},
};
constexpr MemberRule kEntry[] = {
    {"display-name", Json::stringValue, true, true},
    {"display-name-i18n", Json::stringValue, false, false},
    {"current-level", Json::intValue, false, false},
    {},
};

bool validate_entry(const Json::Value& entry) {
  const MemberRule* const broken = broken_rule(entry, kEntry);
  if (broken != nullptr) {
    static_cast<void>(entry.isMember(""));  // jsoncpp raises its exception for what is no object
    constexpr void (*kLines[])() = {log::no_display_name, log::bad_i18n_display_name,
                                    log::bad_current_level};
    kLines[broken - kEntry]();
  }
  return broken == nullptr;
}

}  // namespace

bool validate_data_store(const Json::Value& root) {
  // The type of "default-level" is not looked at; whoever reads it meets jsoncpp's exception.
  if (!root.isObject() || !root.isMember("default-level")) {
    log::no_default_level();
    return false;
  }
  const Json::Value& services = root["services"];
  if (!services.isObject()) {
    log::no_services_field();
    return false;
  }
  return std::all_of(services.begin(), services.end(), validate_entry);
}

Faults data_store_faults(const Json::Value& root) {
  Faults faults;
  append_faults(root, kDataStore, "$", faults);
  const Json::Value* const services = find_member(root, "services");
  if (services != nullptr && services->isObject()) {
    for (const std::string& name : services->getMemberNames()) {
      append_faults((*services)[name], kEntry, path_of_member("$.services", name), faults);
    }
  }
  return faults;
}

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

// DataStoreProvider: one load, at most one change, at most one save each.

int DataStoreProvider::set_service_level(const std::string& name, TlsProfileLevel level) {
  // Neither the load nor the update stops the save; callers have come to rely on the rewrite.
  Json::Value root = load_data_store();
  update_service_level(root, name, level);
  return save_data_store(root);
}

int DataStoreProvider::get_service_level(const std::string& name) const {
  const Json::Value root = load_data_store();
  return root.isNull() ? kDataStoreUnavailable : lookup_service_level(root, name);
}

Json::Value DataStoreProvider::list_services() const {
  Json::Value root = load_data_store();
  return root.isNull() ? Json::Value() : std::move(root["services"]);
}

void DataStoreProvider::set_default_level(TlsProfileLevel level) {
  Json::Value root = load_data_store();
  root["default-level"] = level;  // null becomes an object that holds nothing else
  save_data_store(root);
}

int DataStoreProvider::get_default_level() const {
  const Json::Value root = load_data_store();
  return root.isNull() ? kDataStoreUnavailable : root["default-level"].asInt();
}

}  // namespace kelotls
