// kelotlsctl default: the level of every service that has none of its own.
#include "changes/level_change.h"
#include "changes/way_back.h"
#include "clients/losses.h"
#include "command_line.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

/// A change of the default level is about those that follow it.
LevelChange make_plan(const Store& before, int level) {
  LevelChange plan = {before, before, {}};
  plan.after.root["default-level"] = level;
  for (const std::string& service : before.names()) {
    if (before.stored_level(service) == 0) {
      plan.selection.names.push_back(service);
    }
  }
  return plan;
}

Json::Value plan_json(const LevelChange& plan, bool is_written) {
  const Json::Value former = level_json(plan.before.default_level());
  const Json::Value requested = level_json(plan.after.default_level());
  return object({{"default-level", is_written ? requested : former},
                 {"former-level", former},
                 {"requested-level", requested},
                 {"written", is_written && former != requested},
                 {"apply", Json::Value()}});
}

Report set_and_apply(Console& console, const LevelChange& plan, const Arguments& arguments) {
  const ReloadOptions options = reload_options(arguments.reload_timeout);
  const Report application =
      arguments.dry_run ? foresee(console, plan) : bring_into_force(console, plan, options);
  Json::Value document = plan_json(plan, !arguments.dry_run);
  document["apply"] = application.document;
  if (!arguments.dry_run) {
    document["default-level"] = level_json(load_store().default_level());
    document["written"] = document["default-level"] != document["former-level"];
  }
  Report report = {application.code, document};
  report.is_undone = application.is_undone;
  return report;
}

Report set_only(const LevelChange& plan, bool is_dry_run) {
  Report report = {kDone, plan_json(plan, !is_dry_run)};
  if (report.document["written"].asBool()) {
    save_store(plan.after);
    if (any_pending(plan.after, plan.selection.names)) {
      report.notes.emplace_back("Not in force yet: kelotlsctl apply");
    }
  }
  return report;
}

}  // namespace

Report default_level(Console& console, const Arguments& arguments) {
  if (arguments.level.empty()) {
    return {kDone, object({{"default-level", level_json(load_store().default_level())},
                           {"written", false}})};
  }
  const int level = parse_level(arguments.level);
  if (level == 0) {
    throw Failure(kUsage, "the default level cannot follow itself",
                  "It is modern, intermediate or old.");
  }
  const WayBack back = way_back(arguments.confirm, arguments.confidence());
  const WriteAccess access(console, arguments.confidence(), back.joins());
  const LevelChange plan = make_plan(load_store(), level);
  plan.refuse_unreachable();
  const Json::Value losses =
      tell_losses(console, plan.before, plan.after, plan.selection.names, arguments.refuse_loss);
  const bool applies = arguments.apply || back.wait;
  if (applies) {
    require_trust(console, walk_places(console, kAllPlaces, plan.selection),
                  arguments.confidence());
  }
  if (!arguments.dry_run && (applies || plan.before.default_level() != level)) {
    begin_record(arguments.command, arguments.reason, plan.record());
  }
  Report made = make_change(
      console, back, [&] { return plan.snapshot(); },
      [&] {
        return applies ? set_and_apply(console, plan, arguments)
                       : set_only(plan, arguments.dry_run);
      });
  made.document["losses"] = losses;
  return made;
}

void print_default(Console& console, const Json::Value& document) {
  if (!document.isMember("requested-level")) {
    const Json::Value& level = document["default-level"];
    console.data() << describe_levels(level, effective_level_json(level["value"].asInt())) << '\n';
    return;
  }
  const Json::Value& apply = document["apply"];
  if (!apply.isNull() && apply["probed"].empty()) {
    print_foreseen(console, apply);
  } else if (!apply.isNull()) {
    print_application(console, apply);
  }
  const std::string requested = level_text(document["requested-level"]);
  const std::string former = level_text(document["former-level"]);
  const bool is_undone = !apply["undone"].empty() && !document["written"].asBool();
  console.data() << "default level: "
                 << (former == requested            ? "already " + requested
                     : is_undone                    ? "is back at " + former
                     : document["written"].asBool() ? former + " became " + requested
                                                    : former + " would become " + requested)
                 << '\n';
}

}  // namespace kelotlsctl
