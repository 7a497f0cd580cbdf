#include "backup.h"

#include <kelotls/api_provider.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "console.h"
#include "files.h"
#include "json_text.h"
#include "level.h"
#include "paths.h"
#include "schema.h"

namespace kelotlsctl {

namespace {

bool is_ordinary(int level) { return level >= 0 && level <= 3; }

void add_warnings(Backup& saved) {
  if (saved.default_level() < 1 || !is_ordinary(saved.default_level())) {
    saved.warnings.push_back("the saved default level is " + std::to_string(saved.default_level()));
  }
  for (const std::string& service : saved.document["services"].getMemberNames()) {
    if (!is_ordinary(saved.level_of(service))) {
      saved.warnings.push_back("the saved level of " + service + " is " +
                               std::to_string(saved.level_of(service)));
    }
  }
}

}  // namespace

int Backup::default_level() const { return document["default-level"].asInt(); }

int Backup::level_of(const std::string& service) const {
  return document["services"][service]["current-level"].asInt();
}

Backup read_backup(const std::string& file) {
  Backup saved;
  std::string fault;
  std::string list;
  if (!read_json_file(file, saved.document, fault)) {
    list = ": " + fault;
  } else {
    for (const Fault& found : schema_faults(saved.document, kDataStoreSchema)) {
      list += "\n  " + found.path + ": " + found.text;
    }
  }
  if (!list.empty()) {
    throw Failure(kFailed, printable(file) + " cannot be restored from" + list,
                  "Nothing was changed.");
  }
  add_warnings(saved);
  return saved;
}

Restoration foresee_restoration(const Store& live, const Backup& saved) {
  Restoration restoration;
  restoration.default_from = live.default_level;
  restoration.default_to = saved.default_level();
  for (const std::string& service : saved.document["services"].getMemberNames()) {
    if (!live.has(service)) {
      restoration.unknown.push_back(service);
    } else if (live.stored_level(service) != saved.level_of(service)) {
      restoration.changes.push_back({service, live.stored_level(service), saved.level_of(service)});
    }
  }
  for (const std::string& service : live.services.getMemberNames()) {
    if (!saved.document["services"].isMember(service)) {
      restoration.missing.push_back(service);
    }
  }
  return restoration;
}

void run_restoration(const Backup& saved, const Restoration& restoration) {
  // What was checked is what is restored, whatever happens to the file meanwhile.
  const TemporaryFolder folder;
  const std::string checked = folder.file("levels.json");
  if (!create_file(checked, json_text(saved.document), 0600)) {
    throw Failure(kFailed, checked + ": " + std::strerror(errno));
  }
  kelotls::APIProvider().restore_framework(checked);

  const Store live = load_store();
  bool is_restored = live.default_level == restoration.default_to;
  for (const Restoration::Change& change : restoration.changes) {
    is_restored = is_restored && live.stored_level(change.service) == change.to;
  }
  if (!is_restored) {
    throw Failure(kFailed, std::string("the data store ") + kDataStorePath + " was not written",
                  "The log line says why. What it held before still stands.");
  }
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
