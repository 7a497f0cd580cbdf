// Owns every line that goes to the system log, one function a message, in order of unit and number.
// The numbers are identities: frozen, unique within their unit. No other code knows a line's text.
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

// The function of a message of its text alone, on a name or a path, or with errno's number before.
#define LINE(function, format) \
  inline void function() { write_line(format); }
#define LINE_ON(function, format) \
  inline void function(const std::string& subject) { write_line(format, subject.c_str()); }
#define LINE_ERRNO(function, format) \
  inline void function(const std::string& subject) { write_line(format, errno, subject.c_str()); }

// validator
LINE(no_default_level, "validator.cpp:11 Invalid format: no default-level")
LINE(no_services_field, "validator.cpp:15 Invalid format: no services field.")
LINE(no_display_name, "validator.cpp:23 Invalid format: no display-name.")
LINE(bad_i18n_display_name, "validator.cpp:29 Invalid format: incorrect type of display-name-i18n.")
LINE(bad_current_level, "validator.cpp:35 Invalid format: no current-level.")

// framework_config
LINE_ON(data_store_not_loaded, "framework_config.cpp:16 Load json data failed. [%m] %s")
LINE_ON(data_store_invalid, "framework_config.cpp:23 Json format invalid. %s")
LINE_ON(data_store_not_saved, "framework_config.cpp:55 Write json data failed. [%m] %s")
LINE_ON(lookup_of_unjoined_service, "framework_config.cpp:123 Service is not joined framework. %s")
LINE_ON(update_of_unjoined_service, "framework_config.cpp:151 Service is not joined framework. %s")
LINE_ON(saved_file_not_loaded, "framework_config.cpp:171 Load json data failed. [%m] %s")
LINE_ON(saved_file_invalid, "framework_config.cpp:176 Json format invalid. %s")
LINE_ON(saved_service_without_entry, "framework_config.cpp:196 Service is not joined framework. %s")
LINE_ON(saved_service_not_live, "service entry not found. %s")  // the one without a prefix

// profile_config
LINE_ERRNO(dh_file_not_opened, "profile_config.cpp:83 Open dhparam file failed. [%d][%m]: %s")
LINE_ON(dh_parameters_unreadable, "profile_config.cpp:95 New ssl ctx failed. [%s]")

// api_provider
LINE(invalid_registration_to_join, "api_provider.cpp:52 Invalid registration config.")
LINE(services_not_merged, "api_provider.cpp:71 Install service failed.")
LINE(descriptor_not_joined, "api_provider.cpp:80 Install service descriptor failed.")
LINE(reloader_not_joined, "api_provider.cpp:88 Install service reloader failed.")
LINE(joined_data_store_not_saved, "api_provider.cpp:97 Saving to framework config failed.")
LINE_ERRNO(installed_file_not_removed,
           "api_provider.cpp:108 Fallback installed file failed.. [%d][%m]: %s")
LINE(invalid_registration_to_leave, "api_provider.cpp:120 Invalid registration config.")
LINE(left_data_store_not_saved, "api_provider.cpp:139 Save service config failed.")
LINE(reloader_not_left, "api_provider.cpp:148 Unregister service reloader failed.")
LINE(descriptor_not_left, "api_provider.cpp:156 Uninstall service desc failed.")
LINE(rendered_file_not_left, "api_provider.cpp:161 Cleanup service template failed.")
LINE_ERRNO(descriptor_not_read, "api_provider.cpp:184 Read service descriptor failed. [%d][%m] %s")
LINE(no_level_to_render, "api_provider.cpp:195 Get service level failed.")
LINE(temporary_file_not_made, "api_provider.cpp:213 Failed to mkstemp. [%m]")
LINE_ON(template_not_rendered, "api_provider.cpp:220 Failed to update %s")
LINE_ON(rendered_file_not_renamed, "api_provider.cpp:226 Failed to rename  %s [%m]")
LINE_ERRNO(rendered_file_not_removed,
           "api_provider.cpp:241 cleanup render path failed. [%d][%m]: %s")
LINE_ERRNO(descriptor_not_installed,
           "api_provider.cpp:271 Install service desc failed. [%d][%m]: %s")
LINE_ERRNO(descriptor_not_removed,
           "api_provider.cpp:286 Uninstall service desc failed. [%d][%m]: %s")
LINE_ERRNO(old_reloader_not_removed,
           "api_provider.cpp:299 Unlink service reloader failed. [%d][%m]: %s")
inline void reloader_not_linked(const std::string& reloader_path, const std::string& link_path) {
  write_line("api_provider.cpp:305 Install service reloader failed. [%d][%m]: %s -> %s", errno,
             reloader_path.c_str(), link_path.c_str());
}
LINE_ERRNO(reloader_link_not_removed,
           "api_provider.cpp:319 uninstall service reloader failed. [%d][%m]: %s")
LINE_ON(reloaders_not_listed, "api_provider.cpp:332 Fail to list dir %s")
LINE_ERRNO(reloader_not_run, "api_provider.cpp:346 KLIBCExec failed. [%d][%m]: %s")
inline void reloader_failed(int status, const std::string& path) {
  write_line("api_provider.cpp:349 Reload service return error code. [%d]: %s", status,
             path.c_str());
}
LINE_ON(descriptors_not_listed, "api_provider.cpp:364 Fail to list dir %s")
LINE_ERRNO(descriptor_not_loaded, "api_provider.cpp:376 Load json data failed. [%d][%m] %s")
LINE(regenerated_data_store_not_saved, "api_provider.cpp:390 Regen framework config failed.")
LINE(no_memory_bio, "api_provider.cpp:402 Fatal Error. new bio failed.")
inline void openssl_failure(const char* message, const char* reasons) {
  write_line("api_provider.cpp:409 %s. [%s]", message, reasons);
}

#undef LINE
#undef LINE_ON
#undef LINE_ERRNO

}  // namespace kelotls::log
