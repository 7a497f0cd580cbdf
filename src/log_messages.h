// Every line that the library writes to the system log: one function a message, in order of unit
// and number. The numbers are identities like error codes: frozen, unique within their unit.
#ifndef KELOTLS_SRC_LOG_MESSAGES_H
#define KELOTLS_SRC_LOG_MESSAGES_H

#include <string>

// A function whose message carries errno copies it before anything else can change it.
namespace kelotls::log {

// validator
void no_default_level();
void no_services_field();
void no_display_name();
void bad_i18n_display_name();
void bad_current_level();

// framework_config
void data_store_not_loaded(const std::string& path);
void data_store_invalid(const std::string& path);
void data_store_not_saved(const std::string& path);
void lookup_of_unjoined_service(const std::string& name);
void update_of_unjoined_service(const std::string& name);

// profile_config
void dh_file_not_opened(const std::string& path);
void dh_parameters_unreadable(const std::string& reasons);

// api_provider
void no_memory_bio();
void openssl_failure(const char* message, const char* reasons);

}  // namespace kelotls::log

#endif
