// kelotlsctl init: the first data store of a fresh appliance.
#include "command_line.h"
#include "files.h"
#include "json_document.h"
#include "paths.h"
#include "state/history.h"
#include "state/lock.h"
#include "state/store.h"

namespace kelotlsctl {

Report initialise(Console& console, const Arguments& arguments) {
  const int level = parse_level(arguments.level.empty() ? "intermediate" : arguments.level);
  const char* const path = kelotls::kDataStorePath;
  if (kelotls::exists_at(path)) {
    throw Failure(kFailed, std::string("there is a data store already: ") + path,
                  "Nothing was changed. If it cannot be used: kelotlsctl recover");
  }
  const std::vector<std::string> made = make_missing_directories(arguments.dry_run);
  const Lock lock(console, arguments.command, !arguments.dry_run);
  if (!arguments.dry_run) {
    Json::Value changes = changes_of({});
    changes.append(level_change("default level", "none", level_text(level_json(level))));
    begin_record(arguments.command, arguments.reason, changes);
  }
  if (!arguments.dry_run &&
      !kelotls::create_file(path, kelotls::json_text(empty_store(level).root), kStoreMode)) {
    throw system_failure(path);
  }

  Report report = {kDone, object({{"written", !arguments.dry_run},
                                  {"data-store", path},
                                  {"default-level", level_json(level)},
                                  {"folders", list_of(made)}})};
  if (has_descriptors()) {
    report.warnings.emplace_back(
        "there are descriptors of services; kelotlsctl regen gives them entries");
  }
  return report;
}

void print_initialised(Console& console, const Json::Value& document) {
  const char* const verb = document["written"].asBool() ? ": made" : ": would be made";
  console.print_each(document["folders"], verb);
  console.data() << document["data-store"].asString() << verb << " with the default level "
                 << level_text(document["default-level"]) << '\n';
}

}  // namespace kelotlsctl
