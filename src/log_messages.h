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
void saved_file_not_loaded(const std::string& path);
void saved_file_invalid(const std::string& path);
void saved_service_without_entry(const std::string& name);
void saved_service_not_live(const std::string& name);

// profile_config
void dh_file_not_opened(const std::string& path);
void dh_parameters_unreadable(const std::string& reasons);

// api_provider
void invalid_registration_to_join();
void services_not_merged();
void descriptor_not_joined();
void reloader_not_joined();
void joined_data_store_not_saved();
void installed_file_not_removed(const std::string& path);
void invalid_registration_to_leave();
void left_data_store_not_saved();
void reloader_not_left();
void descriptor_not_left();
void rendered_file_not_left();
void descriptor_not_read(const std::string& path);
void no_level_to_render();
void temporary_file_not_made();
void template_not_rendered(const std::string& output_path);
void rendered_file_not_renamed(const char* temporary_path);
void rendered_file_not_removed(const std::string& path);
void descriptor_not_installed(const std::string& path);
void descriptor_not_removed(const std::string& path);
void old_reloader_not_removed(const std::string& link_path);
void reloader_not_linked(const std::string& reloader_path, const std::string& link_path);
void reloader_link_not_removed(const std::string& link_path);
void reloaders_not_listed(const std::string& directory);
void reloader_not_run(const std::string& path);
void reloader_failed(int status, const std::string& path);
void descriptors_not_listed(const std::string& directory);
void descriptor_not_loaded(const std::string& entry_name);
void regenerated_data_store_not_saved();
void no_memory_bio();
void openssl_failure(const char* message, const char* reasons);

}  // namespace kelotls::log

#endif
