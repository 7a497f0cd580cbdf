// kelotlsctl recover: a new data store from the descriptors and a backup, where the old one cannot
// be used. No sequence of the library's own calls does this: regenerating writes a data store
// without a default level, setting the default one without services, and each is unreadable to the
// next.
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "changes/settling.h"
#include "command_line.h"
#include "framework_config.h"
#include "json_document.h"
#include "paths.h"
#include "store/documents.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

using kelotls::kDataStorePath;

/// What is to be done.
struct Plan {
  Store store;  ///< what is to be written, but for the levels of the backup's services
  std::optional<Store> saved;
  Json::Value document;

  Json::Value record() const {
    Json::Value changes = changes_of(store.names());
    changes.append(level_change("default level", "none", level_text(document["default-level"])));
    return changes;
  }
};

/// The default level, without services, and the backup.
Plan read_arguments(const Arguments& arguments) {
  Plan plan;
  const bool has_level = !arguments.level.empty();
  int level = parse_level(has_level ? arguments.level : "intermediate");
  if (!arguments.file.empty()) {
    plan.saved = read_backup(arguments.file);
    level = has_level ? level : plan.saved->default_level();
  }
  plan.store = empty_store(level);
  return plan;
}

void require_unusable_store() {
  if (try_store()) {
    throw Failure(kFailed, std::string("the data store ") + kDataStorePath + " is fine",
                  "There is nothing to recover.");
  }
}

/// A descriptor that cannot be taken over stops this before anything changes.
void complete(Plan& plan) {
  Regeneration regeneration = {plan.store,
                               object({{"added", list_of({})}, {"unreadable", list_of({})}})};
  if (kelotls::exists_at(kelotls::kServicesDir)) {
    regeneration = regenerate_store(plan.store);
  }
  plan.store = regeneration.store;
  const Json::Value restoration = restoration_json(plan.store, plan.saved.value_or(plan.store));
  const auto restored_of = [](const Json::Value& change) {
    return object({{"service", change["service"]}, {"level", change["to"]}});
  };
  plan.document =
      object({{"quarantined", kelotls::exists_at(kDataStorePath)
                                  ? dated_name(std::string(kDataStorePath) + ".broken-", "")
                                  : Json::Value()},
              {"default-level", level_json(plan.store.default_level())},
              {"services", regeneration.document["added"]},
              {"unreadable", regeneration.document["unreadable"]},
              {"restored", list_of(restoration["changes"], restored_of)},
              {"unknown", restoration["unknown"]}});
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
      throw system_failure(path);
    }
  }
  throw Failure(kFailed, dated + " and a thousand names like it exist already");
}

void execute(Plan& plan) {
  if (!plan.document["quarantined"].isNull()) {
    plan.document["quarantined"] = quarantine(plan.document["quarantined"].asString());
  }
  if (plan.saved) {
    const int default_level = plan.store.default_level();
    kelotls::restore_levels(plan.store.root, plan.saved->root);
    plan.store.root["default-level"] = default_level;
  }
  const std::string text = kelotls::json_text(plan.store.root, kelotls::Colons::kSpaced);
  if (!kelotls::replace_entry(kDataStorePath, text, kStoreMode)) {
    throw system_failure(kDataStorePath);
  }
}

}  // namespace

Report recover(Console& console, const Arguments& arguments) {
  Plan plan = read_arguments(arguments);
  make_missing_directories(arguments.dry_run);
  const WriteAccess access(console, arguments.confidence());
  require_unusable_store();
  complete(plan);
  if (!arguments.dry_run) {
    begin_record(arguments.command, arguments.reason, plan.record());
    execute(plan);
  }

  plan.document["written"] = !arguments.dry_run;
  const Json::Value& unreadable = plan.document["unreadable"];
  Report report = {unreadable.empty() ? kDone : kFailed, plan.document,
                   warnings_of_unreadable(unreadable)};
  if (!arguments.dry_run) {
    report.notes.emplace_back("Not in force yet: kelotlsctl apply");
  }
  return report;
}

void print_recovered(Console& console, const Json::Value& document) {
  const char* const would = document["written"].asBool() ? "" : "would be ";
  if (!document["quarantined"].isNull()) {
    console.data() << "broken data store: " << would << "quarantined as "
                   << document["quarantined"].asString() << '\n';
  }
  console.data() << "data store: " << would << "written with the default level "
                 << level_text(document["default-level"]) << '\n';
  console.print_each(document["services"], std::string(": ") + would + "taken from its descriptor");
  for (const Json::Value& restored : document["restored"]) {
    console.data() << printable(restored["service"]) << ": " << level_text(restored["level"]) << ' '
                   << would << "taken from the backup\n";
  }
  console.print_each(document["unknown"], ": in the backup, but has no descriptor; passed over");
}

}  // namespace kelotlsctl
