// kelotlsctl undo and redo: takes back the last changes of levels that the history holds.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <set>

#include "changes/dating.h"
#include "changes/way_back.h"
#include "clients/losses.h"
#include "command_line.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

constexpr char kDefaultLevel[] = "default level";
constexpr long kMostAtOnce = 100;

/// What a command leaves that undo can take back, or that is in its way. A redo makes what it has
/// redone the last change again.
enum class Kind { kLevels, kUndo, kOther, kNothing };

Kind kind_of(const std::string& command) {
  const auto is_one_of = [&](std::initializer_list<const char*> commands) {
    return std::find(commands.begin(), commands.end(), command) != commands.end();
  };
  return is_one_of({"set", "default", "restore", "settle"})         ? Kind::kLevels
         : command == "undo"                                        ? Kind::kUndo
         : is_one_of({"join", "leave", "regen", "init", "recover"}) ? Kind::kOther
                                                                    : Kind::kNothing;
}

bool has_been_made(const Json::Value& record) {
  const Json::Value& result = record["result"];
  return result == "done" || result == "confirmed";
}

/// The changes of levels on record, and for which services they are undone.
class Changes {
 public:
  explicit Changes(Json::Value records) : records_(std::move(records)) {
    // Later ones first: an undo that was itself undone undoes nothing.
    for (Json::ArrayIndex index = records_.size(); index-- > 0;) {
      if (records_[index].isMember("undoes")) {
        std::set<std::string>& undone = undone_[records_[index]["undoes"].asString()];
        const std::set<std::string> services = services_of(index);
        undone.insert(services.begin(), services.end());
      }
    }
  }

  /// Those for which the change was made and is not undone.
  std::set<std::string> services_of(Json::ArrayIndex index) const {
    const Json::Value& record = records_[index];
    std::set<std::string> services;
    for (const Json::Value& change : record["changes"]) {
      if (has_been_made(record) && change.isMember("to")) {
        services.insert(change["service"].asString());
      }
    }
    for (const Json::Value& outcome : record["services"]) {
      services.erase(outcome["service"].asString());
    }
    const auto undone = undone_.find(record["id"].asString());
    for (const std::string& service :
         undone != undone_.end() ? undone->second : std::set<std::string>()) {
      services.erase(service);
    }
    return services;
  }

  /// The index of the last one that is not undone: of an undo, or of another change. A Failure
  /// where there is none, or where another kind of change has come after it.
  Json::ArrayIndex last(Kind kind) const {
    for (Json::ArrayIndex index = records_.size(); index-- > 0;) {
      const Json::Value& record = records_[index];
      const Kind found = kind_of(record["command"].asString());
      if (found == Kind::kOther && has_been_made(record)) {
        refuse(record);
      }
      if (found == kind && !services_of(index).empty()) {
        return index;
      }
    }
    throw Failure(kFailed, kind == Kind::kUndo ? "there is no undo to take back"
                                               : "there is no change of a level on record to undo");
  }

  void mark_undone(Json::ArrayIndex index) {
    const std::set<std::string> services = services_of(index);
    undone_[records_[index]["id"].asString()].insert(services.begin(), services.end());
  }

  const Json::Value& operator[](Json::ArrayIndex index) const { return records_[index]; }

  /// "by set at 2027-01-31T23:59:59Z", of the last record after this one that names the service;
  /// "outside kelotlsctl" where there is none.
  std::string changer_since(Json::ArrayIndex index, const std::string& service) const {
    for (Json::ArrayIndex later = records_.size(); later-- > index + 1;) {
      for (const Json::Value& change : records_[later]["changes"]) {
        if (change["service"].asString() == service && change.isMember("to")) {
          return "by " + printable(records_[later]["command"]) + " at " +
                 printable(records_[later]["time"]);
        }
      }
    }
    return "outside kelotlsctl";
  }

