// Every line that the library writes to the system log, format and number.
#include "log_messages.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>

namespace kelotls::log {

namespace {

constexpr char kValidator[] = "validator.cpp";
constexpr char kFrameworkConfig[] = "framework_config.cpp";
constexpr char kProfileConfig[] = "profile_config.cpp";
constexpr char kApiProvider[] = "api_provider.cpp";

}  // namespace

// validator

void no_default_level() {
  syslog(LOG_ERR, "%s:%d Invalid format: no default-level", kValidator, 11);
}

void no_services_field() {
  syslog(LOG_ERR, "%s:%d Invalid format: no services field.", kValidator, 15);
}

void no_display_name() {
  syslog(LOG_ERR, "%s:%d Invalid format: no display-name.", kValidator, 23);
}

void bad_i18n_display_name() {
  syslog(LOG_ERR, "%s:%d Invalid format: incorrect type of display-name-i18n.", kValidator, 29);
}

void bad_current_level() {
  syslog(LOG_ERR, "%s:%d Invalid format: no current-level.", kValidator, 35);
}

// framework_config

void data_store_not_loaded(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Load json data failed. [%s] %s", kFrameworkConfig, 16,
         std::strerror(error), path.c_str());
}

void data_store_invalid(const std::string& path) {
  syslog(LOG_ERR, "%s:%d Json format invalid. %s", kFrameworkConfig, 23, path.c_str());
}

void data_store_not_saved(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Write json data failed. [%s] %s", kFrameworkConfig, 55,
         std::strerror(error), path.c_str());
}

void lookup_of_unjoined_service(const std::string& name) {
  syslog(LOG_ERR, "%s:%d Service is not joined framework. %s", kFrameworkConfig, 123, name.c_str());
}

void update_of_unjoined_service(const std::string& name) {
  syslog(LOG_ERR, "%s:%d Service is not joined framework. %s", kFrameworkConfig, 151, name.c_str());
}

void saved_file_not_loaded(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Load json data failed. [%s] %s", kFrameworkConfig, 171,
         std::strerror(error), path.c_str());
}

void saved_file_invalid(const std::string& path) {
  syslog(LOG_ERR, "%s:%d Json format invalid. %s", kFrameworkConfig, 176, path.c_str());
}

void saved_service_without_entry(const std::string& name) {
  syslog(LOG_ERR, "%s:%d Service is not joined framework. %s", kFrameworkConfig, 196, name.c_str());
}

// The one message without a prefix.
void saved_service_not_live(const std::string& name) {
  syslog(LOG_ERR, "service entry not found. %s", name.c_str());
}

// profile_config

void dh_file_not_opened(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Open dhparam file failed. [%d][%s]: %s", kProfileConfig, 83, error,
         std::strerror(error), path.c_str());
}

void dh_parameters_unreadable(const std::string& reasons) {
  syslog(LOG_ERR, "%s:%d New ssl ctx failed. [%s]", kProfileConfig, 95, reasons.c_str());
}

// api_provider

void invalid_registration_to_join() {
  syslog(LOG_ERR, "%s:%d Invalid registration config.", kApiProvider, 52);
}

void services_not_merged() { syslog(LOG_ERR, "%s:%d Install service failed.", kApiProvider, 71); }

void descriptor_not_joined() {
  syslog(LOG_ERR, "%s:%d Install service descriptor failed.", kApiProvider, 80);
}

void reloader_not_joined() {
  syslog(LOG_ERR, "%s:%d Install service reloader failed.", kApiProvider, 88);
}

void joined_data_store_not_saved() {
  syslog(LOG_ERR, "%s:%d Saving to framework config failed.", kApiProvider, 97);
}

void installed_file_not_removed(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Fallback installed file failed.. [%d][%s]: %s", kApiProvider, 108, error,
         std::strerror(error), path.c_str());
}

