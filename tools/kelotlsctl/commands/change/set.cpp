// kelotlsctl set: the levels of services, and with --apply their way into force.
#include "changes/dating.h"
#include "changes/level_change.h"
#include "changes/way_back.h"
#include "clients/losses.h"
#include "command_line.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

/// What the operator asks for: services, and a level as the last word.
struct Request {
  std::vector<std::string> services;
  int level = 0;
};

/// Points out where the level came before the service.
[[noreturn]] void refuse_level(const std::string& level, const std::vector<std::string>& services) {
  const bool is_swapped = services.size() == 1 && find_level(services[0]);
  throw Failure(kUsage,
                is_swapped ? "\"" + printable(level) + "\" is not a level" : no_level_text(level),
                is_swapped ? "The service comes first: kelotlsctl set " + printable(level) + " " +
                                 printable(services[0])
                           : kLevelAdvice);
}

Request parse_request(const Arguments& arguments) {
  Request request = {arguments.services, 0};
  const std::string level = request.services.back();
  request.services.pop_back();
  if (request.services.empty() != arguments.all) {
    throw Failure(kUsage,
                  arguments.all ? "--all and services exclude each other"
                                : "a service and a level are needed",
                  "kelotlsctl set SERVICE... LEVEL, or kelotlsctl set --all LEVEL");
  }
  const std::optional<int> found = find_level(level);
  if (!found) {
    refuse_level(level, request.services);
  }
  request.level = *found;
  return request;
}

LevelChange make_plan(const Request& request) {
  const Store before = load_store();
  LevelChange plan = {before, before, select_services(before, request.services)};
  for (const std::string& service : plan.selection.names) {
    plan.after.root["services"][service]["current-level"] = request.level;
  }
  return plan;
}

Json::Value plan_json(const LevelChange& plan, bool is_written) {
  return list_of(plan.selection.names, [&](const std::string& service) {
    const Json::Value former = level_json(plan.before.stored_level(service));
    Json::Value change = plan.after.levels_json(service);
    const Json::Value requested = change["stored-level"];
    change["former-level"] = former;
    change["requested-level"] = requested;
    change["stored-level"] = is_written ? requested : former;
    change["written"] = is_written && former != requested;
    change["undone"] = false;
    return change;
  });
}

void tell_undone(Json::Value& services, const Json::Value& undone) {
  for (Json::Value& service : services) {
    for (const Json::Value& element : undone) {
      if (element["service"] == service["service"]) {
        service["undone"] = true;
        service["written"] = false;
        service["stored-level"] = element["level"];
      }
    }
  }
}

/// How the new levels get to the services; empty where they are there.
std::string next_step(const LevelChange& plan) {
  ServiceInspector inspector(plan.after);
  bool is_next_context = true;
  bool is_in_force = true;
  for (const std::string& service : plan.selection.names) {
    const State state = inspector.inspect(service).state;
    is_next_context = is_next_context && state == State::kNextContext;
    is_in_force = is_in_force && (state == State::kInForce || state == State::kNextContext);
  }
  return is_next_context ? "In force from the service's next context on."
         : is_in_force   ? ""
                         : "Not in force yet: kelotlsctl apply";
}

bool writes_anything(const LevelChange& plan) { return plan.before.root != plan.after.root; }

Report set_only(const LevelChange& plan, bool is_dry_run) {
  Report report;
  report.document["services"] = plan_json(plan, !is_dry_run);
  report.document["apply"] = Json::Value();
  if (!is_dry_run && writes_anything(plan)) {
    save_store(plan.after);
    const std::string step = next_step(plan);
    report.notes.insert(report.notes.end(), step.empty() ? 0 : 1, step);
  }
  return report;
}

Report set_and_apply(Console& console, const LevelChange& plan, const ReloadOptions& options,
                     bool is_dry_run) {
  Report report = is_dry_run ? foresee(console, plan) : bring_into_force(console, plan, options);
  Json::Value services = plan_json(plan, !is_dry_run);
  tell_undone(services, report.document["undone"]);
  report.document.removeMember("undone");
  report.document = object({{"services", services}, {"apply", report.document}});
  return report;
}

Json::Value undone_in(const Report& report) {
  Json::Value undone = list_of({});
  for (const Json::Value& service : report.document["services"]) {
    if (service["undone"].asBool()) {
      undone.append(service);
    }
  }
  return undone;
}

/// Writes the levels with their dates, and brings them into force where that is asked for.
Report carry_out(Console& console, const LevelChange& plan, const ReloadOptions& options,
                 const Dating& dating, bool applies) {
  dating.begin(plan);
  if (dating.brings_dates()) {
    have_dates_watched();
  }
  Report report = applies ? set_and_apply(console, plan, options, false) : set_only(plan, false);
  dating.end(plan, undone_in(report));
  return report;
}

}  // namespace

Report set_level(Console& console, const Arguments& arguments) {
  const Request request = parse_request(arguments);
  const ReloadOptions options = reload_options(arguments.reload_timeout);
  WayBack back = way_back(arguments.confirm, arguments.confidence());
  const WriteAccess access(console, arguments.confidence(), back.joins());
  const Dating dating(arguments.until, arguments.then, arguments.reason);
  const LevelChange plan = make_plan(request);
  plan.refuse_unreachable();
  dating.refuse_pointless(plan);
  const Json::Value losses =
      tell_losses(console, plan.before, plan.after, plan.selection.names, arguments.refuse_loss);
  const bool applies = arguments.apply || back.wait;
  if (applies) {
    require_trust(console, walk_places(console, kAllPlaces, plan.selection),
                  arguments.confidence());
  }
  if (!arguments.dry_run &&
      (applies || writes_anything(plan) || dating.concerns(plan.selection.names))) {
    Json::Value changes = plan.record();
    dating.tell(changes, plan);
    begin_record(arguments.command, arguments.reason, changes);
  }
  // A level that is to end is not to stay for want of its date.
  back.is_kept = back.is_kept || dating.brings_dates();
  Report made = make_change(
      console, back, [&] { return plan.snapshot(); },
      [&] {
        return !arguments.dry_run ? carry_out(console, plan, options, dating, applies)
               : applies          ? set_and_apply(console, plan, options, true)
                                  : set_only(plan, true);
      });
  made.document["losses"] = losses;
  return made;
}

void print_set(Console& console, const Json::Value& document) {
  const Json::Value& apply = document["apply"];
  if (!apply.isNull() && apply["probed"].empty()) {
    print_foreseen(console, apply);
  } else if (!apply.isNull()) {
    print_application(console, apply);
  }
  for (const Json::Value& service : document["services"]) {
    const std::string level =
        describe_levels(service["requested-level"], service["effective-level"]);
    const std::string change =
        service["former-level"] == service["requested-level"]
            ? "already " + level
            : level_text(service["former-level"]) +
                  (service["written"].asBool() ? " became " : " would become ") + level;
    if (!service["undone"].asBool()) {
      console.data() << printable(service["service"]) << ": " << change << '\n';
    }
  }
}

}  // namespace kelotlsctl
