// Every line that the library writes to the system log: one function a message, in order of unit
// and number. The numbers are identities like error codes: frozen, unique within their unit. No
// other code knows the text of a line.
#pragma once

#include <cerrno>
#include <string>

namespace kelotls::log {

/// Is given each line before it goes to the system log, and decides whether it goes there.
using Observer = bool (*)(const char* line);

/// Sets the process's one observer; null for none, as at the start. Not for several threads.
void observe(Observer observer);

/// Every line goes through here. "%m" is the text of errno as it was at the call.
__attribute__((format(printf, 1, 2))) void write_line(const char* format, ...);

// validator
inline void no_default_level() { write_line("validator.cpp:11 Invalid format: no default-level"); }
inline void no_services_field() {
  write_line("validator.cpp:15 Invalid format: no services field.");
}
inline void no_display_name() { write_line("validator.cpp:23 Invalid format: no display-name."); }
inline void bad_i18n_display_name() {
  write_line("validator.cpp:29 Invalid format: incorrect type of display-name-i18n.");
}
inline void bad_current_level() {
  write_line("validator.cpp:35 Invalid format: no current-level.");
}

// framework_config
inline void data_store_not_loaded(const std::string& path) {
  write_line("framework_config.cpp:16 Load json data failed. [%m] %s", path.c_str());
}
inline void data_store_invalid(const std::string& path) {
  write_line("framework_config.cpp:23 Json format invalid. %s", path.c_str());
}
inline void data_store_not_saved(const std::string& path) {
  write_line("framework_config.cpp:55 Write json data failed. [%m] %s", path.c_str());
}
inline void lookup_of_unjoined_service(const std::string& name) {
  write_line("framework_config.cpp:123 Service is not joined framework. %s", name.c_str());
}
inline void update_of_unjoined_service(const std::string& name) {
  write_line("framework_config.cpp:151 Service is not joined framework. %s", name.c_str());
}
inline void saved_file_not_loaded(const std::string& path) {
  write_line("framework_config.cpp:171 Load json data failed. [%m] %s", path.c_str());
}
inline void saved_file_invalid(const std::string& path) {
  write_line("framework_config.cpp:176 Json format invalid. %s", path.c_str());
}
inline void saved_service_without_entry(const std::string& name) {
  write_line("framework_config.cpp:196 Service is not joined framework. %s", name.c_str());
}

// The one message without a prefix.
inline void saved_service_not_live(const std::string& name) {
  write_line("service entry not found. %s", name.c_str());
}

// profile_config
inline void dh_file_not_opened(const std::string& path) {
  write_line("profile_config.cpp:83 Open dhparam file failed. [%d][%m]: %s", errno, path.c_str());
}
inline void dh_parameters_unreadable(const std::string& reasons) {
  write_line("profile_config.cpp:95 New ssl ctx failed. [%s]", reasons.c_str());
}

// api_provider
inline void invalid_registration_to_join() {
  write_line("api_provider.cpp:52 Invalid registration config.");
}
inline void services_not_merged() { write_line("api_provider.cpp:71 Install service failed."); }
inline void descriptor_not_joined() {
  write_line("api_provider.cpp:80 Install service descriptor failed.");
}
inline void reloader_not_joined() {
  write_line("api_provider.cpp:88 Install service reloader failed.");
}
inline void joined_data_store_not_saved() {
  write_line("api_provider.cpp:97 Saving to framework config failed.");
}
inline void installed_file_not_removed(const std::string& path) {
  write_line("api_provider.cpp:108 Fallback installed file failed.. [%d][%m]: %s", errno,
             path.c_str());
}
inline void invalid_registration_to_leave() {
  write_line("api_provider.cpp:120 Invalid registration config.");
}
inline void left_data_store_not_saved() {
  write_line("api_provider.cpp:139 Save service config failed.");
}
inline void reloader_not_left() {
  write_line("api_provider.cpp:148 Unregister service reloader failed.");
}
inline void descriptor_not_left() {
  write_line("api_provider.cpp:156 Uninstall service desc failed.");
}
inline void rendered_file_not_left() {
  write_line("api_provider.cpp:161 Cleanup service template failed.");
}
inline void descriptor_not_read(const std::string& path) {
  write_line("api_provider.cpp:184 Read service descriptor failed. [%d][%m] %s", errno,
             path.c_str());
}
inline void no_level_to_render() { write_line("api_provider.cpp:195 Get service level failed."); }
inline void temporary_file_not_made() {
  write_line("api_provider.cpp:213 Failed to mkstemp. [%m]");
}
inline void template_not_rendered(const std::string& output_path) {
  write_line("api_provider.cpp:220 Failed to update %s", output_path.c_str());
}
inline void rendered_file_not_renamed(const char* temporary_path) {
  write_line("api_provider.cpp:226 Failed to rename  %s [%m]", temporary_path);
}
inline void rendered_file_not_removed(const std::string& path) {
  write_line("api_provider.cpp:241 cleanup render path failed. [%d][%m]: %s", errno, path.c_str());
}
inline void descriptor_not_installed(const std::string& path) {
  write_line("api_provider.cpp:271 Install service desc failed. [%d][%m]: %s", errno, path.c_str());
}
inline void descriptor_not_removed(const std::string& path) {
  write_line("api_provider.cpp:286 Uninstall service desc failed. [%d][%m]: %s", errno,
             path.c_str());
}
inline void old_reloader_not_removed(const std::string& link_path) {
  write_line("api_provider.cpp:299 Unlink service reloader failed. [%d][%m]: %s", errno,
             link_path.c_str());
}
inline void reloader_not_linked(const std::string& reloader_path, const std::string& link_path) {
  write_line("api_provider.cpp:305 Install service reloader failed. [%d][%m]: %s -> %s", errno,
             reloader_path.c_str(), link_path.c_str());
}
inline void reloader_link_not_removed(const std::string& link_path) {
  write_line("api_provider.cpp:319 uninstall service reloader failed. [%d][%m]: %s", errno,
             link_path.c_str());
}
inline void reloaders_not_listed(const std::string& directory) {
  write_line("api_provider.cpp:332 Fail to list dir %s", directory.c_str());
}
inline void reloader_not_run(const std::string& path) {
  write_line("api_provider.cpp:346 KLIBCExec failed. [%d][%m]: %s", errno, path.c_str());
}
inline void reloader_failed(int status, const std::string& path) {
  write_line("api_provider.cpp:349 Reload service return error code. [%d]: %s", status,
             path.c_str());
}
inline void descriptors_not_listed(const std::string& directory) {
  write_line("api_provider.cpp:364 Fail to list dir %s", directory.c_str());
}
inline void descriptor_not_loaded(const std::string& entry_name) {
  write_line("api_provider.cpp:376 Load json data failed. [%d][%m] %s", errno, entry_name.c_str());
}
inline void regenerated_data_store_not_saved() {
  write_line("api_provider.cpp:390 Regen framework config failed.");
}
inline void no_memory_bio() { write_line("api_provider.cpp:402 Fatal Error. new bio failed."); }
inline void openssl_failure(const char* message, const char* reasons) {
  write_line("api_provider.cpp:409 %s. [%s]", message, reasons);
}

}  // namespace kelotls::log
