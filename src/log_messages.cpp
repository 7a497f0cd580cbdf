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

void no_memory_bio() { syslog(LOG_ERR, "%s:%d Fatal Error. new bio failed.", kApiProvider, 402); }

void openssl_failure(const char* message, const char* reasons) {
  syslog(LOG_ERR, "%s:%d %s. [%s]", kApiProvider, 409, message, reasons);
}

}  // namespace kelotls::log
