// kelotlsctl init: the first data store of a fresh appliance.
#include "changes/settling.h"
#include "command_line.h"
#include "files.h"
#include "json_document.h"
#include "paths.h"
#include "store/history.h"
#include "store/store.h"

namespace kelotlsctl {

namespace {

/// The data store to be made: with an entry for each service that joined before, should an earlier
/// one have been lost. A descriptor that would break it stops this before anything is written.
Regeneration first_store(int level) {
  if (has_descriptors()) {
    return regenerate_store(empty_store(level));
  }
  return {empty_store(level), object({{"added", list_of({})}, {"unreadable", list_of({})}})};
}

}  // namespace

Report initialise(Console& console, const Arguments& arguments) {
  const int level = parse_level(arguments.level.empty() ? "intermediate" : arguments.level);
  const char* const path = kelotls::kDataStorePath;
  if (kelotls::exists_at(path)) {
    throw Failure(kFailed, std::string("there is a data store already: ") + path,
                  "Nothing was changed. If it cannot be used: kelotlsctl recover");
  }
  const std::vector<std::string> made = make_missing_directories(arguments.dry_run);
  const WriteAccess access(console, arguments.confidence());
  const Regeneration first = first_store(level);
  if (!arguments.dry_run) {
    Json::Value changes = changes_of(first.store.names());
    changes.append(level_change("default level", "none", level_text(level_json(level))));
    begin_record(arguments.command, arguments.reason, changes);
  }
  if (!arguments.dry_run &&
      !kelotls::create_file(path, kelotls::json_text(first.store.root), kStoreMode)) {
    throw system_failure(path);
  }

  const Json::Value& unreadable = first.document["unreadable"];
  Report report = {unreadable.empty() ? kDone : kFailed,
                   object({{"written", !arguments.dry_run},
                           {"data-store", path},
                           {"default-level", level_json(level)},
                           {"directories", list_of(made)},
                           {"services", first.document["added"]},
                           {"unreadable", unreadable}}),
                   warnings_of_unreadable(unreadable)};
  if (!first.document["added"].empty()) {
    report.warnings.emplace_back(
        "the services joined before, and their levels are lost with the data store: all follow the "
        "default level. Where there is a backup: kelotlsctl restore BACKUP");
  }
  return report;
}

void print_initialised(Console& console, const Json::Value& document) {
  const char* const verb = document["written"].asBool() ? ": made" : ": would be made";
  console.print_each(document["directories"], verb);
  console.data() << document["data-store"].asString() << verb << " with the default level "
                 << level_text(document["default-level"]) << '\n';
  console.print_each(document["services"], document["written"].asBool()
                                               ? ": taken from its descriptor"
                                               : ": would be taken from its descriptor");
}

}  // namespace kelotlsctl
