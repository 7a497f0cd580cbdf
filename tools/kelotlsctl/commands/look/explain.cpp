// kelotlsctl explain: what this machine gives of a level, and why.
#include <kelotls/api_provider.h>

#include "command_line.h"
#include "state/application.h"
#include "tls/report.h"

namespace kelotlsctl {

Report explain(Console&, const Arguments& arguments) {
  // A word that is a level means the level, even where a service has the name.
  if (const std::optional<int> named = find_level(arguments.subject)) {
    const int level = *named != 0 ? *named : load_store().default_level();
    return {kDone, explain_context(make_level_context(level).get(), level)};
  }
  const Store store = load_store();
  require_service(store, arguments.subject);
  const kelotls::ContextOwner context = service_context(arguments.subject);
  return {kDone, explain_context(context.get(), store.effective_level(arguments.subject))};
}

void print_explained(Console& console, const Json::Value& document) {
  print_explanation(console.data(), document, console.colour());
}

}  // namespace kelotlsctl
