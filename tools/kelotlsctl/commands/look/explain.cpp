// kelotlsctl explain: what this machine gives of a level, and why.
#include <kelotls/api_provider.h>

#include "command_line.h"
#include "state/application.h"
#include "tls/report.h"

namespace kelotlsctl {

namespace {

/// A word that is a level, and no service's name, means the level.
bool is_level(const std::string& subject, int& level) {
  try {
    level = parse_level(subject);
  } catch (const Failure&) {
    return false;
  }
  return true;
}

}  // namespace

Report explain(Console&, const Arguments& arguments) {
  Report report;
  int level = 0;
  if (is_level(arguments.subject, level)) {
    level = level != 0 ? level : load_store().default_level();
    report.document = explain_context(make_level_context(level).get(), level);
    return report;
  }
  const Store store = load_store();
  require_service(store, arguments.subject);
  const kelotls::ContextOwner context = service_context(arguments.subject);
  report.document = explain_context(context.get(), store.effective_level(arguments.subject));
  return report;
}

void print_explained(Console& console, const Json::Value& document) {
  print_explanation(console.data(), document, console.colour());
}

}  // namespace kelotlsctl
