// kelotlsctl status: on one screen, what is in force, what is pending, and what failed last.
#include "changes/pending_change.h"
#include "clients/losses.h"
#include "command_line.h"
#include "output/natural_order.h"
#include "service/service_state.h"
#include "store/history.h"
#include "system/interruption.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kLabelWidth = 15;
constexpr Json::ArrayIndex kMostNames = 10;
constexpr char kNotKnown[] = "not known: needs root";
constexpr const char* kServedLevels[] = {"modern", "intermediate", "old", "unusable"};

bool is_pending(State state) {
  return state == State::kPendingRender || state == State::kPendingReload;
}

bool is_at_fault(State state) {
  return state == State::kCannotRender || state == State::kUnusableLevel ||
         state == State::kDiffers || state == State::kNoAnswer || state == State::kUnreachable;
}

template <typename Keys>
Json::Value zero_for_each(const Keys& keys) {
  Json::Value counts(Json::objectValue);
  for (const auto& key : keys) {
    counts[key] = 0;
  }
  return counts;
}

void count(Json::Value& counts, const Json::Value& key) {
  Json::Value& number = counts[key.asString()];
  number = number.asInt() + 1;
}

/// A remark for each exit status that has a meaning of its own.
std::string reason_of(const Json::Value& record) {
  if (!record.isMember("code")) {
    return "it did not come to its end";
  }
  const int code = record["code"].asInt();
  return code > 128                ? signal_name(code - 128)
         : code == kReloaderFailed ? "a reloader failed"
         : code == kNotSo          ? "a probe did not agree"
         : code == kCannotTell     ? "a server did not say enough"
                                   : "exit status " + std::to_string(code);
}

/// The services that did not succeed: those that the record tells apart, else all.
Json::Value services_that_failed(const Json::Value& record) {
  Json::Value names(Json::arrayValue);
  for (const Json::Value& outcome : record["services"]) {
    if (outcome["result"] != "done") {
      names.append(outcome["service"]);
    }
  }
  for (Json::ArrayIndex index = 0; names.empty() && index < record["changes"].size(); ++index) {
    names.append(record["changes"][index]["service"]);
  }
  return names;
}

bool is_failure(const std::string& result) {
  return result != "done" && result != "running" && result != "confirmed" && result != "waiting" &&
         result != "taken-back";
}

/// Null where no change has failed.
Json::Value last_failure(std::vector<std::string>& warnings) {
  Json::Value failure;
  for (const Json::Value& record : look_at_history(warnings)) {
    if (is_failure(record["result"].asString())) {
      failure = record;
    }
  }
  return failure.isNull() ? failure
                          : object({{"time", failure["time"]},
                                    {"command", failure["command"]},
                                    {"result", failure["result"]},
                                    {"why", reason_of(failure)},
                                    {"services", services_that_failed(failure)}});
}

/// What waits to be confirmed; null without it.
Json::Value waiting_change() {
  const std::optional<PendingChange> change =
      PendingChange::fault().empty() ? PendingChange::load() : std::nullopt;
  return change ? change->report(this_moment()) : Json::Value();
}

void print_line(Console& console, std::string label, const std::string& text) {
  label.resize(kLabelWidth, ' ');
  console.data() << label << printable(text) << '\n';
}

/// "web, mail and 3 more"
std::string names_text(const Json::Value& names) {
  std::string text;
  for (Json::ArrayIndex index = 0; index < names.size() && index < kMostNames; ++index) {
    text += (index == 0 ? "" : ", ") + names[index].asString();
  }
  return names.size() <= kMostNames
             ? text
             : text + " and " + std::to_string(names.size() - kMostNames) + " more";
}

/// "3 modern, 1 old", without what there is none of.
std::string counts_text(const std::vector<std::pair<std::string, int>>& counts) {
  std::string text;
  for (const auto& [name, number] : counts) {
    if (number != 0) {
      text += (text.empty() ? "" : ", ") + std::to_string(number) + " " + name;
    }
  }
  return text.empty() ? "none" : text;
}

std::string levels_text(const Json::Value& counts) {
  std::vector<std::pair<std::string, int>> levels;
  for (const char* const level : kServedLevels) {
    levels.emplace_back(level, counts[level].asInt());
  }
  return counts_text(levels);
}

std::string states_text(const Json::Value& counts) {
  std::vector<std::pair<std::string, int>> states;
  for (const std::string& key : state_keys()) {
    states.emplace_back(state_text(key), counts[key].asInt());
  }
  return counts_text(states);
}

