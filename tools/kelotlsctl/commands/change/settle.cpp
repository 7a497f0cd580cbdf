// kelotlsctl settle: takes back what was not confirmed in time, ends levels whose date has come.
#include "changes/settling.h"
#include "command_line.h"
#include "store/lock.h"

namespace kelotlsctl {

namespace {

Settling settle_once(Console& console, const Arguments& arguments, Servers servers) {
  const Lock lock(console, arguments.command, true);
  return settle(console, servers);
}

void have_rest_watched() {
  if (anything_to_watch()) {
    have_watched();
  }
}

/// What is left is waited for, whatever has failed.
Settling settle_and_watch(Console& console, const Arguments& arguments) {
  Settling settling;
  try {
    settling = settle_once(console, arguments, Servers::kRunning);
  } catch (const std::exception&) {
    have_rest_watched();
    throw;
  }
  have_rest_watched();
  return settling;
}

}  // namespace

Report settle_due(Console& console, const Arguments& arguments) {
  if (arguments.wait) {
    watch(console);
    return {};
  }
  // A process that waits would run reloaders, for servers that have not started.
  const Settling settling = arguments.before_services
                                ? settle_once(console, arguments, Servers::kNotStarted)
                                : settle_and_watch(console, arguments);
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
