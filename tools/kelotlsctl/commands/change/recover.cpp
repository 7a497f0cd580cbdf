// kelotlsctl recover: a new data store from the descriptors and a backup, where the old one cannot
// be used. No sequence of the library's own calls does this: regenerating writes a data store
// without a default level, setting the default one without services, and each is unreadable to the
// next.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "command_line.h"
#include "files.h"
#include "json_document.h"
#include "log_messages.h"
#include "paths.h"
#include "state/documents.h"

namespace kelotlsctl {

namespace {

using kelotls::kDataStorePath;

[[noreturn]] void fail_on(const std::string& path) {
  throw Failure(kFailed, path + ": " + std::strerror(errno));
}

/// What is to be done.
struct Plan {
  bool has_broken_store = false;
  Store store;  ///< what is to be written, but for the backup's levels
  std::optional<Store> saved;
  std::optional<int> default_level;  ///< that wins over the backup's
  Json::Value document;
};

void require_unusable_store() {
  Store store;
  if (try_store(store) == StoreCondition::kUsable) {
    throw Failure(kFailed, std::string("the data store ") + kDataStorePath + " is fine",
                  "There is nothing to recover.");
  }
}

Json::Value restored_json(const Json::Value& changes) {
  Json::Value list = list_of({});
  for (const Json::Value& change : changes) {
    list.append(object({{"service", change["service"]}, {"level", change["to"]}}));
  }
  return list;
}

/// A descriptor that cannot be taken over stops this before anything changes.
Plan make_plan(const Arguments& arguments, std::optional<Store> saved) {
  Plan plan;
  plan.saved = std::move(saved);
  if (!arguments.default_level.empty()) {
    plan.default_level = parse_level(arguments.default_level);
  }
  plan.has_broken_store = kelotls::exists_at(kDataStorePath);
  plan.store = empty_store(plan.default_level.value_or(plan.saved ? plan.saved->default_level()
                                                                  : parse_level("intermediate")));
  Json::Value& document = plan.document;
  document["put-aside"] =
      plan.has_broken_store ? Json::Value(dated_name(std::string(kDataStorePath) + ".broken-", ""))
                            : Json::Value();
  document["default-level"] = level_json(plan.store.default_level());
  for (const char* list : {"services", "unreadable", "restored", "unknown"}) {
    document[list] = list_of({});
  }
  if (kelotls::exists_at(kelotls::kServicesDir)) {
    const Regeneration regeneration = regenerate_store(plan.store);
    plan.store = regeneration.store;
    document["services"] = regeneration.document["added"];
    document["unreadable"] = regeneration.document["unreadable"];
  }
  if (plan.saved) {
    const Json::Value restoration = restoration_json(plan.store, *plan.saved);
    document["restored"] = restored_json(restoration["changes"]);
    document["unknown"] = restoration["unknown"];
  }
  return plan;
}

/// Keeps the broken file under a name that nothing has yet, and the data store's path is never
/// without a file.
std::string quarantine(const std::string& dated) {
  for (int attempt = 1; attempt < 1000; ++attempt) {
    std::string path = attempt == 1 ? dated : dated + "-" + std::to_string(attempt);
    if (kelotls::exists_at(path)) {
      continue;
    }
    // A second name first; a directory, or a file system without such, takes a rename.
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

void execute(Plan& plan) {
  if (plan.has_broken_store) {
    plan.document["put-aside"] = quarantine(plan.document["put-aside"].asString());
  }
  if (plan.saved) {
    restore_levels(plan.store, *plan.saved);
    plan.store.root["default-level"] = plan.default_level.value_or(plan.saved->default_level());
  }
  const std::string text = kelotls::json_text(plan.store.root, kelotls::Colons::kSpaced);
  if (!kelotls::replace_entry(kDataStorePath, text, kStoreMode)) {
    fail_on(kDataStorePath);
  }
}

}  // namespace

Report recover(Console& console, const Arguments& arguments) {
  if (!arguments.default_level.empty()) {
    static_cast<void>(parse_level(arguments.default_level));
  }
  std::optional<Store> saved;
  if (!arguments.backup_file.empty()) {
    saved = read_backup(arguments.backup_file);
  }
  if (!arguments.dry_run) {
    make_missing_directories();
  }
  const Lock lock(console, !arguments.dry_run);
  require_unusable_store();
  Plan plan = make_plan(arguments, std::move(saved));
  if (!arguments.dry_run) {
    execute(plan);
  }

  Report report;
  report.code = plan.document["unreadable"].empty() ? kDone : kFailed;
  report.document = plan.document;
  report.document["written"] = !arguments.dry_run;
  report.warnings = warnings_of_unreadable(plan.document["unreadable"]);
  if (!arguments.dry_run) {
    report.notes.emplace_back("Not in force yet: kelotlsctl apply");
  }
  return report;
}

void print_recovered(Console& console, const Json::Value& document) {
  const char* const would = document["written"].asBool() ? "" : "would be ";
  if (!document["put-aside"].isNull()) {
    console.data() << "broken data store: " << would << "put aside as "
                   << document["put-aside"].asString() << '\n';
  }
  console.data() << "data store: " << would << "written with the default level "
                 << level_text(document["default-level"]) << '\n';
  for (const Json::Value& service : document["services"]) {
    console.data() << printable(service.asString()) << ": " << would
                   << "taken from its descriptor\n";
  }
  for (const Json::Value& restored : document["restored"]) {
    console.data() << printable(restored["service"].asString()) << ": "
                   << level_text(restored["level"]) << ' ' << would << "taken from the backup\n";
  }
  for (const Json::Value& service : document["unknown"]) {
    console.data() << printable(service.asString())
                   << ": in the backup, but has no descriptor; passed over\n";
  }
}

}  // namespace kelotlsctl
