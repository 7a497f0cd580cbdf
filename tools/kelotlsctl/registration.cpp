#include "registration.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "console.h"
#include "failure.h"
#include "files.h"
#include "json_text.h"

namespace kelotlsctl {

namespace {

// A file name holds 255 bytes at most. The suffix takes five; the temporary file that becomes the
// rendered one takes seven more.
constexpr std::size_t kMaxName = 250;
constexpr std::size_t kMaxNameWithTemplate = 243;

std::string read_source(const std::string& file) {
  std::string text;
  if (!(file == "-" ? read_standard_input(text) : read_file(file, text))) {
    throw Failure(kFailed, file + ": " + std::strerror(errno));
  }
  return text;
}

bool is_text(const Json::Value& service, const char* key) {
  return !text_member(service, key).empty();
}

/// What leaving looks at: the rest of an element may be as it likes.
std::vector<Fault> faults_to_leave(const Json::Value& document) {
  const Json::Value* const services = find_member(document, "services");
  if (services == nullptr || !services->isArray()) {
    return {{services ? "$.services" : "$", services ? "must be an array" : "lacks \"services\""}};
  }
  std::vector<Fault> faults;
  const Json::Value* const flag = find_member(document, "system-service");
  if (flag != nullptr && !flag->isBool()) {
    faults.push_back({"$.system-service", "must be a boolean"});
  }
  for (Json::ArrayIndex index = 0; index < services->size(); ++index) {
    if (!is_text((*services)[index], "service")) {
      faults.push_back({path_of_element("$.services", index) + ".service",
                        "must be a string that is not empty"});
    }
  }
  return faults;
}

/// The rules on names that no schema can state.
void check_names(const Json::Value& services, std::vector<Fault>& faults) {
  std::map<std::string, Json::ArrayIndex> seen;
  for (Json::ArrayIndex index = 0; index < services.size(); ++index) {
    const std::string name = text_member(services[index], "service");
    if (name.empty()) {
      continue;  // the schema's business
    }
    const std::string path = path_of_element("$.services", index) + ".service";
    const std::string fault = name_fault(name, is_text(services[index], "mustache-path"));
    if (!fault.empty()) {
      faults.push_back({path, fault});
    }
    const auto [first, is_new] = seen.emplace(name, index);
    if (!is_new) {
      faults.push_back({path, "\"" + printable(name) + "\" is already named by " +
                                  path_of_element("$.services", first->second)});
    }
  }
}

/// What is no fault of the registration but will be one of the service.
void check_files(const Json::Value& services, std::vector<Fault>& warnings) {
  for (Json::ArrayIndex index = 0; index < services.size(); ++index) {
    for (const char* key : {"mustache-path", "reloader-path"}) {
      const std::string file = text_member(services[index], key);
      const std::string path = path_of_element("$.services", index) + "." + key;
      const bool is_reloader = std::strcmp(key, "reloader-path") == 0;
      struct stat status = {};
      if (file.empty()) {
        continue;
      }
      if (file[0] != '/') {
        warnings.push_back({path, "is no absolute path"});
      } else if (::stat(file.c_str(), &status) != 0) {
        warnings.push_back({path, file + ": " + std::strerror(errno)});
      } else if (!S_ISREG(status.st_mode)) {
        warnings.push_back({path, file + " is no regular file"});
      } else if (is_reloader && (status.st_mode & 0111) == 0) {
        warnings.push_back({path, file + " is not executable"});
      }
    }
  }
}

}  // namespace

std::string name_fault(const std::string& name, bool has_template) {
  if (name.empty()) {
    return "is empty";
  }
  if (name == "." || name == "..") {
    return "must not be \"" + name + "\"";
  }
  if (name.find('/') != std::string::npos) {
    return "holds a \"/\": its files would lie outside of the framework's folders";
  }
  if (std::any_of(name.begin(), name.end(),
                  [](unsigned char character) { return character < 0x20 || character == 0x7f; })) {
    return "holds a control character";
  }
  if (name.size() > kMaxName) {
    return "is " + std::to_string(name.size()) + " bytes long, 250 are allowed";
  }
  if (has_template && name.size() > kMaxNameWithTemplate) {
    return "is " + std::to_string(name.size()) +
           " bytes long; with a template 243 are allowed, or it could never be rendered";
  }
  return {};
}

Registration read_registration(const std::string& file, Purpose purpose) {
  Registration registration;
  registration.source = file == "-" ? "the standard input" : file;
  std::string fault;
  if (!parse_json(read_source(file), DuplicateKeys::kRefused, registration.document, fault)) {
    registration.faults.push_back({"$", fault});
    return registration;
  }
  registration.faults = purpose == Purpose::kJoin
                            ? schema_faults(registration.document, kRegistrationSchema)
                            : faults_to_leave(registration.document);
  const Json::Value* const services = find_member(registration.document, "services");
  if (services != nullptr && services->isArray()) {
    check_names(*services, registration.faults);
    if (purpose == Purpose::kJoin) {
      check_files(*services, registration.warnings);
    }
  }
  return registration;
}

Registration require_registration(const std::string& file, Purpose purpose) {
  Registration registration = read_registration(file, purpose);
  if (registration.faults.empty()) {
    return registration;
  }
  std::string list;
  for (const Fault& fault : registration.faults) {
    list += "\n  " + fault.path + ": " + printable(fault.text);
  }
  throw Failure(kFailed, registration.source + " is no registration that can be used" + list,
                "Nothing was changed.");
}

std::vector<std::string> services_of(const Registration& registration) {
  std::vector<std::string> names;
  for (const Json::Value& service : registration.document["services"]) {
    names.push_back(service["service"].asString());
  }
  return names;
}

bool is_system_service(const Registration& registration) {
  const Json::Value* const flag = find_member(registration.document, "system-service");
  return flag != nullptr && flag->asBool();
}

}  // namespace kelotlsctl
