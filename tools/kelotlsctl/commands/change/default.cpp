// kelotlsctl default: the level of every service that has none of its own.
#include "command_line.h"
#include "state/store.h"

namespace kelotlsctl {

Report default_level(Console& console, const Arguments& arguments) {
  const bool is_change = !arguments.level.empty();
  const int requested = is_change ? parse_level(arguments.level) : 0;
  const Lock lock(console, is_change && !arguments.dry_run);
  Store store = load_store();
  const int former = store.default_level();
  const bool writes = is_change && !arguments.dry_run && former != requested;
  if (writes) {
    store.root["default-level"] = requested;
    save_store(store);
  }

  Report report;
  report.document["default-level"] = level_json(store.default_level());
  report.document["written"] = writes;
  if (is_change) {
    report.document["former-level"] = level_json(former);
    report.document["requested-level"] = level_json(requested);
    if (requested == 0) {
      report.warnings.emplace_back(
          "a default level cannot follow itself; 0 counts as intermediate");
    }
  }
  if (writes) {
    report.notes.emplace_back("Not in force yet: kelotlsctl apply");
  }
  return report;
}

void print_default(Console& console, const Json::Value& document) {
  if (!document.isMember("requested-level")) {
    const Json::Value& level = document["default-level"];
    console.data() << describe_levels(level, level) << '\n';
    return;
  }
  const std::string requested = level_text(document["requested-level"]);
  console.data() << "default level: ";
  if (document["former-level"] == document["requested-level"]) {
    console.data() << "already " << requested << '\n';
  } else {
    console.data() << level_text(document["former-level"])
                   << (document["written"].asBool() ? " became " : " would become ") << requested
                   << '\n';
  }
}

}  // namespace kelotlsctl
