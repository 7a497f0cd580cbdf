#include "regeneration.h"

#include <kelotls/api_provider.h>
#include <kelotls/service_desc.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "files.h"
#include "json_text.h"
#include "log_capture.h"
#include "paths.h"
#include "steps.h"

namespace kelotlsctl {

namespace {

/// The files and links of the folder: what the library takes for descriptors.
std::vector<std::string> descriptor_files() {
  std::vector<std::string> names;
  if (!list_folder(kServicesDir, names)) {
    throw Failure(kFailed, std::string(kServicesDir) + ": " + std::strerror(errno));
  }
  names.erase(
      std::remove_if(names.begin(), names.end(),
                     [](const std::string& name) {
                       struct stat status = {};
                       const bool stands = ::lstat((kServicesDir + name).c_str(), &status) == 0;
                       return !stands || !(S_ISREG(status.st_mode) || S_ISLNK(status.st_mode));
                     }),
      names.end());
  return names;
}

/// The entry that a descriptor gives.
Json::Value entry_of(const kelotls::ServiceDesc& service, const Json::Value& former) {
  Json::Value entry(Json::objectValue);
  entry["display-name"] = service.get_display_name();
  if (service.has_i18n_display_name()) {
    entry["display-name-i18n"] = service.get_i18n_display_name();
  }
  const Json::Value* const level = find_member(former, "current-level");
  entry["current-level"] = level != nullptr ? *level : Json::Value(0);
  return entry;
}

/// A value of the wrong type makes the library throw in the middle; better before it starts.
kelotls::ServiceDesc service_of(const Json::Value& descriptor, const std::string& path) {
  kelotls::ServiceDesc service;
  try {
    service.from_json(descriptor);
  } catch (const Json::Exception&) {
    throw Failure(kFailed, "the descriptor " + printable(path) + " holds a value that is no text",
                  "Nothing was changed. kelotlsctl check says which.");
  }
  return service;
}

Regeneration compare(const Store& before, const Json::Value& after) {
  Regeneration regeneration;
  for (const std::string& service : after.getMemberNames()) {
    if (!before.has(service)) {
      regeneration.added.push_back(service);
    } else if (before.services[service] != after[service]) {
      regeneration.changed.push_back(service);
    }
  }
  return regeneration;
}

void print_each(Console& console, const std::vector<std::string>& names, const char* text) {
  for (const std::string& name : names) {
    console.data() << printable(name) << ": " << text << '\n';
  }
}

}  // namespace

Regeneration foresee_regeneration(const Store& store) {
  Json::Value after = store.services;
  std::vector<std::string> unreadable;
  std::vector<std::string> described;
  for (const std::string& name : descriptor_files()) {
    Json::Value descriptor;
    std::string fault;
    const std::string path = kServicesDir + name;
    if (!read_json_file(path, descriptor, fault) || !descriptor.isObject()) {
      unreadable.push_back(path);
      continue;
    }
    const kelotls::ServiceDesc service = service_of(descriptor, path);
    Json::Value& entry = after[service.get_service_name()];
    entry = entry_of(service, entry);
    described.push_back(service.get_service_name());
  }
  Regeneration regeneration = compare(store, after);
  regeneration.unreadable = std::move(unreadable);
  for (const std::string& service : store.services.getMemberNames()) {
    if (std::find(described.begin(), described.end(), service) == described.end()) {
      regeneration.orphans.push_back(service);
    }
  }
  return regeneration;
}

Regeneration run_regeneration(const Store& before) {
  const Regeneration foreseen = foresee_regeneration(before);
  complete_levels(before);
  const LogWatch watch;
  if (kelotls::APIProvider().regen_framework_config() != 0) {
    throw Failure(kFailed, std::string(kServicesDir) + " cannot be listed", "Nothing was changed.");
  }
  if (!watch.lines({line::kStoreNotSaved}).empty()) {
    throw Failure(kFailed, std::string("the data store ") + kDataStorePath + " was not written",
                  "The log line says why. What it held before still stands.");
  }
  Regeneration regeneration = compare(before, load_store().services);
  regeneration.unreadable = foreseen.unreadable;
  regeneration.orphans = foreseen.orphans;
  return regeneration;
}

void complete_levels(const Store& store) {
  for (const std::string& service : store.services.getMemberNames()) {
    if (!store.services[service].isMember("current-level")) {
      write_service_level(service, 0);
    }
  }
}

Json::Value regeneration_json(const Regeneration& regeneration) {
  const auto list = [](const std::vector<std::string>& names) {
    Json::Value value(Json::arrayValue);
    for (const std::string& name : names) {
      value.append(name);
    }
    return value;
  };
  Json::Value value(Json::objectValue);
  value["added"] = list(regeneration.added);
  value["changed"] = list(regeneration.changed);
  value["unreadable"] = list(regeneration.unreadable);
  value["orphans"] = list(regeneration.orphans);
  return value;
}

void print_regeneration(Console& console, const Regeneration& regeneration, bool is_foreseen) {
  print_each(console, regeneration.added, is_foreseen ? "would be added" : "added");
  print_each(console, regeneration.changed, is_foreseen ? "would change" : "changed");
  for (const std::string& path : regeneration.unreadable) {
    console.warn(printable(path) + " is no descriptor and was passed over");
  }
  for (const std::string& service : regeneration.orphans) {
    console.warn(printable(service) + " has an entry but no descriptor; the entry stays");
  }
  if (regeneration.added.empty() && regeneration.changed.empty()) {
    console.say("The data store agrees with the descriptors.");
  }
}

}  // namespace kelotlsctl
