// The operations of APIProvider, and the C functions that wrap two of them.
#include "kelotls/api_provider.h"

#include <openssl/bio.h>
#include <openssl/err.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "internal.h"
#include "kelocore.h"
#include "kelomustache.h"
#include "kelotls/server_context.h"
#include "log_messages.h"

namespace kelotls {

namespace {

// AES-128 first, unlike OpenSSL's own order.
constexpr char TLS13_CIPHERSUITES[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr char SERVER_GROUPS[] = "prime256v1:secp384r1:secp521r1";

struct ContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct NamesFree {
  void operator()(KLIBCSzList* names) const { KLIBCSzListFree(names); }
};
using Names = std::unique_ptr<KLIBCSzList, NamesFree>;

// Server contexts

/// Logs that an OpenSSL call failed. The queue is cleared before it is printed, so the reasons
/// never show and the bracket holds "(null)"; deliberate, the line is part of the contract.
void log_openssl_error(const char* message) {
  ERR_clear_error();
  const std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr) {
    log::no_memory_bio();
    return;
  }
  ERR_print_errors(bio.get());
  char* reasons = nullptr;
  BIO_get_mem_data(bio.get(), &reasons);
  log::openssl_failure(message, reasons != nullptr ? reasons : "(null)");
}

/// Sets what the level allows in a handshake. False once the refused setting is logged.
bool configure_context(SSL_CTX* context, const Profile& profile) {
  SSL_CTX_set_options(context, profile.options);
  if (profile.tls12_cipher_list != nullptr &&
      SSL_CTX_set_cipher_list(context, profile.tls12_cipher_list) == 0) {
    log_openssl_error("Set TLS 1.2 cipher list failed.");
    return false;
  }
  if (SSL_CTX_set_ciphersuites(context, TLS13_CIPHERSUITES) == 0) {
    log_openssl_error("Set TLS 1.3 cipher list failed.");
    return false;
  }
  if (SSL_CTX_set1_groups_list(context, SERVER_GROUPS) == 0) {
    log_openssl_error("Set EC curve failed");
    return false;
  }
  SSL_CTX_set_options(context, SSL_OP_SINGLE_ECDH_USE);  // 0 today; kept for one where it is not
  return true;
}

// Files of a service

std::string service_file(const char* directory, const std::string& name) {
  return directory + name + ".conf";
}

Names make_names() { return Names(KLIBCSzListAlloc(1024)); }

/// Adds the names in a directory. The platform may move the list. Negative when it cannot be
/// listed.
int list_directory(const char* directory, Names& names) {
  KLIBCSzList* list = names.release();
  const int result = KLIBCFileEnumDir(directory, nullptr, &list, 0x80);
  names.reset(list);
  return result;
}

/// Reads a descriptor. What is no object is no descriptor.
bool read_descriptor(JsonReader& reader, const std::string& path, Json::Value& descriptor) {
  errno = 0;
  return reader.read(path, descriptor) && descriptor.isObject();
}

/// The descriptors that can be read, in the order of the listing; the others are logged.
std::vector<ServiceDesc> read_descriptors(const KLIBCSzList* names) {
  std::vector<ServiceDesc> services;
  JsonReader reader;
  for (int32_t index = 0; index < names->count; ++index) {
    const std::string name = KLIBCSzListGet(names, index);
    Json::Value descriptor;
    if (!read_descriptor(reader, kServicesDir + name, descriptor)) {
      log::descriptor_not_loaded(name);
      continue;
    }
    ServiceDesc service;
    service.from_json(descriptor);
    services.push_back(std::move(service));
  }
  return services;
}

/// The paths of all reloaders, the base system's first. False once a directory that cannot be
/// listed is logged.
bool collect_reloaders(std::vector<std::string>& paths) {
  Names names = make_names();
  for (const char* directory : {kSystemReloaderDir, kPackageReloaderDir}) {
    if (list_directory(directory, names) < 0) {
      log::reloaders_not_listed(kConfigDir);  // whichever directory it was
      leak_on_purpose(names);
      return false;
    }
    for (int32_t index = 0; index < names->count; ++index) {
      paths.push_back(std::string(directory) + KLIBCSzListGet(names.get(), index));
    }
    KLIBCSzListRemoveAll(names.get());
  }
  return true;
}

// Rendering

/// Renders the template to the output path by way of a temporary file beside it. Failures are
/// logged; the temporary file of a failed step stays.
void render_file(const std::string& template_path, std::vector<Json::Value>& contexts,
                 const std::string& output_path) {
  char temporary_path[4096];
  // What does not fit is cut short, and mkstemp then refuses it.
  static_cast<void>(std::snprintf(temporary_path, sizeof temporary_path, "%s",
                                  (output_path + ".XXXXXX").c_str()));
  errno = 0;
  const int descriptor = mkstemp(temporary_path);
  if (descriptor < 0) {
    log::temporary_file_not_made();
    return;
  }
  close(descriptor);

  if (!KELO::RenderMustacheToFile(template_path, contexts, temporary_path)) {
    log::template_not_rendered(output_path);
    return;
  }
  errno = 0;
  if (std::rename(temporary_path, output_path.c_str()) != 0) {
    log::rendered_file_not_renamed(temporary_path);
  }
}

/// Renders one service's template, if it names one, for its level in the data store.
void render_service(const Json::Value& root, const std::string& name, JsonReader& reader) {
  const std::string descriptor_path = service_file(kServicesDir, name);
  Json::Value descriptor;
  if (!read_descriptor(reader, descriptor_path, descriptor)) {
    log::descriptor_not_read(descriptor_path);
    return;
  }
  if (!descriptor.isMember("mustache-path")) {
    return;
  }
  const int level = lookup_service_level(root, name);
  if (level < 0) {
    log::no_level_to_render();
    return;
  }
  std::vector<Json::Value> contexts(1);
  contexts[0][profile_of_level(level).tier] = true;
  render_file(descriptor["mustache-path"].asString(), contexts, service_file(kConfigDir, name));
}

// Registrations

const Json::Value* find_member(const Json::Value& value, std::string_view key) {
  return value.isObject() ? value.find(key.data(), key.data() + key.size()) : nullptr;
}

bool can_leave(const Json::Value& service) {
  return is_filled_string(find_member(service, "service"));
}

bool can_join(const Json::Value& service) {
  const Json::Value* const display_name = find_member(service, "display-name");
  if (!can_leave(service) || display_name == nullptr || !display_name->isString()) {
    return false;  // the display name may be empty, unlike the others
  }
  for (const char* key : {"display-name-i18n", "mustache-path", "reloader-path"}) {
    const Json::Value* const value = find_member(service, key);
    if (value != nullptr && !is_filled_string(value)) {
      return false;
    }
  }
  return true;
}

bool is_registration(const Json::Value& registration, bool (*is_service)(const Json::Value&)) {
  const Json::Value* const services = find_member(registration, "services");
  if (services == nullptr || !services->isArray()) {
    return false;
  }
  for (const Json::Value& service : *services) {
    if (!is_service(service)) {
      return false;
    }
  }
  return true;
}

/// The services of a valid registration, in its order.
std::vector<ServiceDesc> services_of(const Json::Value& registration) {
  const Json::Value* const system_service = find_member(registration, "system-service");
  const bool is_system_service = system_service != nullptr && system_service->asBool();
  std::vector<ServiceDesc> services;
  for (const Json::Value& element : registration["services"]) {
    ServiceDesc service;
    service.from_json(element);
    if (is_system_service) {
      service.set_system_service();
    }
    services.push_back(std::move(service));
  }
  return services;
}

bool needs_reloader_link(const ServiceDesc& service) {
  return service.has_reloader() && !service.is_system_service();
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

/// Removes what a failed join has created, in the order of its creation.
void fallback_installed_files(const std::vector<std::string>& installed) {
  for (const std::string& path : installed) {
    errno = 0;
    if (unlink(path.c_str()) == -1) {
      log::installed_file_not_removed(path);
    }
  }
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

SSL_CTX* APIProvider::acquire_server_context(const std::string& service) const {
  const int level = load_service_level(service);
  if (level < 0) {
    return nullptr;
  }

  std::unique_ptr<SSL_CTX, ContextFree> context(SSL_CTX_new(TLS_server_method()));
  if (context == nullptr) {
    log_openssl_error("New ssl ctx failed.");
    return nullptr;
  }

  const Profile& profile = profile_of_level(level);
  if (!configure_context(context.get(), profile)) {
    return nullptr;
  }
  if (profile.dh_file != nullptr) {
    install_dh_parameters(context.get(), profile.dh_file);
  }
  return context.release();
}

void APIProvider::release_context(SSL_CTX* context) const { SSL_CTX_free(context); }

int APIProvider::install_service_descriptor(const std::string& name, const ServiceDesc& desc,
                                            std::vector<std::string>& installed) const {
  const std::string path = service_file(kServicesDir, name);
  const Json::Value descriptor = desc.to_json();
  errno = 0;
  // In place: whoever lists the directory reads every file there, a temporary one too.
  if (!descriptor.toFile(path, true)) {
    log::descriptor_not_installed(path);
    return -1;
  }
  installed.push_back(path);
  return 0;
}

int APIProvider::uninstall_service_descriptor(const std::string& name) const {
  const std::string path = service_file(kServicesDir, name);
  errno = 0;
  if (unlink(path.c_str()) != 0) {
    log::descriptor_not_removed(path);
  }
  return 0;
}

int APIProvider::regen_framework_config() const {
  Names names = make_names();
  if (list_directory(kServicesDir, names) < 0) {
    log::descriptors_not_listed(kConfigDir);  // not the directory that failed; the text is kept
    return -1;
  }
  Json::Value root = load_data_store();
  merge_service_entries(root, read_descriptors(names.get()));
  names.reset();
  if (save_data_store(root) != 0) {
    log::regenerated_data_store_not_saved();
  }
  return 0;
}

int APIProvider::install_service_reloader(const std::string& name, const std::string& reloader_path,
                                          std::vector<std::string>& installed) const {
  const std::string link_path = service_file(kPackageReloaderDir, name);
  errno = 0;
  if (unlink(link_path.c_str()) != 0 && errno != ENOENT) {
    log::old_reloader_not_removed(link_path);
    return -1;
  }
  errno = 0;
  if (symlink(reloader_path.c_str(), link_path.c_str()) != 0) {
    log::reloader_not_linked(reloader_path, link_path);
    return -1;
  }
  installed.push_back(link_path);
  return 0;
}

int APIProvider::uninstall_service_reloader(const std::string& name) const {
  const std::string link_path = service_file(kPackageReloaderDir, name);
  errno = 0;
  if (unlink(link_path.c_str()) != 0) {
    log::reloader_link_not_removed(link_path);
  }
  return 0;
}

int APIProvider::execute_service_reloader() const {
  std::vector<std::string> paths;
  if (!collect_reloaders(paths)) {
    return -1;
  }
  for (const std::string& path : paths) {
    errno = 0;
    const int status = KLIBCExec(path.c_str(), nullptr, nullptr, nullptr, nullptr);
    if (errno != 0) {
      log::reloader_not_run(path);
    } else if (status != 0) {
      log::reloader_failed(status, path);
    }
  }
  return 0;
}

int APIProvider::render_service_template() const {
  const Json::Value root = load_data_store();
  const Json::Value& services = root["services"];
  JsonReader reader;
  for (auto service = services.begin(); service != services.end(); ++service) {
    render_service(root, service.name(), reader);
  }
  return 0;
}

int APIProvider::cleanup_service_template(const std::string& name) const {
  const std::string path = service_file(kConfigDir, name);
  errno = 0;
  if (unlink(path.c_str()) != 0) {
    log::rendered_file_not_removed(path);
    return -1;
  }
  return 0;
}

int APIProvider::join_framework(const Json::Value& registration) const {
  if (!is_registration(registration, can_join)) {
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
  if (!install_files(*this, services, installed)) {
    fallback_installed_files(installed);
    return -1;
  }
  if (save_data_store(root) != 0) {
    log::joined_data_store_not_saved();
    fallback_installed_files(installed);
    return -1;
  }
  return 0;
}

int APIProvider::leave_framework(const Json::Value& registration) const {
  if (!is_registration(registration, can_leave)) {
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

SSL_CTX* KELOTLS_acquire_server_context(const char* service) {
  return kelotls::APIProvider().acquire_server_context(service);
}

void KELOTLS_release_context(SSL_CTX* context) { kelotls::APIProvider().release_context(context); }
