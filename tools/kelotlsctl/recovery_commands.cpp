// The commands that make a data store where there is none that can be used: init, recover. No
// sequence of the library's own calls does: regenerating writes one without a default level,
// setting the default one without services, and each is unreadable to the next.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "backup.h"
#include "commands.h"
#include "files.h"
#include "level.h"
#include "lock.h"
#include "paths.h"
#include "regeneration.h"
#include "steps.h"
#include "store.h"

namespace kelotlsctl {

namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kStoreMode = 0644;  // services read it, under whatever user they run

constexpr const char* kFolders[] = {kFrameworkDir, kServicesDir, kConfigDir, kSystemReloaderDir,
                                    kPackageReloaderDir};

[[noreturn]] void fail_on(const std::string& path) {
  throw Failure(kFailed, path + ": " + std::strerror(errno));
}

std::vector<std::string> make_missing_folders() {
  std::vector<std::string> made;
  for (const char* folder : kFolders) {
    if (!make_folders(folder, kFolderMode, made)) {
      fail_on(folder);
    }
  }
  return made;
}

std::vector<std::string> missing_folders() {
  std::vector<std::string> missing;
  for (const char* folder : kFolders) {
    if (!stands_at(folder)) {
      missing.push_back(folder);
    }
  }
  return missing;
}

Json::Value list_json(const std::vector<std::string>& texts) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : texts) {
    list.append(text);
  }
  return list;
}

/// Keeps the broken file under a name that nothing has yet, and the place is never empty.
std::string put_aside() {
  const std::string dated = dated_name(std::string(kDataStorePath) + ".broken-", "");
  for (int attempt = 1; attempt < 1000; ++attempt) {
    std::string path = attempt == 1 ? dated : dated + "-" + std::to_string(attempt);
    if (stands_at(path)) {
      continue;
    }
    // A second name first; a folder, or a file system without such, takes a rename.
    if (::link(kDataStorePath, path.c_str()) == 0 ||
        (errno != EEXIST && ::rename(kDataStorePath, path.c_str()) == 0)) {
      return path;
    }
    if (errno != EEXIST) {
      fail_on(path);
    }
  }
  throw Failure(kFailed, dated + " and a thousand names like it exist already");
}

/// An empty store with the mode and the owner of the one that it replaces.
void write_empty_store(int default_level, const std::optional<struct stat>& former) {
  if (!replace_file(kDataStorePath, empty_store_text(default_level),
                    former ? former->st_mode & 0777 : kStoreMode)) {
    fail_on(kDataStorePath);
  }
  if (former && ::lchown(kDataStorePath, former->st_uid, former->st_gid) != 0) {
    fail_on(kDataStorePath);
  }
}

