// kelotlsctl backup: all levels, saved to a new file or to the standard output.
#include "command_line.h"
#include "files.h"
#include "json_document.h"
#include "store/documents.h"
#include "store/lock.h"

namespace kelotlsctl {

namespace {

constexpr char kStandardOutput[] = "-";

Json::Value report_json(const std::string& file, const Store& store, bool is_written) {
  return object({{"file", file}, {"written", is_written}, {"services", store.services().size()}});
}

/// The text of the backup itself, as a file would hold it.
void print_backup_itself(Console& console, const Json::Value& document) {
  if (document["written"].asBool()) {
    console.data() << kelotls::json_text(document["backup"]);
  } else {
    print_backup(console, document);
  }
}

/// A terminal escapes nothing of it: what comes back has to be what there was.
Report hand_over(const Store& store, const Json::Value& saved, bool is_dry_run) {
  Report report = {kDone, report_json(kStandardOutput, store, !is_dry_run)};
  if (!is_dry_run) {
    report.document["backup"] = saved;
  }
  report.print = print_backup_itself;
  return report;
}

}  // namespace

Report backup(Console& console, const Arguments& arguments) {
  const Lock lock(console, arguments.command, !arguments.dry_run);
  const Store store = load_store();
  const Json::Value saved =
      object({{"default-level", store.default_level()}, {"services", store.services()}});
  if (arguments.file == kStandardOutput) {
    return hand_over(store, saved, arguments.dry_run);
  }
  const std::string path =
      arguments.file.empty() ? dated_name("kelotls-levels-", ".json") : arguments.file;
  if (kelotls::exists_at(path)) {
    throw Failure(kFailed, printable(path) + " exists already", "A backup never replaces a file.");
  }
  if (!arguments.dry_run && !kelotls::create_file(path, kelotls::json_text(saved), 0600)) {
    throw system_failure(printable(path));
  }
  return {kDone, report_json(path, store, !arguments.dry_run)};
}

void print_backup(Console& console, const Json::Value& document) {
  const unsigned int services = document["services"].asUInt();
  console.data() << printable(document["file"])
                 << (document["written"].asBool() ? ": holds " : ": would hold ")
                 << "the levels of " << services << (services == 1 ? " service\n" : " services\n");
}

}  // namespace kelotlsctl
