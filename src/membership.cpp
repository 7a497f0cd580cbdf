// The operations of APIProvider that let services join and leave, and that install and remove their
// files.
#include <unistd.h>

#include <cerrno>

#include "framework_config.h"
#include "kelotls/api_provider.h"
#include "log_messages.h"
#include "paths.h"
#include "registration.h"

namespace kelotls {
namespace {

/// False once log_failure has said why the file stays.
bool remove_file(const std::string& path, void (*log_failure)(const std::string&)) {
  errno = 0;
  if (unlink(path.c_str()) == 0) {
    return true;
  }
  log_failure(path);
  return false;
}

/// Installs the files of the services, in order. False once the step that failed is logged.
bool install_files(const APIProvider& provider, const std::vector<ServiceDesc>& services,
                   std::vector<std::string>& installed) {
  for (const ServiceDesc& service : services) {
    const std::string name = service.get_service_name();
    if (provider.install_service_descriptor(name, service, installed) != 0) {
      log::descriptor_not_joined();
      return false;
    }
    if (needs_reloader_link(service) &&
        provider.install_service_reloader(name, service.get_reloader_path(), installed) != 0) {
      log::reloader_not_joined();
      return false;
    }
  }
  return true;
}

/// Removes the files of the services, in order. False once a reloader link that stays is logged.
bool uninstall_files(const APIProvider& provider, const std::vector<ServiceDesc>& services) {
  for (const ServiceDesc& service : services) {
    const std::string name = service.get_service_name();
    if (needs_reloader_link(service) && provider.uninstall_service_reloader(name) != 0) {
      log::reloader_not_left();
      return false;
    }
    if (provider.uninstall_service_descriptor(name) != 0) {
      log::descriptor_not_left();
    }
    if (service.has_mustache() && provider.cleanup_service_template(name) != 0) {
      log::rendered_file_not_left();
    }
  }
  return true;
}

void remove_entries(Json::Value& root, const std::vector<ServiceDesc>& services) {
  if (root.isNull()) {
    return;  // an unusable data store gets no "services" by losing one
  }
  Json::Value& entries = root["services"];
  for (const ServiceDesc& service : services) {
    const std::string name = service.get_service_name();
    entries.removeMember(name.data(), name.data() + name.size(), nullptr);
  }
}

}  // namespace

int APIProvider::install_service_descriptor(const std::string& name, const ServiceDesc& desc,
                                            std::vector<std::string>& installed) const {
  const std::string path = descriptor_path(name);
  const Json::Value descriptor = desc.to_json();
  errno = 0;
  // In place: every file of the directory is read as a descriptor, a temporary one too.
  if (!descriptor.toFile(path, true)) {
    log::descriptor_not_installed(path);
    return -1;
  }
  installed.push_back(path);
  return 0;
}

int APIProvider::uninstall_service_descriptor(const std::string& name) const {
  remove_file(descriptor_path(name), log::descriptor_not_removed);
  return 0;
}

int APIProvider::install_service_reloader(const std::string& name, const std::string& reloader_path,
                                          std::vector<std::string>& installed) const {
  const std::string path = link_path(name);
  errno = 0;
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    log::old_reloader_not_removed(path);
    return -1;
  }
  errno = 0;
  if (symlink(reloader_path.c_str(), path.c_str()) != 0) {
    log::reloader_not_linked(reloader_path, path);
    return -1;
  }
  installed.push_back(path);
  return 0;
}

int APIProvider::uninstall_service_reloader(const std::string& name) const {
  remove_file(link_path(name), log::reloader_link_not_removed);
  return 0;
}

int APIProvider::cleanup_service_template(const std::string& name) const {
  return remove_file(rendered_path(name), log::rendered_file_not_removed) ? 0 : -1;
}

int APIProvider::join_framework(const Json::Value& registration) const {
  if (!is_registration(registration, Purpose::kJoin)) {
    log::invalid_registration_to_join();
    return -1;
  }
  const std::vector<ServiceDesc> services = services_of(registration);
  Json::Value root = load_data_store();
  if (merge_service_entries(root, services) != 0) {
    log::services_not_merged();
    return -1;
  }
  std::vector<std::string> installed;
  if (install_files(*this, services, installed)) {
    if (save_data_store(root) == 0) {
      return 0;
    }
    log::joined_data_store_not_saved();
  }
  for (const std::string& path : installed) {  // in the order of their creation
    remove_file(path, log::installed_file_not_removed);
  }
  return -1;
}

int APIProvider::leave_framework(const Json::Value& registration) const {
  if (!is_registration(registration, Purpose::kLeave)) {
    log::invalid_registration_to_leave();
    return -1;
  }
  const std::vector<ServiceDesc> services = services_of(registration);
  Json::Value root = load_data_store();
  remove_entries(root, services);
  // First the data store: an interrupted leave may leave files without an entry, never the reverse.
  if (save_data_store(root) != 0) {
    log::left_data_store_not_saved();
    return -1;
  }
  if (!uninstall_files(*this, services)) {
    // The former levels went with the entries: all services come back at level 0.
    merge_service_entries(root, services);
    save_data_store(root);
    return -1;
  }
  return 0;
}

}  // namespace kelotls