 private:
  [[noreturn]] static void refuse(const Json::Value& record) {
    throw Failure(kFailed,
                  "the last change before that is " + printable(record["command"]) + " at " +
                      printable(record["time"]) +
                      ": it changed more than levels, and cannot be undone",
                  "kelotlsctl history shows every change. Set the levels themselves.");
  }

  Json::Value records_;
  std::map<std::string, std::set<std::string>> undone_;  // by the id of a record
};

/// One change, turned round.
struct Undoing {
  std::string id;  ///< of the record that is undone
  LevelChange plan;
  Json::Value changes = list_of({});  ///< as they are recorded
  Json::Value former = list_of({});   ///< the changes that are undone
};

int recorded_level(const Json::Value& text) {
  const std::optional<int> level = find_level(text.asString());
  if (!level) {
    throw Failure(kFailed, "\"" + printable(text) + "\" is no level that can be set",
                  "Set the levels themselves.");
  }
  return *level;
}

int level_now(const Store& store, const std::string& service) {
  return service == kDefaultLevel ? store.default_level() : store.stored_level(service);
}

/// A Failure where the service is not as the change has left it.
void require_unchanged(const Changes& changes, Json::ArrayIndex index, const Store& store,
                       const Json::Value& change) {
  const std::string service = change["service"].asString();
  if (service != kDefaultLevel && !store.has(service)) {
    throw Failure(kFailed, printable(service) + " has left since");
  }
  const int level = level_now(store, service);
  if (level != recorded_level(change["to"])) {
    throw Failure(kFailed,
                  printable(service) + " was changed since, to " + level_text(level_json(level)) +
                      ", " + changes.changer_since(index, service),
                  "Nothing was changed. Set its level itself: kelotlsctl set.");
  }
  const std::optional<DatedLevel> date = former_date(change);
  if (date && date->until <= this_moment().wall) {
    throw Failure(kFailed,
                  printable(service) + " would be at " + printable(change["from"]) +
                      " again, which was to end at " + utc_text(date->until),
                  "Nothing was changed. Set its level itself: kelotlsctl set.");
  }
}

void add_followers(LevelChange& plan) {
  for (const std::string& service : plan.before.names()) {
    if (plan.after.stored_level(service) == 0) {
      plan.selection.names.push_back(service);
    }
  }
}

Undoing turn_round(const Changes& changes, Json::ArrayIndex index, const Store& store) {
  const Json::Value& record = changes[index];
  Undoing undoing = {record["id"].asString(), {store, store, {}}};
  const std::set<std::string> services = changes.services_of(index);
  bool is_default_changed = false;
  for (const Json::Value& change : record["changes"]) {
    const std::string service = change["service"].asString();
    if (services.count(service) == 0) {
      continue;
    }
    require_unchanged(changes, index, store, change);
    const int level = recorded_level(change["from"]);
    if (service == kDefaultLevel) {
      undoing.plan.after.root["default-level"] = level;
      is_default_changed = true;
    } else {
      undoing.plan.after.root["services"][service]["current-level"] = level;
      undoing.plan.selection.names.push_back(service);
    }
    undoing.changes.append(
        level_change(service, change["to"].asString(), change["from"].asString()));
    undoing.former.append(change);
  }
  if (is_default_changed) {
    add_followers(undoing.plan);
  }
  auto& names = undoing.plan.selection.names;
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return undoing;
}

long parse_count(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const long count = text.empty() ? 1 : std::strtol(text.c_str(), &end, 10);
  if ((end != nullptr && *end != '\0') || errno != 0 || count < 1 || count > kMostAtOnce) {
    throw Failure(kUsage, "\"" + printable(text) + "\" is no number of changes, 1 to 100");
  }
  return count;
}