std::optional<struct stat> status_of_store() {
  struct stat status = {};
  if (::lstat(kDataStorePath, &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return status;
}

/// Everything that recover does and says.
struct Recovery {
  std::string put_aside;
  int default_level = 0;
  std::vector<std::string> services;
  std::vector<std::string> unreadable;
  std::optional<Restoration> restoration;
};

void require_unusable_store() {
  Store store;
  if (try_store(store) == StoreCondition::kUsable) {
    throw Failure(kFailed, std::string("the data store ") + kDataStorePath + " is fine",
                  "There is nothing to recover.");
  }
}

Recovery run_recovery(const std::optional<Backup>& saved, int default_level, bool default_wins) {
  Recovery recovery;
  make_missing_folders();
  Store empty;
  empty.services = Json::Value(Json::objectValue);
  foresee_regeneration(empty);  // a descriptor that stops it should do so before anything changes
  const std::optional<struct stat> former = status_of_store();
  if (stands_at(kDataStorePath)) {
    recovery.put_aside = put_aside();
  }
  write_empty_store(default_level, former);

  recovery.unreadable = run_regeneration(load_store()).unreadable;
  if (saved) {
    recovery.restoration = foresee_restoration(load_store(), *saved);
    run_restoration(*saved, *recovery.restoration);
    if (default_wins) {
      write_default_level(default_level);
    }
  }
  const Store store = load_store();
  recovery.default_level = store.default_level;
  recovery.services = store.services.getMemberNames();
  return recovery;
}

Recovery foresee_recovery(const std::optional<Backup>& saved, int default_level,
                          bool default_wins) {
  Recovery recovery;
  Store empty;
  empty.services = Json::Value(Json::objectValue);
  if (stands_at(kServicesDir)) {
    const Regeneration regeneration = foresee_regeneration(empty);
    recovery.services = regeneration.added;
    recovery.unreadable = regeneration.unreadable;
  }
  for (const std::string& service : recovery.services) {
    empty.services[service] = Json::Value(Json::objectValue);
  }
  if (saved) {
    recovery.restoration = foresee_restoration(empty, *saved);
  }
  recovery.default_level = saved && !default_wins ? saved->default_level() : default_level;
  if (stands_at(kDataStorePath)) {
    recovery.put_aside = dated_name(std::string(kDataStorePath) + ".broken-", "");
  }
  return recovery;
}

Json::Value recovery_json(const Invocation& invocation, const Recovery& recovery) {
  Json::Value document(Json::objectValue);
  document["written"] = !invocation.dry_run;
  document["put-aside"] =
      recovery.put_aside.empty() ? Json::Value() : Json::Value(recovery.put_aside);
  document["default-level"] = level_json(recovery.default_level);
  document["services"] = list_json(recovery.services);
  document["unreadable"] = list_json(recovery.unreadable);
  document["restored"] = Json::Value(Json::arrayValue);
  document["unknown"] = Json::Value(Json::arrayValue);
  if (recovery.restoration) {
    for (const Restoration::Change& change : recovery.restoration->changes) {
      Json::Value value(Json::objectValue);
      value["service"] = change.service;
      value["level"] = level_json(change.to);
      document["restored"].append(value);
    }
    document["unknown"] = list_json(recovery.restoration->unknown);
  }
  return document;
}

void print_recovery(Invocation& invocation, const Recovery& recovery) {
  std::ostream& out = invocation.console.data();
  const std::string would = invocation.dry_run ? "would be " : "";
  if (!recovery.put_aside.empty()) {
    out << "broken data store: " << would << "put aside as " << recovery.put_aside << '\n';
  }
  out << "data store: " << would << "written with the default level "
      << level_name(recovery.default_level) << '\n';
  for (const std::string& service : recovery.services) {
    out << printable(service) << ": " << would << "taken from its descriptor\n";
  }
  if (!recovery.restoration) {
    return;
  }
  for (const Restoration::Change& change : recovery.restoration->changes) {
    out << printable(change.service) << ": " << level_name(change.to) << ' ' << would
        << "taken from the backup\n";
  }
  for (const std::string& service : recovery.restoration->unknown) {
    out << printable(service) << ": in the backup, but has no descriptor; passed over\n";
  }
}

}  // namespace

int initialise(Invocation& invocation, const std::string& default_level) {
  Console& console = invocation.console;
  const int level = parse_level(default_level);
  if (stands_at(kDataStorePath)) {
    throw Failure(kFailed, std::string("there is a data store already: ") + kDataStorePath,
                  "Nothing was changed. If it cannot be used: kelotlsctl recover");
  }
  const std::vector<std::string> made =
      invocation.dry_run ? missing_folders() : make_missing_folders();
  const Lock lock(invocation.console, !invocation.dry_run);
  if (!invocation.dry_run && !create_file(kDataStorePath, empty_store_text(level), kStoreMode)) {
    fail_on(kDataStorePath);
  }

  const std::string verb = invocation.dry_run ? "would be made" : "made";
  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["written"] = !invocation.dry_run;
    document["data-store"] = kDataStorePath;
    document["default-level"] = level_json(level);
    document["folders"] = list_json(made);
    console.document(document);
  } else {
    for (const std::string& folder : made) {
      console.data() << folder << ": " << verb << '\n';
    }
    console.data() << kDataStorePath << ": " << verb << " with the default level "
                   << level_name(level) << '\n';
  }
  std::vector<std::string> descriptors;
  if (list_folder(kServicesDir, descriptors) && !descriptors.empty()) {
    console.warn("there are descriptors of services; kelotlsctl regen gives them entries");
  }
  return kDone;
}

int recover(Invocation& invocation, const std::string& backup_file,
            const std::string& default_level) {
  Console& console = invocation.console;
  const bool default_wins = !default_level.empty();
  const int level = parse_level(default_wins ? default_level : "intermediate");
  std::optional<Backup> saved;
  if (!backup_file.empty()) {
    saved = read_backup(backup_file);
  }
  if (!invocation.dry_run) {
    std::vector<std::string> made;
    if (!make_folders(kFrameworkDir, kFolderMode, made)) {
      fail_on(kFrameworkDir);
    }
  }
  const Lock lock(invocation.console, !invocation.dry_run);
  require_unusable_store();
  const Recovery recovery = invocation.dry_run ? foresee_recovery(saved, level, default_wins)
                                               : run_recovery(saved, level, default_wins);
  if (console.json()) {
    console.document(recovery_json(invocation, recovery));
  } else {
    print_recovery(invocation, recovery);
  }
  for (const std::string& path : recovery.unreadable) {
    console.warn(printable(path) + " is no descriptor and was passed over");
  }
  if (!invocation.dry_run) {
    console.say("Not in force yet: kelotlsctl apply");
  }
  return recovery.unreadable.empty() ? kDone : kFailed;
}

}  // namespace kelotlsctl
