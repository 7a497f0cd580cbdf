// Owns the documents that an operator hands over.
#include "store/documents.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "files.h"
#include "framework_config.h"
#include "json_document.h"

namespace kelotlsctl {

namespace {

constexpr char kProbe[] = "probe";

/// What is likely to fail once a service has joined; empty for a file that is in order.
std::string file_warning(const std::string& file, bool is_reloader) {
  struct stat status = {};
  if (file[0] != '/') {
    return "is no absolute path";
  }
  if (::stat(file.c_str(), &status) != 0) {
    return file + ": " + std::strerror(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return file + " is no regular file";
  }
  return is_reloader && (status.st_mode & 0111) == 0 ? file + " is not executable" : "";
}

/// What the library lets pass: names that nobody can read, or that look like others, and paths that
/// end before they seem to.
void append_text_faults(const Json::Value& services, kelotls::Faults& faults) {
  for (Json::ArrayIndex index = 0; index < services.size(); ++index) {
    const std::string path = kelotls::path_of_element("$.services", index);
    for (const char* const key : {"service", "display-name", "display-name-i18n"}) {
      const std::string text = kelotls::text_member(services[index], key);
      const bool is_told_of =
          key == std::string("service") && !kelotls::name_fault(text, false).empty();
      const std::string fault = is_told_of ? "" : text_fault(text);
      if (!fault.empty()) {
        faults.push_back({path + "." + key, fault});
      }
    }
    for (const char* const key : {"mustache-path", "reloader-path"}) {
      if (kelotls::has_nul(kelotls::text_member(services[index], key))) {
        faults.push_back({path + "." + key, "holds a NUL character"});
      }
    }
  }
}

/// The library ignores the member: it is the command that asks running servers.
void append_probe_faults(const Json::Value& services, kelotls::Faults& faults) {
  for (Json::ArrayIndex index = 0; index < services.size(); ++index) {
    const Json::Value* const probe = kelotls::find_member(services[index], kProbe);
    if (probe != nullptr) {
      append_address_faults(*probe, kelotls::path_of_element("$.services", index) + ".probe",
                            faults);
    }
  }
}

/// A saved level that the commands would not set.
void append_level_faults(const Store& saved, kelotls::Faults& faults) {
  const auto is_named = [](int level) { return level >= 0 && level <= 3; };
  const int default_level = saved.default_level();
  if (default_level == 0 || !is_named(default_level)) {
    faults.push_back({"$.default-level", std::to_string(default_level) + " is no level" +
                                             (default_level == 0 ? " of its own" : "")});
  }
  for (const std::string& service : saved.names()) {
    if (!is_named(saved.stored_level(service))) {
      faults.push_back({kelotls::path_of_member("$.services", service) + ".current-level",
                        std::to_string(saved.stored_level(service)) + " is no level"});
    }
  }
}

/// Of the file, or of the standard input for "-".
bool read_text(const std::string& file, std::string& text) {
  return file == "-" ? kelotls::read_to_end(STDIN_FILENO, 0, text) : kelotls::read_file(file, text);
}

/// "the standard input" for "-".
std::string source_of(const std::string& file) { return file == "-" ? "the standard input" : file; }

std::string lines_of(const kelotls::Faults& faults) {
  std::string lines;
  for (const kelotls::Fault& fault : faults) {
    lines += "\n  " + fault_text(fault);
  }
  return lines;
}

Json::Value change_json(int from, int to) {
  return object({{"from", level_json(from)}, {"to", level_json(to)}});
}

}  // namespace

bool append_exact_faults(const Json::Value& value, const kelotls::MemberRule* rules,
                         const std::string& path, kelotls::Faults& faults) {
  const std::size_t before = faults.size();
  kelotls::append_faults(value, rules, path, faults);
  if (faults.size() != before) {
    return false;
  }
  for (const std::string& name : value.getMemberNames()) {
    std::string known;
    const kelotls::MemberRule* rule = rules;
    for (; rule->key != nullptr && name != rule->key; ++rule) {
      known += (known.empty() ? "" : ", ") + std::string(rule->key);
    }
    if (rule->key == nullptr) {
      faults.push_back({kelotls::path_of_member(path, name), "no such member; they are " + known});
    }
  }
  return faults.size() == before;
}

std::vector<std::string> Registration::names() const {
  std::vector<std::string> names;
  for (const Json::Value& service : document["services"]) {
    names.push_back(service["service"].asString());
  }
  return names;
}

std::map<std::string, Address> Registration::addresses() const {
  std::map<std::string, Address> addresses;
  for (const Json::Value& service : document["services"]) {
    if (const Json::Value* const probe = kelotls::find_member(service, kProbe)) {
      addresses[service["service"].asString()] = address_of(*probe);
    }
  }
  return addresses;
}

Registration read_registration(const std::string& file, kelotls::Purpose purpose) {
  Registration registration;
  registration.source = source_of(file);
  std::string text;
  if (!read_text(file, text)) {
    throw system_failure(file);
  }
  kelotls::JsonReader reader(kelotls::DuplicateKeys::kRefused);
  if (!reader.parse(text, registration.document)) {
    registration.faults.push_back({"$", "not a JSON text: " + reader.fault()});
    return registration;
  }
  registration.faults = kelotls::registration_faults(registration.document, purpose);
  const Json::Value* const services = kelotls::find_member(registration.document, "services");
  if (purpose == kelotls::Purpose::kJoin && services != nullptr && services->isArray()) {
    append_text_faults(*services, registration.faults);
    append_probe_faults(*services, registration.faults);
  }
  return registration;
}

Registration require_registration(const std::string& file, kelotls::Purpose purpose) {
  Registration registration = read_registration(file, purpose);
  if (!registration.faults.empty()) {
    throw Failure(kFailed,
                  registration.source + " is no registration that can be used" +
                      lines_of(registration.faults),
                  "Nothing was changed.");
  }
  return registration;
}

kelotls::Faults file_warnings(const Json::Value& registration) {
  kelotls::Faults warnings;
  const Json::Value* const services = kelotls::find_member(registration, "services");
  const Json::ArrayIndex count = services != nullptr && services->isArray() ? services->size() : 0;
  for (Json::ArrayIndex index = 0; index < count; ++index) {
    for (const bool is_reloader : {false, true}) {
      const char* const key = is_reloader ? "reloader-path" : "mustache-path";
      const std::string file = kelotls::text_member((*services)[index], key);
      const std::string text = file.empty() ? "" : file_warning(file, is_reloader);
      if (!text.empty()) {
        warnings.push_back({kelotls::path_of_element("$.services", index) + "." + key, text});
      }
    }
  }
  return warnings;
}

std::string fault_text(const kelotls::Fault& fault) {
  return fault.path + ": " + printable(fault.text);
}

Store read_backup(const std::string& file) {
  Store saved;
  std::string text;
  std::string list;
  kelotls::JsonReader reader;
  errno = 0;
  if (!read_text(file, text)) {
    list = std::string(": ") + std::strerror(errno);
  } else if (!reader.parse(text, saved.root)) {
    list = ": not a JSON text: " + reader.fault();
  } else {
    kelotls::Faults faults = kelotls::data_store_faults(saved.root);
    if (faults.empty()) {
      append_level_faults(saved, faults);
    }
    list = lines_of(faults);
  }
  if (!list.empty()) {
    throw Failure(kFailed, printable(source_of(file)) + " cannot be restored from" + list,
                  "Nothing was changed.");
  }
  return saved;
}

Json::Value restoration_json(const Store& live, const Store& saved) {
  Json::Value changes = list_of({});
  for (const std::string& service : saved.names()) {
    const int from = live.stored_level(service);
    const int to = saved.stored_level(service);
    if (live.has(service) && from != to) {
      changes.append(change_json(from, to))["service"] = service;
    }
  }
  return object({{"default-level", change_json(live.default_level(), saved.default_level())},
                 {"changes", changes},
                 {"unknown", saved.names_missing_in(live)},
                 {"missing", live.names_missing_in(saved)}});
}

std::string dated_name(const std::string& head, const std::string& tail) {
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  ::localtime_r(&now, &local);
  char date[32];
  static_cast<void>(std::strftime(date, sizeof date, "%Y%m%d-%H%M%S", &local));
  return head + date + tail;
}

}  // namespace kelotlsctl
