// Where the framework's files lie. The library keeps its own copy private; tests hold the two
// against each other.
#ifndef KELOTLSCTL_PATHS_H
#define KELOTLSCTL_PATHS_H

#include <string>

namespace kelotlsctl {

constexpr char kFrameworkDir[] = "/usr/kelo/etc/security-profile/tls-profile/";
constexpr char kDataStorePath[] = "/usr/kelo/etc/security-profile/tls-profile/datastore.json";
constexpr char kStampPath[] = "/usr/kelo/etc/security-profile/tls-profile/reloaded.json";
constexpr char kServicesDir[] = "/usr/kelo/etc/security-profile/tls-profile/services/";
constexpr char kConfigDir[] = "/usr/kelo/etc/security-profile/tls-profile/config/";
constexpr char kSystemReloaderDir[] = "/usr/libexec/security-profile/tls-profile/";
constexpr char kPackageReloaderDir[] = "/usr/local/libexec/security-profile/tls-profile/";
constexpr char kDhParamDir[] = "/usr/kelo/etc/ssl/";

constexpr char kServiceFileSuffix[] = ".conf";

inline std::string descriptor_path(const std::string& service) {
  return kServicesDir + service + kServiceFileSuffix;
}
inline std::string rendered_path(const std::string& service) {
  return kConfigDir + service + kServiceFileSuffix;
}
inline std::string link_path(const std::string& service) {
  return kPackageReloaderDir + service + kServiceFileSuffix;
}

}  // namespace kelotlsctl

#endif