std::string pending_text(const Json::Value& document) {
  const bool is_unknown = document["states"]["needs-root"].asInt() != 0;
  const std::string names = names_text(document["pending"]);
  return !names.empty() ? names : is_unknown ? kNotKnown : "none";
}

/// "web: 42 s left, else taken back"
std::string waiting_text(const Json::Value& document) {
  const Json::Value& waiting = document["waiting"];
  if (!document["waiting-known"].asBool()) {
    return kNotKnown;
  }
  const std::string names = names_text(waiting["services"]) + ": ";
  return waiting["state"] == "waiting"
             ? names + duration_text(std::chrono::seconds(waiting["seconds-left"].asInt())) +
                   " left, else taken back"
         : waiting["state"] == "failed"
             ? names + "could not be taken back: " + waiting["fault"].asString()
             : names + waiting["state"].asString();
}

/// "web until 2027-03-01T00:00:00Z, then modern"
std::string dated_text(const Json::Value& dated) {
  return dated["service"].asString() + " until " + dated["until"].asString() + ", then " +
         level_text(dated["then"]) +
         (dated.isMember("fault") ? "; the return fails: " + dated["fault"].asString() : "");
}

std::string failure_text(const Json::Value& document) {
  const Json::Value& failure = document["last-failure"];
  if (failure.isNull()) {
    return document["history-known"].asBool() ? "none on record" : kNotKnown;
  }
  const std::string names = names_text(failure["services"]);
  return failure["time"].asString() + " " + failure["command"].asString() +
         (names.empty() ? "" : " of " + names) + ": " + failure["result"].asString() + ", " +
         failure["why"].asString();
}

}  // namespace

Report show_status(Console&, const Arguments& arguments) {
  const Store store = load_store();
  Report report;
  report.document = object({{"default-level", level_json(store.default_level())},
                            {"services", Json::UInt64{store.services().size()}},
                            {"following-default", 0},
                            {"levels", zero_for_each(kServedLevels)},
                            {"states", zero_for_each(state_keys())},
                            {"pending", list_of({})},
                            {"at-fault", list_of({})},
                            {"dated", list_of({})}});
  ServiceInspector inspector(store);
  inspector.see_servers(arguments.files ? ask_nobody : ask_with_short_patience);
  for (const std::string& service : in_natural_order(store.names())) {
    const ServiceStatus status = inspector.inspect(service);
    count(report.document["levels"], status.document["effective-level"]["name"]);
    count(report.document["states"], status.document["state"]);
    if (status.document.isMember("dated")) {
      Json::Value dated = status.document["dated"];
      dated["service"] = service;
      report.document["dated"].append(dated);
    }
    if (store.stored_level(service) == 0) {
      count(report.document, "following-default");
    }
    const std::string refused = refused_text(service, store.effective_level(service));
    report.notes.insert(report.notes.end(), refused.empty() ? 0 : 1, refused);
    if (is_pending(status.state) || is_at_fault(status.state)) {
      report.document[is_pending(status.state) ? "pending" : "at-fault"].append(service);
    }
  }
  const bool is_history_known = !is_withheld(kHistoryPath);
  report.document["history-known"] = is_history_known;
  report.document["last-failure"] =
      is_history_known ? last_failure(report.warnings) : Json::Value();
  report.document["waiting-known"] = !is_withheld(PendingChange::kPath);
  report.document["waiting"] = waiting_change();
  return report;
}

void print_status(Console& console, const Json::Value& document) {
  const std::string following = document["following-default"].asString() + " follow it";
  print_line(console, "default level",
             level_text(document["default-level"]) + " (" + following + ")");
  print_line(console, "services", document["services"].asString());
  print_line(console, "by level", levels_text(document["levels"]));
  print_line(console, "by state", states_text(document["states"]));
  print_line(console, "pending", pending_text(document));
  if (!document["at-fault"].empty()) {
    print_line(console, "at fault", names_text(document["at-fault"]));
  }
  if (!document["waiting"].isNull() || !document["waiting-known"].asBool()) {
    print_line(console, "to confirm", waiting_text(document));
  }
  for (const Json::Value& dated : document["dated"]) {
    print_line(console, "with a date", dated_text(dated));
  }
  print_line(console, "last failure", failure_text(document));
}

}  // namespace kelotlsctl
