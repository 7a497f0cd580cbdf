// The commands that keep levels and bring them back: backup, restore.
#include <kelotls/api_provider.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "backup.h"
#include "commands.h"
#include "files.h"
#include "json_text.h"
#include "level.h"
#include "lock.h"
#include "log_capture.h"
#include "store.h"

namespace kelotlsctl {

namespace {

Json::Value changes_json(const Restoration& restoration) {
  Json::Value list(Json::arrayValue);
  for (const Restoration::Change& change : restoration.changes) {
    Json::Value value(Json::objectValue);
    value["service"] = change.service;
    value["from"] = level_json(change.from);
    value["to"] = level_json(change.to);
    list.append(value);
  }
  return list;
}

Json::Value names_json(const std::vector<std::string>& names) {
  Json::Value list(Json::arrayValue);
  for (const std::string& name : names) {
    list.append(name);
  }
  return list;
}

void print_restoration(Invocation& invocation, const Restoration& restoration) {
  std::ostream& out = invocation.console.data();
  const char* const becomes = invocation.dry_run ? " would become " : " became ";
  if (restoration.default_from != restoration.default_to) {
    out << "default level: " << level_name(restoration.default_from) << becomes
        << level_name(restoration.default_to) << '\n';
  }
  for (const Restoration::Change& change : restoration.changes) {
    out << printable(change.service) << ": " << level_name(change.from) << becomes
        << level_name(change.to) << '\n';
  }
  for (const std::string& service : restoration.unknown) {
    out << printable(service) << ": in the backup, but has not joined; passed over\n";
  }
  for (const std::string& service : restoration.missing) {
    out << printable(service) << ": not in the backup; keeps its level\n";
  }
  if (restoration.default_from == restoration.default_to && restoration.changes.empty()) {
    invocation.console.say("No level differs from the backup.");
  }
}

}  // namespace

int backup(Invocation& invocation, const std::string& file) {
  Console& console = invocation.console;
  const Lock lock(invocation.console, !invocation.dry_run);
  const Store store = load_store();
  const std::string path = file.empty() ? dated_name("kelotls-levels-", ".json") : file;
  if (stands_at(path)) {
    throw Failure(kFailed, printable(path) + " exists already", "A backup never replaces a file.");
  }
  Json::Value saved(Json::objectValue);
  saved["default-level"] = store.default_level;
  saved["services"] = store.services;
  if (!invocation.dry_run && !create_file(path, json_text(saved), 0600)) {
    throw Failure(kFailed, printable(path) + ": " + std::strerror(errno));
  }

  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["file"] = path;
    document["written"] = !invocation.dry_run;
    document["services"] = store.services.size();
    console.document(document);
  } else {
    console.data() << printable(path) << (invocation.dry_run ? ": would hold " : ": holds ")
                   << "the levels of " << store.services.size()
                   << (store.services.size() == 1 ? " service\n" : " services\n");
  }
  return kDone;
}

int restore(Invocation& invocation, const std::string& file) {
  Console& console = invocation.console;
  const Lock lock(invocation.console, !invocation.dry_run);
  const Store live = load_store();
  const Backup saved = read_backup(file);
  const Restoration restoration = foresee_restoration(live, saved);
  for (const std::string& warning : saved.warnings) {
    console.warn(printable(warning));
  }
  if (!invocation.dry_run) {
    run_restoration(saved, restoration);
  }

  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["written"] = !invocation.dry_run;
    document["default-level"]["from"] = level_json(restoration.default_from);
    document["default-level"]["to"] = level_json(restoration.default_to);
    document["changes"] = changes_json(restoration);
    document["unknown"] = names_json(restoration.unknown);
    document["missing"] = names_json(restoration.missing);
    console.document(document);
  } else {
    print_restoration(invocation, restoration);
    if (!invocation.dry_run) {
      console.say("Not in force yet: kelotlsctl apply");
    }
  }
  return kDone;
}

}  // namespace kelotlsctl
