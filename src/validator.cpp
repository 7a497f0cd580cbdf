// Decides whether a JSON value is a data store.
#include <json/value.h>

#include "internal.h"
#include "log_messages.h"

namespace kelotls {

namespace {

const Json::Value* find_member(const Json::Value& object, const char* key, std::size_t length) {
  return object.find(key, key + length);
}

template <std::size_t Size>
const Json::Value* find_member(const Json::Value& object, const char (&key)[Size]) {
  return find_member(object, key, Size - 1);
}

bool validate_entry(const Json::Value& entry) {
  const Json::Value* const display_name = find_member(entry, "display-name");
  if (display_name == nullptr || !display_name->isString()) {
    log::no_display_name();
    return false;
  }

  // Unlike the display name, a translation key that is present may not be empty.
  const Json::Value* const i18n_name = find_member(entry, "display-name-i18n");
  if (i18n_name != nullptr && !is_filled_string(i18n_name)) {
    log::bad_i18n_display_name();
    return false;
  }

  const Json::Value* const level = find_member(entry, "current-level");
  if (level != nullptr && !level->isInt()) {
    log::bad_current_level();
    return false;
  }
  return true;
}

}  // namespace

bool is_filled_string(const Json::Value* value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  return value != nullptr && value->getString(&begin, &end) && begin != end;
}

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

  for (const Json::Value& entry : services) {
    if (!validate_entry(entry)) {
      return false;
    }
  }
  return true;
}

}  // namespace kelotls
