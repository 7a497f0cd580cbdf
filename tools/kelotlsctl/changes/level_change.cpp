// Owns a change of levels.
#include "changes/level_change.h"

#include <exception>

#include "changes/snapshot.h"
#include "service/expected_differences.h"
#include "store/addresses.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

Json::Value unsuccessful(const Json::Value& probed) {
  Json::Value services = list_of({});
  for (const Json::Value& element : probed) {
    // What could not be told is no failure.
    if (element["result"] != "in-force" && element["result"] != "not-seen") {
      services.append(element["service"]);
    }
  }
  return services;
}

/// The data store with these services as they were before.
Store without(const LevelChange& change, const std::vector<std::string>& services) {
  if (services.size() == change.selection.names.size()) {
    return change.before;
  }
  Store store = change.after;
  for (const std::string& service : services) {
    const int former = change.before.stored_level(service);
    const bool was_changed = former != change.after.stored_level(service);
    store.root["services"][service]["current-level"] =
        was_changed ? former : change.before.effective_level(service);
  }
  return store;
}

/// Gives the services their former levels back, as far as that can be had.
Json::Value take_back(Console& console, const LevelChange& change,
                      const std::vector<std::string>& services, ReloadOptions options) {
  const Store store = without(change, services);
  save_store(store);
  options.heeds_interruption = false;
  Json::Value probed;
  try {
    probed = apply_to(console, store, {services, false}, options).document["probed"];
  } catch (const std::exception& exception) {
    console.warn(printable(std::string(exception.what())));
  }
  Json::ArrayIndex index = 0;
  return list_of(services, [&](const std::string& service) {
    const bool is_in_force = probed.isArray() && probed[index++]["result"] == "in-force";
    const Json::Value level = level_json(store.stored_level(service));
    console.warn(
        printable(service) + " is back at " + level_text(level) +
        (is_in_force ? ", rendered and reloaded" : ", but rendering or reloading failed again"));
    return object({{"service", service}, {"level", level}, {"in-force", is_in_force}});
  });
}

void record_result(const LevelChange& change, const Json::Value& undone) {
  if (undone.size() == change.selection.names.size()) {
    set_result("undone");
  } else if (!undone.empty()) {
    set_result("done", list_of(undone, [](const Json::Value& element) {
                 return object({{"service", element["service"]}, {"result", "undone"}});
               }));
  }
}

}  // namespace

Json::Value LevelChange::record() const {
  Json::Value changes = list_of({});
  if (before.default_level() != after.default_level()) {
    changes.append(level_change("default level", level_text(level_json(before.default_level())),
                                level_text(level_json(after.default_level()))));
  }
  for (const std::string& service : selection.names) {
    const int former = before.stored_level(service);
    const int level = after.stored_level(service);
    if (former != level) {
      changes.append(
          level_change(service, level_text(level_json(former)), level_text(level_json(level))));
    }
  }
  return changes.empty() ? changes_of(selection.names) : changes;
}

LevelChange LevelChange::of_own_levels() const {
  LevelChange change = {before, after, {}};
  for (const std::string& service : selection.names) {
    if (before.stored_level(service) != after.stored_level(service)) {
      change.selection.names.push_back(service);
    }
  }
  return change;
}

Json::Value LevelChange::snapshot() const {
  Json::Value snapshot = take_snapshot(before, selection.names, Extent::kLevel);
  if (before.default_level() != after.default_level()) {
    add_default_level(snapshot, before);
  }
  return snapshot;
}

void LevelChange::refuse_unreachable() const {
  refuse_unreachable_levels(Addresses::load(), after, selection.names);
}

Report bring_into_force(Console& console, const LevelChange& change, const ReloadOptions& options) {
  Addresses::load();  // one that cannot be used is refused before anything is written
  save_store(change.after);
  Report report;
  try {
    report = apply_to(console, change.after, change.selection, options);
  } catch (const std::exception&) {
    record_result(change, take_back(console, change, change.selection.names, options));
    throw;
  }
  std::vector<std::string> services;
  for (const Json::Value& service : unsuccessful(report.document["probed"])) {
    services.push_back(service.asString());
  }
  report.document["undone"] =
      services.empty() ? list_of({}) : take_back(console, change, services, options);
  record_result(change, report.document["undone"]);
  report.is_undone =
      !change.selection.names.empty() && services.size() == change.selection.names.size();
  return report;
}

Report foresee(Console& console, const LevelChange& change) {
  Report report = foresee_application(console, change.after, change.selection, true);
  report.document["undone"] = list_of({});
  return report;
}

}  // namespace kelotlsctl
