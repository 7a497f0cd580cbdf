// The data store as a command sees it, read through the library.
#ifndef KELOTLSCTL_STORE_H
#define KELOTLSCTL_STORE_H

#include <json/value.h>

#include <string>

#include "failure.h"

namespace kelotlsctl {

struct Store {
  int default_level = 0;
  Json::Value services;  ///< name → entry

  bool has(const std::string& service) const { return services.isMember(service); }
  /// 0, follow the default, where the entry names none.
  int stored_level(const std::string& service) const;
  int effective_level(const std::string& service) const;
};

enum class StoreCondition { kUsable, kMissing, kUnreadable };

/// Tries to load the data store; the library logs what it does not like.
StoreCondition try_store(Store& store);

/// The data store. A Failure (data store unreadable) that names the way back when the library
/// cannot use it: most of its operations would then overwrite it with less.
Store load_store();

/// The Failure that load_store throws.
Failure unreadable_store();

/// A Failure (no such service) unless the service has joined.
void require_service(const Store& store, const std::string& service);

/// The text of a data store without services.
std::string empty_store_text(int default_level);

}  // namespace kelotlsctl

#endif
