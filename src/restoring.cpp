// Owns how levels are taken from a saved data store.
#include "framework_config.h"
#include "kelotls/api_provider.h"
#include "kelotls/tls_profile_level.h"
#include "log_messages.h"

namespace kelotls {

void restore_levels(Json::Value& live, const Json::Value& saved) {
  live["default-level"] = saved["default-level"].asInt();
  const Json::Value& services = saved["services"];
  for (auto service = services.begin(); service != services.end(); ++service) {
    const std::string name = service.name();
    if (get_service_entry(live, name).isNull()) {
      log::saved_service_not_live(name);
    } else if (service->isNull()) {
      log::saved_service_without_entry(name);
      update_service_level(live, name, kServiceNotJoined);
    } else {
      update_service_level(live, name, (*service)["current-level"].asInt());
    }
  }
}

int APIProvider::restore_framework(const std::string& path) const {
  Json::Value live = load_data_store();
  // The lines on the saved file name the live one: they read like those of its own loading.
  restore_levels(live, load_data_store(path, log::saved_file_not_loaded, log::saved_file_invalid));
  save_data_store(live);
  return 0;
}

}  // namespace kelotls
