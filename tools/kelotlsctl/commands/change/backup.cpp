// kelotlsctl backup: all levels, saved to a new file.
#include "command_line.h"
#include "files.h"
#include "json_document.h"
#include "store/documents.h"
#include "store/lock.h"

namespace kelotlsctl {

Report backup(Console& console, const Arguments& arguments) {
  const Lock lock(console, arguments.command, !arguments.dry_run);
  const Store store = load_store();
  const std::string path =
      arguments.file.empty() ? dated_name("kelotls-levels-", ".json") : arguments.file;
  if (kelotls::exists_at(path)) {
    throw Failure(kFailed, printable(path) + " exists already", "A backup never replaces a file.");
  }
  const Json::Value saved =
      object({{"default-level", store.default_level()}, {"services", store.services()}});
  if (!arguments.dry_run && !kelotls::create_file(path, kelotls::json_text(saved), 0600)) {
    throw system_failure(printable(path));
  }
  return {kDone, object({{"file", path},
                         {"written", !arguments.dry_run},
                         {"services", store.services().size()}})};
}

void print_backup(Console& console, const Json::Value& document) {
  const unsigned int services = document["services"].asUInt();
  console.data() << printable(document["file"])
                 << (document["written"].asBool() ? ": holds " : ": would hold ")
                 << "the levels of " << services << (services == 1 ? " service\n" : " services\n");
}

}  // namespace kelotlsctl