/// All of them, before the first is made: one that is refused leaves everything as it is.
std::vector<Undoing> plan_undoings(const std::string& count, Kind kind) {
  std::vector<std::string> faults;
  Changes changes(read_history(faults));
  Store store = load_store();
  std::vector<Undoing> undoings;
  for (long left = parse_count(count); left > 0; --left) {
    const Json::ArrayIndex index = changes.last(kind);
    undoings.push_back(turn_round(changes, index, store));
    undoings.back().plan.refuse_unreachable();
    changes.mark_undone(index);
    store = undoings.back().plan.after;
  }
  return undoings;
}

/// The dates that the change had ended begin again, but for services that were not undone.
void bring_dates_back(const Json::Value& changes, const Json::Value& exceptions) {
  std::set<std::string> left_alone;
  for (const Json::Value& element : exceptions) {
    left_alone.insert(element["service"].asString());
  }
  DatedLevels dates = DatedLevels::load();
  bool any = false;
  for (const Json::Value& change : changes) {
    const std::optional<DatedLevel> date = former_date(change);
    if (date && left_alone.count(change["service"].asString()) == 0) {
      dates.set(change["service"].asString(), *date);
      any = true;
    }
  }
  if (any) {
    dates.save();
    have_dates_watched();
  }
}

Report make(Console& console, const Undoing& undoing, const Arguments& arguments) {
  const ReloadOptions options = reload_options(arguments.reload_timeout);
  if (arguments.dry_run) {
    return foresee(console, undoing.plan);
  }
  const Dating dating;
  const LevelChange own = undoing.plan.of_own_levels();
  Json::Value changes = undoing.changes;
  dating.tell(changes, own);
  add_to_next_record("undoes", undoing.id);
  begin_record(arguments.command, arguments.reason, changes);
  WayBack back = way_back("", arguments.confidence());
  back.is_kept = true;
  return make_change(
      console, back, [&] { return undoing.plan.snapshot(); },
      [&] {
        Report report = bring_into_force(console, undoing.plan, options);
        dating.end(own, report.document["undone"]);
        bring_dates_back(undoing.former, report.document["undone"]);
        return report;
      });
}

Json::Value undoing_json(const Undoing& undoing, const Report& report, bool is_written) {
  return object({{"undoes", undoing.id},
                 {"changes", undoing.changes},
                 {"written", is_written && !report.is_undone},
                 {"apply", report.document}});
}

/// Each change has a record of its own, and one that fails is the last.
Report undo_last(Console& console, const Arguments& arguments, Kind kind) {
  const WriteAccess access(console, arguments.confidence());
  const std::vector<Undoing> undoings = plan_undoings(arguments.count, kind);
  Report all;
  all.document["changes"] = list_of({});
  for (const Undoing& undoing : undoings) {
    const LevelChange& plan = undoing.plan;
    const Json::Value losses =
        tell_losses(console, plan.before, plan.after, plan.selection.names, false);
    require_trust(console, walk_places(console, kAllPlaces, plan.selection),
                  arguments.confidence());
    const Report report = make(console, undoing, arguments);
    Json::Value change = undoing_json(undoing, report, !arguments.dry_run);
    change["losses"] = losses;
    all.document["changes"].append(change);
    all.code = report.code;
    if (report.code != kDone) {
      break;
    }
    static_cast<void>(end_record(report.code, report.code));
  }
  return all;
}

}  // namespace

Report undo(Console& console, const Arguments& arguments) {
  return undo_last(console, arguments, Kind::kLevels);
}

Report redo(Console& console, const Arguments& arguments) {
  return undo_last(console, arguments, Kind::kUndo);
}

void print_undone(Console& console, const Json::Value& document) {
  for (const Json::Value& undoing : document["changes"]) {
    const Json::Value& apply = undoing["apply"];
    if (apply["probed"].empty()) {
      print_foreseen(console, apply);
    } else {
      print_application(console, apply);
    }
    for (const Json::Value& change : undoing["changes"]) {
      console.data() << printable(change["service"]) << ": " << printable(change["from"])
                     << (undoing["written"].asBool() ? " became " : " would become ")
                     << printable(change["to"]) << '\n';
    }
  }
}

}  // namespace kelotlsctl
