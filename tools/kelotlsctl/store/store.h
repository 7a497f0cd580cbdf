// Owns the data store as commands see it: levels by name, loading, changing, saving.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "files.h"
#include "output/console.h"
#include "paths.h"

namespace kelotlsctl {

constexpr mode_t kStoreMode = 0644;  // services read it, under whatever user they run

/// The level that the text names: modern, intermediate, old, default, the first three with
/// "mozilla_" before them, 0 to 3; in any case.
std::optional<int> find_level(std::string text);

constexpr char kLevelAdvice[] =
    "A level is modern, intermediate, old, default, mozilla_modern, mozilla_intermediate, "
    "mozilla_old or 0 to 3.";

/// The same; a Failure (usage) for anything else.
int parse_level(const std::string& text);

/// "\"modren\" is not a level", and what may have been meant.
std::string no_level_text(const std::string& text);

/// The levels by name, as operators write them.
std::vector<std::string> level_words();

/// {"value": 2, "name": "intermediate"}
Json::Value level_json(int level);

/// The same of what a level amounts to once the default was followed: a value without a name is
/// served as intermediate, a negative one not at all.
Json::Value effective_level_json(int level);

/// "modern", of what level_json gave; "level 9" for a value that has no name.
std::string level_text(const Json::Value& level);

/// "modern", or "default → intermediate" for a service that follows the default level.
std::string describe_levels(const Json::Value& stored, const Json::Value& effective);

struct Store {
  Json::Value root;  ///< as the library loads and saves it

  const Json::Value& services() const { return root["services"]; }
  std::vector<std::string> names() const { return services().getMemberNames(); }
  bool has(const std::string& service) const { return services().isMember(service); }
  int default_level() const { return root["default-level"].asInt(); }
  /// 0, follow the default, where the entry names none.
  int stored_level(const std::string& service) const;
  int effective_level(const std::string& service) const;
  /// {"service", "stored-level", "effective-level"}
  Json::Value levels_json(const std::string& service) const;
  /// The services that the other data store does not have.
  Json::Value names_missing_in(const Store& other) const;
};

/// A data store without services.
Store empty_store(int default_level);

/// The data store if the library can use it; its log line says what is wrong with one that is
/// there.
std::optional<Store> try_store();

/// The data store. A Failure (data store unreadable) that names the way back when the library
/// cannot use it: most of its operations would then overwrite it with less.
Store load_store();

/// The Failure that load_store throws.
Failure unreadable_store();

/// Whether services joined here once: then a data store that is missing was lost, not yet made.
bool has_descriptors();

/// A Failure when the data store, once written, would be too large to be read again.
void require_readable_back(const Store& store);

/// A Failure when the data store was not written; what it held before is still there.
void save_store(const Store& store);

/// Writes level 0 into each entry that names none. Without it the library, asked to merge such an
/// entry, writes a null level, and cannot use the data store any more. Whether there was one.
bool complete_levels(Store& store);

/// A data store brought in line with the descriptor files.
struct Regeneration {
  Store store;
  /// {"added": [services that get an entry], "changed": [services whose entry changes],
  /// "unreadable": [descriptor files that are passed over], "orphans": [entries without a
  /// descriptor; they stay]}
  Json::Value document;
};

/// Does so in memory. A Failure where the descriptors cannot be listed, or one of them would make
/// the library raise an exception.
Regeneration regenerate_store(const Store& before);

/// "PATH is no descriptor and was passed over"
std::vector<std::string> warnings_of_unreadable(const Json::Value& unreadable);

/// The services that a command acts on.
struct Selection {
  std::vector<std::string> names;
  bool is_all = false;
};

/// Those that are named, or that a pattern (* ? [...]) matches, each once; all of them where
/// nothing is requested. A Failure (no such service) for a request that names none.
Selection select_services(const Store& store, const std::vector<std::string>& requested);

/// A Failure (no such service) unless the service has joined.
void require_service(const Store& store, const std::string& service);

/// The framework's directories.
constexpr const char* kDirectories[] = {kelotls::kFrameworkDir, kelotls::kServicesDir,
                                        kelotls::kConfigDir, kelotls::kSystemReloaderDir,
                                        kelotls::kPackageReloaderDir};

/// Makes those that are missing, readable for all, and directories above them: all that it has
/// made. In a dry run nothing is made, and directories above them are not looked at.
std::vector<std::string> make_missing_directories(bool is_dry_run);

/// Whether there is a file at the path that only root may read.
bool is_withheld(const char* path);

/// Reads a JSON file as the library reads its own. On failure the fault says why.
bool read_document(const std::string& path, Json::Value& document, std::string& fault);

}  // namespace kelotlsctl
