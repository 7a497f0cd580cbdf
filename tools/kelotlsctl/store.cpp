#include "store.h"

#include <kelotls/data_store_provider.h>

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "console.h"
#include "files.h"
#include "json_text.h"
#include "paths.h"

namespace kelotlsctl {

namespace {

/// Whether services joined here once: then the data store was lost, not yet to be made.
bool has_descriptors() {
  std::vector<std::string> names;
  return list_folder(kServicesDir, names) && !names.empty();
}

}  // namespace

int Store::stored_level(const std::string& service) const {
  return services[service]["current-level"].asInt();
}

int Store::effective_level(const std::string& service) const {
  const int stored = stored_level(service);
  return stored != 0 ? stored : default_level;
}

StoreCondition try_store(Store& store) {
  if (!stands_at(kDataStorePath)) {
    return StoreCondition::kMissing;
  }
  try {
    const kelotls::DataStoreProvider provider;
    store.services = provider.list_services();
    if (store.services.isNull()) {
      return StoreCondition::kUnreadable;
    }
    store.default_level = provider.get_default_level();
  } catch (const Json::Exception&) {
    // An entry that is no object, a default level that is no integer: no operation gets past it.
    return StoreCondition::kUnreadable;
  }
  return StoreCondition::kUsable;
}

Failure unreadable_store() {
  const std::string path = kDataStorePath;
  if (stands_at(kDataStorePath) && ::access(kDataStorePath, R_OK) != 0 && errno == EACCES) {
    return {kStoreUnreadable, "the data store " + path + " may not be read",
            "Nothing was written. Ask for it as root; should root be refused: kelotlsctl recover"};
  }
  if (stands_at(kDataStorePath)) {
    return {kStoreUnreadable, "the data store " + path + " cannot be used",
            "Nothing was written. The way back: kelotlsctl recover [--from BACKUP]"};
  }
  if (has_descriptors()) {
    return {kStoreUnreadable, "the data store " + path + " is missing",
            "Services have joined before. The way back: kelotlsctl recover [--from BACKUP]"};
  }
  return {kStoreUnreadable, "there is no data store " + path,
          "On a fresh appliance make the first one: kelotlsctl init"};
}

Store load_store() {
  Store store;
  if (try_store(store) != StoreCondition::kUsable) {
    throw unreadable_store();
  }
  return store;
}

void require_service(const Store& store, const std::string& service) {
  if (!store.has(service)) {
    throw Failure(kNoSuchService, "no service \"" + printable(service) + "\" has joined",
                  "kelotlsctl list shows those that have.");
  }
}

std::string empty_store_text(int default_level) {
  Json::Value store(Json::objectValue);
  store["default-level"] = default_level;
  store["services"] = Json::Value(Json::objectValue);
  return json_text(store);
}

}  // namespace kelotlsctl
