// kelotlsctl settle: takes back what was not confirmed in time, ends levels whose date has come.
#include "changes/settling.h"
#include "command_line.h"
#include "store/lock.h"

namespace kelotlsctl {

Report settle_due(Console& console, const Arguments& arguments) {
  if (arguments.wait) {
    watch(console);
    return {};
  }
  Settling settling;
  {
    const Lock lock(console, arguments.command, true);
    settling =
        settle(console, arguments.before_services ? Servers::kNotStarted : Servers::kRunning);
  }
  if (anything_to_watch()) {
    have_watched();
  }
  Report report = {settling.code, settling.document};
  if (settling.document["taken-back"].empty() && settling.document["returned"].empty()) {
    report.notes.emplace_back("Nothing is due.");
  }
  return report;
}

void print_settled(Console& console, const Json::Value& document) {
  console.print_each(document["taken-back"], ": taken back");
  for (const Json::Value& returned : document["returned"]) {
    console.data() << printable(returned["service"]) << ": returned to "
                   << level_text(returned["level"])
                   << (returned.isMember("fault") ? ", but: " + printable(returned["fault"]) : "")
                   << '\n';
  }
}

}  // namespace kelotlsctl
