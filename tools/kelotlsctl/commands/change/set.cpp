// kelotlsctl set: a service's level, and with --apply its way into force.
#include <exception>

#include "command_line.h"
#include "state/application.h"

namespace kelotlsctl {

namespace {

/// A change of one service's level.
struct Plan {
  std::string service;
  Store before;
  Store after;
};

Plan make_plan(const Arguments& arguments, int level) {
  const Store before = load_store();
  require_service(before, arguments.service);
  Plan plan = {arguments.service, before, before};
  plan.after.root["services"][plan.service]["current-level"] = level;
  return plan;
}

Report report_of(const Plan& plan, bool is_written) {
  const Json::Value former = level_json(plan.before.stored_level(plan.service));
  Json::Value document = plan.after.levels_json(plan.service);
  const Json::Value requested = document["stored-level"];
  document["former-level"] = former;
  document["requested-level"] = requested;
  document["stored-level"] = is_written ? requested : former;
  document["written"] = is_written && former != requested;
  document["undone"] = false;
  document["apply"] = Json::Value();
  return {kDone, document};
}

/// Everything as it was before, as far as that can be had.
void undo(Console& console, const Plan& plan, Report& report) {
  save_store(plan.before);
  bool is_in_force = false;
  try {
    is_in_force = apply_to(console, plan.before, {}).code == kDone;
  } catch (const std::exception& exception) {
    console.warn(printable(std::string(exception.what())));
  }
  report.document["undone"] = true;
  report.document["written"] = false;
  report.document["stored-level"] = report.document["former-level"];
  report.warnings.push_back(
      printable(plan.service) + " is back at " + level_text(report.document["former-level"]) +
      (is_in_force ? ", rendered and reloaded" : ", but rendering or reloading failed again"));
}

/// Sets the level and brings it into force; should a step fail, undoes it.
Report set_and_apply(Console& console, const Plan& plan) {
  Report report = report_of(plan, true);
  save_store(plan.after);
  try {
    const Report application = apply_to(console, plan.after, {plan.service});
    report.document["apply"] = application.document;
    report.code = application.code;
  } catch (const std::exception&) {
    undo(console, plan, report);
    console.warn(report.warnings.back());
    throw;
  }
  if (report.code != kDone) {
    undo(console, plan, report);
  }
  return report;
}

/// How the new level gets to the service.
std::string next_step(const Store& store, const std::string& service) {
  return ServiceInspector(store).inspect(service).state == State::kNextContext
             ? "In force from the service's next context on."
             : "Not in force yet: kelotlsctl apply";
}

}  // namespace

Report set_level(Console& console, const Arguments& arguments) {
  const int level = parse_level(arguments.level);
  const Lock lock(console, !arguments.dry_run);
  const Plan plan = make_plan(arguments, level);
  if (arguments.dry_run) {
    return report_of(plan, false);
  }
  if (arguments.apply) {
    return set_and_apply(console, plan);
  }
  Report report = report_of(plan, true);
  if (report.document["written"].asBool()) {
    save_store(plan.after);
    if (!console.json()) {
      report.notes.push_back(next_step(plan.after, plan.service));
    }
  }
  return report;
}

void print_set(Console& console, const Json::Value& document) {
  if (!document["apply"].isNull()) {
    print_application(console, document["apply"]);
  }
  if (document["undone"].asBool()) {
    return;
  }
  const std::string level =
      describe_levels(document["requested-level"], document["effective-level"]);
  console.data() << printable(document["service"]) << ": ";
  if (document["former-level"] == document["requested-level"]) {
    console.data() << "already " << level << '\n';
    return;
  }
  console.data() << level_text(document["former-level"])
                 << (document["written"].asBool() ? " became " : " would become ") << level << '\n';
}

}  // namespace kelotlsctl
