// Decides whether a JSON value is a data store.
#include "framework_config.h"

#include "json_document.h"
#include "log_messages.h"

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
  if (broken == nullptr) {
    return true;
  }
  static_cast<void>(entry.isMember(""));  // jsoncpp raises its exception for what is no object
  constexpr void (*kLines[])() = {log::no_display_name, log::bad_i18n_display_name,
                                  log::bad_current_level};
  kLines[broken - kEntry]();
  return false;
}

}  // namespace

bool validate_data_store(const Json::Value& root) {
  // The type of "default-level" is not looked at; its readers meet jsoncpp's exception.
  if (!root.isObject() || !root.isMember("default-level")) {
    log::no_default_level();
    return false;
  }

  const Json::Value& services = root["services"];
  if (!services.isObject()) {
    log::no_services_field();
    return false;
  }

  for (const Json::Value& entry : services) {
    if (!validate_entry(entry)) {
      return false;
    }
  }
  return true;
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

}  // namespace kelotls
