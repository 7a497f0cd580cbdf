// What the units share and callers never see: the paths, the data store operations, the profiles.
#ifndef KELOTLS_SRC_INTERNAL_H
#define KELOTLS_SRC_INTERNAL_H

#include <json/reader.h>
#include <json/value.h>
#include <openssl/ssl.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelotls/service_desc.h"

namespace kelotls {

// Directory constants end in a slash: every file name is a plain concatenation.
constexpr char kTlsProfileDefaultsPath[] =
    "/usr/kelo/etc.defaults/security-profile/tls-profile/TLSProfile.conf";  // reserved, unused
constexpr char kDataStorePath[] = "/usr/kelo/etc/security-profile/tls-profile/datastore.json";
constexpr char kServicesDir[] = "/usr/kelo/etc/security-profile/tls-profile/services/";
constexpr char kConfigDir[] = "/usr/kelo/etc/security-profile/tls-profile/config/";
constexpr char kSystemReloaderDir[] = "/usr/libexec/security-profile/tls-profile/";
constexpr char kPackageReloaderDir[] = "/usr/local/libexec/security-profile/tls-profile/";

// Unit validator.

/// Whether there is a value and it is a string with something in it.
bool is_filled_string(const Json::Value* value);

/// Whether the value is a data store; the first fault found is logged. An entry that is not an
/// object goes straight to jsoncpp, whose exception passes through.
bool validate_data_store(const Json::Value& root);

// Unit json_file.

/// Reads files as Json::Value::fromFile does. Making jsoncpp's reader costs half as much as reading
/// a descriptor, so those who read many make one.
class JsonReader {
 public:
  JsonReader();
  bool read(const std::string& path, Json::Value& document);

 private:
  std::unique_ptr<Json::CharReader> reader_;
};

/// Appends what a regular file of bounded size holds to the text. False with errno on failure.
bool read_regular_file(const std::string& path, std::string& text);

// Unit level_scan.

/// The service's effective level, found without building the data store's tree; nothing where the
/// text is not of the ordinary form, or has no entry for the service: load_data_store and
/// lookup_service_level then say what it is. Where it gives a level they give the same.
std::optional<int> scan_service_level(std::string_view text, std::string_view name);

// Unit framework_config.

/// The service's effective level as lookup_service_level gives it, with whatever loading logs.
int load_service_level(const std::string& name);

/// The validated data store, or null once the reason is logged.
Json::Value load_data_store();

/// Replaces the data store file with the value as it stands, null included. 0, or -1 once logged.
int save_data_store(const Json::Value& root);

/// A copy of the service's entry, or null when there is none. "services" is never copied.
Json::Value get_service_entry(const Json::Value& root, const std::string& name);

/// The service's effective level (negative and unknown values included), or kServiceNotJoined once
/// logged. A level that jsoncpp cannot read as an integer raises its exception.
int lookup_service_level(const Json::Value& root, const std::string& name);

/// Sets the level of a service that has an entry. 0, or kServiceNotJoined once logged.
int update_service_level(Json::Value& root, const std::string& name, int level);

/// Sets the default level; a null root becomes an object that holds nothing else.
void update_default_level(Json::Value& root, int level);

/// Gives each service an entry built afresh from its descriptor, with the level of the entry that
/// it replaces, copied as it is, or 0. Turns a null root into an object. Always 0.
int merge_service_entries(Json::Value& root, const std::vector<ServiceDesc>& services);

// Unit profile_config.

/// What one level asks for.
struct Profile {
  decltype(SSL_CTX_get_options(nullptr)) options;
  const char* tls12_cipher_list;  // null: OpenSSL's default list stays
  const char* dh_file;            // in kDhParamDir; null: no temporary DH parameters
  const char* tier;               // the section of a configuration template
};

/// The profile of a level of 0 or above; a value that names no level is served as intermediate.
const Profile& profile_of_level(int level);

/// Gives the context the temporary DH parameters of the file. Failures are only logged: the
/// context then offers no DHE suite.
void install_dh_parameters(SSL_CTX* context, const char* dh_file);

/// Gives a resource up without releasing it. Each use is a leak that the contract asks for.
template <typename Owner>
void leak_on_purpose(Owner& owner) {
  static_cast<void>(owner.release());
}

}  // namespace kelotls

#endif
