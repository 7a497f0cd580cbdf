// kelotlsctl init: the first data store of a fresh appliance.
#include <cerrno>
#include <cstring>

#include "command_line.h"
#include "files.h"
#include "json_document.h"
#include "paths.h"
#include "state/store.h"

namespace kelotlsctl {

namespace {

std::vector<std::string> missing_directories() {
  std::vector<std::string> missing;
  for (const char* directory : kDirectories) {
    if (!kelotls::exists_at(directory)) {
      missing.emplace_back(directory);
    }
  }
  return missing;
}

}  // namespace

Report initialise(Console& console, const Arguments& arguments) {
  const int level =
      parse_level(arguments.default_level.empty() ? "intermediate" : arguments.default_level);
  const char* const path = kelotls::kDataStorePath;
  if (kelotls::exists_at(path)) {
    throw Failure(kFailed, std::string("there is a data store already: ") + path,
                  "Nothing was changed. If it cannot be used: kelotlsctl recover");
  }
  const std::vector<std::string> made =
      arguments.dry_run ? missing_directories() : make_missing_directories();
  const Lock lock(console, !arguments.dry_run);
  if (!arguments.dry_run &&
      !kelotls::create_file(path, kelotls::json_text(empty_store(level).root), kStoreMode)) {
    throw Failure(kFailed, std::string(path) + ": " + std::strerror(errno));
  }

  Report report;
  report.document = object({{"written", !arguments.dry_run},
                            {"data-store", path},
                            {"default-level", level_json(level)},
                            {"folders", list_of(made)}});
  std::vector<std::string> descriptors;
  if (kelotls::list_directory(kelotls::kServicesDir, descriptors) && !descriptors.empty()) {
    report.warnings.emplace_back(
        "there are descriptors of services; kelotlsctl regen gives them entries");
  }
  return report;
}

void print_initialised(Console& console, const Json::Value& document) {
  const char* const verb = document["written"].asBool() ? ": made" : ": would be made";
  for (const Json::Value& directory : document["folders"]) {
    console.data() << directory.asString() << verb << '\n';
  }
  console.data() << document["data-store"].asString() << verb << " with the default level "
                 << level_text(document["default-level"]) << '\n';
}

}  // namespace kelotlsctl
