// The record of one service, and its JSON form.
#include "kelotls/service_desc.h"

namespace kelotls {

ServiceDesc::ServiceDesc() : system_service_(false) {}
std::string ServiceDesc::get_service_name() const { return service_name_; }
bool ServiceDesc::is_system_service() const { return system_service_; }
void ServiceDesc::set_system_service() { system_service_ = true; }
std::string ServiceDesc::get_display_name() const { return display_name_; }
std::string ServiceDesc::get_i18n_display_name() const { return i18n_display_name_; }
bool ServiceDesc::has_i18n_display_name() const { return !i18n_display_name_.empty(); }
std::string ServiceDesc::get_reloader_path() const { return reloader_path_; }
bool ServiceDesc::has_reloader() const { return !reloader_path_.empty(); }
std::string ServiceDesc::get_mustahce_path() const { return mustache_path_; }
bool ServiceDesc::has_mustache() const { return !mustache_path_.empty(); }

Json::Value ServiceDesc::to_json() const {
  Json::Value value;
  value["service"] = service_name_;
  value["display-name"] = display_name_;
  if (has_i18n_display_name()) {
    value["display-name-i18n"] = i18n_display_name_;
  }
  if (has_mustache()) {
    value["mustache-path"] = mustache_path_;
  }
  if (has_reloader()) {
    value["reloader-path"] = reloader_path_;
  }
  return value;
}

int ServiceDesc::from_json(const Json::Value& value) {
  service_name_ = value["service"].asString();
  display_name_ = value["display-name"].asString();
  i18n_display_name_ = value["display-name-i18n"].asString();
  mustache_path_ = value["mustache-path"].asString();
  reloader_path_ = value["reloader-path"].asString();
  return 0;
}

}  // namespace kelotls
