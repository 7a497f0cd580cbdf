// kelotlsctl levels: what each level asks for.
#include <kelotls/tls_profile_level.h>

#include "command_line.h"
#include "tls/report.h"

namespace kelotlsctl {

Report show_levels(Console&, const Arguments&) {
  Report report;
  report.document["levels"] = list_of({});
  for (int level = kelotls::TLS_PROFILE_LEVEL_MODERN; level <= kelotls::TLS_PROFILE_LEVEL_OLD;
       ++level) {
    report.document["levels"].append(describe_level(level));
  }
  return report;
}

void print_levels(Console& console, const Json::Value& document) {
  for (const Json::Value& description : document["levels"]) {
    print_level(console.data(), description, console.colour());
  }
}

}  // namespace kelotlsctl