void invalid_registration_to_leave() {
  syslog(LOG_ERR, "%s:%d Invalid registration config.", kApiProvider, 120);
}

void left_data_store_not_saved() {
  syslog(LOG_ERR, "%s:%d Save service config failed.", kApiProvider, 139);
}

void reloader_not_left() {
  syslog(LOG_ERR, "%s:%d Unregister service reloader failed.", kApiProvider, 148);
}

void descriptor_not_left() {
  syslog(LOG_ERR, "%s:%d Uninstall service desc failed.", kApiProvider, 156);
}

void rendered_file_not_left() {
  syslog(LOG_ERR, "%s:%d Cleanup service template failed.", kApiProvider, 161);
}

void descriptor_not_read(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Read service descriptor failed. [%d][%s] %s", kApiProvider, 184, error,
         std::strerror(error), path.c_str());
}

void no_level_to_render() { syslog(LOG_ERR, "%s:%d Get service level failed.", kApiProvider, 195); }

void temporary_file_not_made() {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Failed to mkstemp. [%s]", kApiProvider, 213, std::strerror(error));
}

void template_not_rendered(const std::string& output_path) {
  syslog(LOG_ERR, "%s:%d Failed to update %s", kApiProvider, 220, output_path.c_str());
}

void rendered_file_not_renamed(const char* temporary_path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Failed to rename  %s [%s]", kApiProvider, 226, temporary_path,
         std::strerror(error));
}

void rendered_file_not_removed(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d cleanup render path failed. [%d][%s]: %s", kApiProvider, 241, error,
         std::strerror(error), path.c_str());
}

void descriptor_not_installed(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Install service desc failed. [%d][%s]: %s", kApiProvider, 271, error,
         std::strerror(error), path.c_str());
}

void descriptor_not_removed(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Uninstall service desc failed. [%d][%s]: %s", kApiProvider, 286, error,
         std::strerror(error), path.c_str());
}

void old_reloader_not_removed(const std::string& link_path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Unlink service reloader failed. [%d][%s]: %s", kApiProvider, 299, error,
         std::strerror(error), link_path.c_str());
}

void reloader_not_linked(const std::string& reloader_path, const std::string& link_path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Install service reloader failed. [%d][%s]: %s -> %s", kApiProvider, 305,
         error, std::strerror(error), reloader_path.c_str(), link_path.c_str());
}

void reloader_link_not_removed(const std::string& link_path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d uninstall service reloader failed. [%d][%s]: %s", kApiProvider, 319, error,
         std::strerror(error), link_path.c_str());
}

void reloaders_not_listed(const std::string& directory) {
  syslog(LOG_ERR, "%s:%d Fail to list dir %s", kApiProvider, 332, directory.c_str());
}

void reloader_not_run(const std::string& path) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d KLIBCExec failed. [%d][%s]: %s", kApiProvider, 346, error,
         std::strerror(error), path.c_str());
}

void reloader_failed(int status, const std::string& path) {
  syslog(LOG_ERR, "%s:%d Reload service return error code. [%d]: %s", kApiProvider, 349, status,
         path.c_str());
}

void descriptors_not_listed(const std::string& directory) {
  syslog(LOG_ERR, "%s:%d Fail to list dir %s", kApiProvider, 364, directory.c_str());
}

void descriptor_not_loaded(const std::string& entry_name) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d Load json data failed. [%d][%s] %s", kApiProvider, 376, error,
         std::strerror(error), entry_name.c_str());
}

void regenerated_data_store_not_saved() {
  syslog(LOG_ERR, "%s:%d Regen framework config failed.", kApiProvider, 390);
}

void no_memory_bio() { syslog(LOG_ERR, "%s:%d Fatal Error. new bio failed.", kApiProvider, 402); }

void openssl_failure(const char* message, const char* reasons) {
  syslog(LOG_ERR, "%s:%d %s. [%s]", kApiProvider, 409, message, reasons);
}

}  // namespace kelotls::log
