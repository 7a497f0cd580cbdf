// Reading and changing levels in the data store.
#ifndef KELOTLS_DATA_STORE_PROVIDER_H
#define KELOTLS_DATA_STORE_PROVIDER_H

#include <json/value.h>
#include <kelotls/tls_profile_level.h>

#include <string>

namespace kelotls {

/// Each operation loads /usr/kelo/etc/security-profile/tls-profile/datastore.json afresh, and a
/// setter writes it back, atomically. Holds no state and takes no lock: make one whenever you need
/// one; of two setters at the same moment the later save wins, so callers serialise their changes.
///
/// A change reaches a service with its next server context. Its rendered configuration and its
/// reloader are separate calls of APIProvider.
///
/// All operations log why the data store could not be used, and pass through std::bad_alloc and
/// jsoncpp's exceptions: for a service entry that is no object, a level that is no integer.
class __attribute__((visibility("default"))) DataStoreProvider {
 public:
  /// Stores the level, unchecked, for a service that has an entry. The save happens in every case:
  /// 0 says that the file was written, not that the level was set; -1 that it was not written.
  /// Only logged: a service without an entry; the file is then rewritten as it was.
  /// Beware: over a data store that is missing or unusable this writes null.
  int set_service_level(const std::string& name, TlsProfileLevel level);

  /// The service's effective level: its own, or the default where that is 0; kServiceNotJoined
  /// without an entry (logged); kDataStoreUnavailable without a usable data store.
  int get_service_level(const std::string& name) const;

  /// A copy of the data store's "services" object, one member per service; null without a usable
  /// data store.
  Json::Value list_services() const;

  /// Stores the default level, unchecked. Only logged: a write that fails.
  /// Beware: over a data store that is missing or unusable this writes the default level alone,
  /// which the next load refuses.
  void set_default_level(TlsProfileLevel level);

  /// The default level as stored, 0 included; kDataStoreUnavailable without a usable data store.
  int get_default_level() const;
};

}  // namespace kelotls

#endif
