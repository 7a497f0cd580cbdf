// kelotlsctl levels: what each level asks for.
#include <kelotls/tls_profile_level.h>

#include "command_line.h"
#include "levels/report.h"

namespace kelotlsctl {

Report show_levels(Console&, const Arguments&) {
  constexpr int kLevels[] = {kelotls::TLS_PROFILE_LEVEL_MODERN,
                             kelotls::TLS_PROFILE_LEVEL_INTERMEDIATE,
                             kelotls::TLS_PROFILE_LEVEL_OLD};
  return {kDone, object({{"levels", list_of(kLevels, describe_level)}})};
}

void print_levels(Console& console, const Json::Value& document) {
  for (const Json::Value& description : document["levels"]) {
    print_level(console.data(), description, console.colour());
  }
}

}  // namespace kelotlsctl
