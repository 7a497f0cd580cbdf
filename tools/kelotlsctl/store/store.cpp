// Owns the data store as commands see it.
#include "store/store.h"

#include <fnmatch.h>
#include <kelotls/tls_profile_level.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <set>

#include "framework_config.h"
#include "json_document.h"
#include "output/characters.h"
#include "output/suggestion.h"
#include "profile.h"
#include "regeneration.h"

namespace kelotlsctl {

namespace {

using kelotls::kDataStorePath;
using kelotls::Profile;

/// The row of a level that has one of its own; null for 0 and for values without a name.
const Profile* named_profile(int level) {
  const Profile& profile = kelotls::profile_of_level(level);
  return profile.level == level ? &profile : nullptr;
}

/// Empty for a level without a name.
std::string level_name(int level) {
  const Profile* const profile = named_profile(level);
  return profile != nullptr                            ? profile->name
         : level == kelotls::TLS_PROFILE_LEVEL_DEFAULT ? "default"
                                                       : "";
}

std::string effective_name(int level) {
  return level < 0 ? "unusable" : kelotls::profile_of_level(level).name;
}

/// What a descriptor file describes; none for a file that is passed over. A value of the wrong type
/// makes the library raise an exception in the middle: it is found before anything starts.
std::optional<kelotls::ServiceDesc> read_described(kelotls::JsonReader& reader,
                                                   const std::string& file_name) {
  try {
    int error = 0;
    return kelotls::read_service(reader, file_name, error);
  } catch (const Json::Exception&) {
    throw Failure(kFailed,
                  "the descriptor " + printable(kelotls::kServicesDir + file_name) +
                      " holds a value that is no text",
                  "Nothing was changed. kelotlsctl check says which.");
  }
}

Json::Value changed_entries(const Store& before, const Store& after) {
  return list_where(before.names(), [&](const std::string& service) {
    return before.services()[service] != after.services()[service];
  });
}

}  // namespace

std::vector<std::string> make_missing_directories(bool is_dry_run) {
  std::vector<std::string> made;
  for (const char* directory : kDirectories) {
    if (is_dry_run && !kelotls::exists_at(directory)) {
      made.emplace_back(directory);
    } else if (!is_dry_run && !kelotls::make_directories(directory, 0755, made)) {
      throw system_failure(directory);
    }
  }
  return made;
}

std::optional<int> find_level(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (int level = 0; !level_name(level).empty(); ++level) {
    const Profile* const profile = named_profile(level);
    if (text == level_name(level) || text == std::to_string(level) ||
        (profile != nullptr && text == profile->tier)) {
      return level;
    }
  }
  return std::nullopt;
}

int parse_level(const std::string& text) {
  const std::optional<int> level = find_level(text);
  if (!level) {
    throw Failure(kUsage, no_level_text(text), kLevelAdvice);
  }
  return *level;
}

std::vector<std::string> level_words() {
  std::vector<std::string> words;
  for (int level = 0; !level_name(level).empty(); ++level) {
    words.push_back(level_name(level));
    if (const Profile* const profile = named_profile(level)) {
      words.emplace_back(profile->tier);
    }
  }
  return words;
}

std::string no_level_text(const std::string& text) {
  return "\"" + printable(text) + "\" is not a level" + did_you_mean(text, level_words());
}

Json::Value level_json(int level) {
  const std::string name = level_name(level);
  return object({{"value", level}, {"name", name.empty() ? "unknown" : name}});
}

Json::Value effective_level_json(int level) {
  return object({{"value", level}, {"name", effective_name(level)}});
}

std::string level_text(const Json::Value& level) {
  const std::string name = level_name(level["value"].asInt());
  return name.empty() ? "level " + level["value"].asString() : name;
}

std::string describe_levels(const Json::Value& stored, const Json::Value& effective) {
  const std::string name = level_text(stored);
  const std::string served = effective_name(effective["value"].asInt());
  return name == served ? name : name + " " + arrow() + " " + served;
}

int Store::stored_level(const std::string& service) const {
  return services()[service]["current-level"].asInt();
}

int Store::effective_level(const std::string& service) const {
  return kelotls::lookup_service_level(root, service);
}

Json::Value Store::levels_json(const std::string& service) const {
  return object({{"service", service},
                 {"stored-level", level_json(stored_level(service))},
                 {"effective-level", effective_level_json(effective_level(service))}});
}

Json::Value Store::names_missing_in(const Store& other) const {
  return list_where(names(), [&](const std::string& service) { return !other.has(service); });
}

Store empty_store(int default_level) {
  return {object({{"default-level", default_level}, {"services", object({})}})};
}

std::optional<Store> try_store() {
  if (!kelotls::exists_at(kDataStorePath)) {
    return std::nullopt;
  }
  try {
    Store store = {kelotls::load_data_store()};
    static_cast<void>(store.default_level());
    return store.root.isNull() ? std::nullopt : std::optional(store);
  } catch (const Json::Exception&) {
    // An entry that is no object, a default level that is no integer: no operation gets past it.
    return std::nullopt;
  }
}

Failure unreadable_store() {
  const std::string path = kDataStorePath;
  const bool exists = kelotls::exists_at(path);
  if (exists && ::access(kDataStorePath, R_OK) != 0 && errno == EACCES) {
    return {kStoreUnreadable, "the data store " + path + " may not be read",
            "Nothing was written. Ask for it as root; should root be refused: kelotlsctl recover"};
  }
  if (exists) {
    return {kStoreUnreadable, "the data store " + path + " cannot be used",
            "Nothing was written. The way back: kelotlsctl recover [--from BACKUP]"};
  }
  if (has_descriptors()) {
    return {kStoreUnreadable, "the data store " + path + " is missing",
            "Services have joined before. The way back: kelotlsctl recover [--from BACKUP]"};
  }
  return {kStoreUnreadable, "there is no data store " + path,
          "On a fresh appliance make the first one: kelotlsctl init"};
}

Store load_store() {
  std::optional<Store> store = try_store();
  if (!store) {
    throw unreadable_store();
  }
  return *std::move(store);
}

bool has_descriptors() {
  std::vector<std::string> names;
  return kelotls::list_directory(kelotls::kServicesDir, names) && !names.empty();
}

void require_readable_back(const Store& store) {
  if (kelotls::json_text(store.root, kelotls::Colons::kSpaced).size() > kelotls::kMaxFileBytes) {
    throw Failure(
        kFailed,
        std::string("the data store ") + kDataStorePath + " would hold more than can be read back",
        "Nothing was written. No more than 64 MiB can be read.");
  }
}

void save_store(const Store& store) {
  require_readable_back(store);
  if (kelotls::save_data_store(store.root) != 0) {
    throw Failure(kFailed, std::string("the data store ") + kDataStorePath + " was not written",
                  "The log line says why. What it held before still stands.");
  }
}

bool complete_levels(Store& store) {
  bool any = false;
  for (Json::Value& entry : store.root["services"]) {
    if (!entry.isMember("current-level")) {
      entry["current-level"] = kelotls::TLS_PROFILE_LEVEL_DEFAULT;
      any = true;
    }
  }
  return any;
}

Regeneration regenerate_store(const Store& before) {
  kelotls::FileList names = kelotls::make_file_list();
  if (kelotls::list_files(kelotls::kServicesDir, names) < 0) {
    throw system_failure(kelotls::kServicesDir);
  }
  kelotls::JsonReader reader;
  std::vector<kelotls::ServiceDesc> services;
  Json::Value unreadable = list_of({});
  for (int32_t index = 0; index < names->count; ++index) {
    const std::string name = KLIBCSzListGet(names.get(), index);
    if (const auto service = read_described(reader, name)) {
      services.push_back(*service);
    } else {
      unreadable.append(kelotls::kServicesDir + name);
    }
  }
  Store described = empty_store(0);
  kelotls::merge_service_entries(described.root, services);
  Store after = before;
  complete_levels(after);
  kelotls::merge_service_entries(after.root, services);
  return {after, object({{"added", after.names_missing_in(before)},
                         {"changed", changed_entries(before, after)},
                         {"unreadable", unreadable},
                         {"orphans", before.names_missing_in(described)}})};
}

std::vector<std::string> warnings_of_unreadable(const Json::Value& unreadable) {
  std::vector<std::string> texts;
  for (const Json::Value& path : unreadable) {
    texts.push_back(printable(path) + " is no descriptor and was passed over");
  }
  return texts;
}

Selection select_services(const Store& store, const std::vector<std::string>& requested) {
  if (requested.empty()) {
    return {store.names(), true};
  }
  std::set<std::string> selected;
  for (const std::string& request : requested) {
    const std::size_t before = selected.size();
    const bool is_pattern =
        !store.has(request) && request.find_first_of("*?[") != std::string::npos;
    for (const std::string& name : is_pattern ? store.names() : std::vector<std::string>()) {
      if (::fnmatch(request.c_str(), name.c_str(), 0) == 0) {
        selected.insert(name);
      }
    }
    if (!is_pattern || selected.size() == before) {
      require_service(store, request);
      selected.insert(request);
    }
  }
  return {{selected.begin(), selected.end()}, false};
}

void require_service(const Store& store, const std::string& service) {
  if (!store.has(service)) {
    throw Failure(kNoSuchService,
                  "no service \"" + printable(service) + "\" has joined" +
                      printable(did_you_mean(service, store.names())),
                  "kelotlsctl list shows those that have.");
  }
}

bool is_withheld(const char* path) {
  return ::geteuid() != 0 && ::access(path, R_OK) != 0 && errno == EACCES;
}

bool read_document(const std::string& path, Json::Value& document, std::string& fault) {
  kelotls::JsonReader reader;
  errno = 0;
  if (reader.read(path, document)) {
    return true;
  }
  fault = errno != 0 ? std::strerror(errno) : "not a JSON text: " + reader.fault();
  return false;
}

}  // namespace kelotlsctl
