// Owns how levels are taken from a saved data store.
#include <cerrno>

#include "framework_config.h"
#include "kelotls/api_provider.h"
#include "kelotls/tls_profile_level.h"
#include "log_messages.h"
#include "paths.h"

namespace kelotls {

namespace {

/// The data store in a saved file, or null once the reason is logged. The lines name the live data
/// store, so that they read like those of its own loading.
Json::Value load_saved_file(const std::string& path) {
  Json::Value saved;
  errno = 0;
  if (!saved.fromFile(path)) {
    log::saved_file_not_loaded(kDataStorePath);
    return Json::Value();
  }
  if (!validate_data_store(saved)) {
    log::saved_file_invalid(kDataStorePath);
    return Json::Value();
  }
  return saved;
}

/// The level that a saved entry asks for, or kServiceNotJoined once logged.
int saved_level(const Json::Value& saved, const std::string& name) {
  const Json::Value entry = get_service_entry(saved, name);
  if (entry.isNull()) {
    log::saved_service_without_entry(name);
    return kServiceNotJoined;
  }
  return entry["current-level"].asInt();
}

}  // namespace

void restore_levels(Json::Value& live, const Json::Value& saved) {
  update_default_level(live, saved["default-level"].asInt());

  const Json::Value& saved_services = saved["services"];
  for (auto service = saved_services.begin(); service != saved_services.end(); ++service) {
    const std::string name = service.name();
    if (get_service_entry(live, name).isNull()) {
      log::saved_service_not_live(name);
      continue;
    }
    update_service_level(live, name, saved_level(saved, name));
  }
}

int APIProvider::restore_framework(const std::string& path) const {
  Json::Value live = load_data_store();
  restore_levels(live, load_saved_file(path));
  save_data_store(live);
  return 0;
}

}  // namespace kelotls
