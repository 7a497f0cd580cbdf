// The operations of DataStoreProvider: one load, at most one change, at most one save each.
#include "kelotls/data_store_provider.h"

#include <utility>

#include "framework_config.h"

namespace kelotls {

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
  update_default_level(root, level);
  save_data_store(root);
}

int DataStoreProvider::get_default_level() const {
  const Json::Value root = load_data_store();
  return root.isNull() ? kDataStoreUnavailable : root["default-level"].asInt();
}

}  // namespace kelotls
