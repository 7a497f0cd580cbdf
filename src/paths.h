// Owns where the framework's files are. Directories end in a slash: a file's path is a plain
// concatenation.
#pragma once

#include <string>

namespace kelotls {

constexpr char kTlsProfileDefaultsPath[] =
    "/usr/kelo/etc.defaults/security-profile/tls-profile/TLSProfile.conf";  // reserved, unused
constexpr char kFrameworkDir[] = "/usr/kelo/etc/security-profile/tls-profile/";
constexpr char kDataStorePath[] = "/usr/kelo/etc/security-profile/tls-profile/datastore.json";
constexpr char kServicesDir[] = "/usr/kelo/etc/security-profile/tls-profile/services/";
constexpr char kConfigDir[] = "/usr/kelo/etc/security-profile/tls-profile/config/";
constexpr char kSystemReloaderDir[] = "/usr/libexec/security-profile/tls-profile/";
constexpr char kPackageReloaderDir[] = "/usr/local/libexec/security-profile/tls-profile/";
constexpr char kDhParamDir[] = "/usr/kelo/etc/ssl/";
constexpr char kServiceFileSuffix[] = ".conf";

inline std::string service_file(const char* directory, const std::string& name) {
  return directory + name + kServiceFileSuffix;
}
inline std::string descriptor_path(const std::string& name) {
  return service_file(kServicesDir, name);
}
inline std::string rendered_path(const std::string& name) { return service_file(kConfigDir, name); }
inline std::string link_path(const std::string& name) {
  return service_file(kPackageReloaderDir, name);
}

}  // namespace kelotls
