// kelotlsctl explain: what this machine gives of a level, and why.
#include <kelotls/api_provider.h>

#include <algorithm>

#include "changes/application.h"
#include "clients/losses.h"
#include "command_line.h"
#include "levels/report.h"
#include "output/suggestion.h"
#include "paths.h"
#include "service/service_state.h"

namespace kelotlsctl {

namespace {

/// That a machine gives less than the level asks for is no fault; unsafe DH parameters are.
Report report_of(const Json::Value& explanation) {
  const Json::Value& differences = explanation["differences"];
  const bool is_unsafe = std::any_of(
      differences.begin(), differences.end(),
      [](const Json::Value& difference) { return difference["cause"] == "dh-file-unsafe"; });
  return {is_unsafe ? kNotSo : kDone, explanation};
}

/// A word that is neither may have been meant as either.
void require_level_or_service(const Store& store, const std::string& subject) {
  const std::string level = nearest(subject, level_words());
  if (!store.has(subject) && nearest(subject, store.names()).empty() && !level.empty()) {
    throw Failure(kNoSuchService,
                  "no service \"" + printable(subject) + "\" has joined" +
                      did_you_mean(subject, level_words()),
                  kLevelAdvice);
  }
  require_service(store, subject);
}

}  // namespace

Report explain(Console&, const Arguments& arguments) {
  // A word that is a level means the level, even where a service has the name.
  if (const std::optional<int> named = find_level(arguments.subject)) {
    const int level = *named != 0 ? *named : load_store().default_level();
    return report_of(explain_context(make_level_context(level).get(), level));
  }
  const Store store = load_store();
  require_level_or_service(store, arguments.subject);
  const kelotls::ContextOwner context = service_context(store, arguments.subject);
  Report report =
      report_of(explain_context(context.get(), store.effective_level(arguments.subject)));
  const std::string path = kelotls::descriptor_path(arguments.subject);
  if (!read_service_descriptor(path).template_path().empty()) {
    report.notes.emplace_back(
        "This is about OpenSSL. The service takes its settings from a template: its server may be "
        "another, which kelotlsctl probe asks.");
  }
  const std::string refused =
      refused_text(arguments.subject, store.effective_level(arguments.subject));
  report.notes.insert(report.notes.end(), refused.empty() ? 0 : 1, refused);
  return report;
}

void print_explained(Console& console, const Json::Value& document) {
  print_explanation(console.data(), document, console.colour());
}

}  // namespace kelotlsctl
