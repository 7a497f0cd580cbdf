// kelotlsctl render: all templates, rendered for the levels of their services.
#include <algorithm>
#include <optional>

#include "changes/application.h"
#include "changes/settling.h"
#include "command_line.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

Json::Value results_of(const Json::Value& renderings) {
  return list_of(renderings, [](const Json::Value& rendered) {
    return object({{"service", rendered["service"]},
                   {"result", rendered.isMember("fault") ? "failed" : "in-force"}});
  });
}

void print_differences(Console& console, const Json::Value& document) {
  for (const Json::Value& rendered : document["services"]) {
    console.data() << printable_lines(rendered["diff"].asString());
  }
}

}  // namespace

Report render_templates(Console& console, const Arguments& arguments) {
  if (!arguments.preview.empty()) {
    return preview_templates(console, arguments);
  }
  if (!arguments.level.empty()) {
    throw Failure(kUsage, "--level goes with --preview: services have their own levels");
  }
  const bool writes = !arguments.check && !arguments.dry_run;
  std::optional<WriteAccess> access;
  if (writes) {
    access.emplace(console, arguments.confidence());
  }
  const Store store = load_store();
  const Selection selection = select_services(store, arguments.services);
  require_trust(console, walk_places(console, kRenderingPlaces, selection), arguments.confidence());
  if (writes) {
    begin_record(arguments.command, arguments.reason, changes_of(selection.names));
  }
  const Json::Value renderings = render_templates_of(
      console, store, selection,
      writes ? kelotls::Rendering::kInForce : kelotls::Rendering::kPreview, arguments.check);
  if (writes) {
    record_results(results_of(renderings));
  }
  warn_of_faults(console, renderings, "service", ": ");
  const bool any_change =
      std::any_of(renderings.begin(), renderings.end(),
                  [](const Json::Value& rendered) { return rendered["change"] != "none"; });
  return {any_fault(renderings)           ? kFailed
          : arguments.check && any_change ? kNotSo
                                          : kDone,
          object({{"written", writes}, {"services", renderings}}),
          {},
          {},
          arguments.check ? print_differences : print_rendered};
}

void print_rendered(Console& console, const Json::Value& document) {
  print_renderings(console, document["services"], document["written"].asBool());
}

}  // namespace kelotlsctl
