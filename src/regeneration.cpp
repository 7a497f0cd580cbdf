// Owns how descriptor files are read, and how the data store is brought in line with them.
#include "regeneration.h"

#include <cerrno>
#include <utility>
#include <vector>

#include "files.h"
#include "framework_config.h"
#include "kelotls/api_provider.h"
#include "log_messages.h"
#include "paths.h"

namespace kelotls {
namespace {

constexpr MemberRule kDescriptor[] = {
    {"service", Json::stringValue, true, false},
    {"display-name", Json::stringValue, true, true},
    {"display-name-i18n", Json::stringValue, false, true},
    {"mustache-path", Json::stringValue, false, false},
    {"reloader-path", Json::stringValue, false, true},
    {},
};

/// The descriptors that can be read, in the order of the listing; the others are logged.
std::vector<ServiceDesc> read_descriptors(const KLIBCSzList* names) {
  std::vector<ServiceDesc> services;
  JsonReader reader;
  for (int32_t index = 0; index < names->count; ++index) {
    const std::string name = KLIBCSzListGet(names, index);
    int error = 0;
    if (std::optional<ServiceDesc> service = read_service(reader, name, error)) {
      services.push_back(std::move(*service));
    } else {
      errno = error;
      log::descriptor_not_loaded(name);
    }
  }
  return services;
}

}  // namespace

bool read_descriptor(JsonReader& reader, const std::string& path, Json::Value& descriptor) {
  errno = 0;
  return reader.read(path, descriptor) && descriptor.isObject();
}

Faults descriptor_faults(const Json::Value& descriptor) {
  Faults faults;
  append_faults(descriptor, kDescriptor, "$", faults);
  return faults;
}

std::optional<ServiceDesc> read_service(JsonReader& reader, const std::string& file_name,
                                        int& error) {
  Json::Value descriptor;
  if (!read_descriptor(reader, kServicesDir + file_name, descriptor)) {
    error = errno;
    return std::nullopt;
  }
  std::optional<ServiceDesc> service(std::in_place);
  service->from_json(descriptor);
  return service;
}

int APIProvider::regen_framework_config() const {
  FileList names = make_file_list();
  if (list_files(kServicesDir, names) < 0) {
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

}  // namespace kelotls
