// Owns the dates that a change of levels brings and ends.
#include "changes/dating.h"

#include <algorithm>
#include <limits>
#include <set>

namespace kelotlsctl {

namespace {

constexpr char kDateAdvice[] =
    "A date is a day, 2027-03-01, through its end, or a time, 2027-03-01T12:00, with a Z behind it "
    "in UTC.";

std::time_t parse_until(const std::string& text, std::time_t now) {
  const std::optional<std::time_t> until = parse_date(text);
  if (!until) {
    throw Failure(kUsage, "\"" + printable(text) + "\" is no date", kDateAdvice);
  }
  if (*until <= now) {
    throw Failure(kUsage, "\"" + printable(text) + "\" is past: it is " + utc_text(now),
                  kDateAdvice);
  }
  if (*until - now > std::numeric_limits<int>::max()) {
    throw Failure(kUsage, "\"" + printable(text) + "\" is too far away", kDateAdvice);
  }
  return *until;
}

}  // namespace

Dating::Dating(const std::string& until, const std::string& then, const std::string& reason)
    : Dating() {
  if (until.empty()) {
    if (!then.empty()) {
      throw Failure(kUsage, "--then says what comes after a date, and there is none",
                    "kelotlsctl set SERVICE LEVEL --until DATE --then LEVEL --reason TEXT");
    }
    return;
  }
  if (reason.empty()) {
    throw Failure(kUsage, "a level with a date needs a reason", "Add --reason TEXT.");
  }
  until_ = parse_until(until, this_moment().wall);
  then_ = then.empty() ? std::nullopt : std::optional(parse_level(then));
  reason_ = reason;
}

bool Dating::concerns(const std::vector<std::string>& services) const {
  return brings_dates() ||
         std::any_of(services.begin(), services.end(),
                     [&](const std::string& service) { return former_.find(service) != nullptr; });
}

DatedLevel Dating::dated(const LevelChange& change, const std::string& service) const {
  const DatedLevel* const former = former_.find(service);
  const int before = change.before.stored_level(service);
  // An exception that is prolonged ends where it would have ended.
  const int returns_to = former != nullptr && former->level == before ? former->then : before;
  const Moment now = this_moment();
  return {change.after.stored_level(service),
          then_.value_or(returns_to),
          *until_,
          reason_,
          std::chrono::seconds(*until_ - now.wall),
          Milliseconds::zero(),
          now.boot,
          now.since_boot,
          {},
          {}};
}

void Dating::refuse_pointless(const LevelChange& change) const {
  for (const std::string& service : change.selection.names) {
    if (brings_dates() && dated(change, service).then == change.after.stored_level(service)) {
      throw Failure(kUsage,
                    printable(service) + " would be at " +
                        level_text(level_json(change.after.stored_level(service))) +
                        " after the date as before it",
                    "--then says which level comes after the date.");
    }
  }
}

void Dating::tell(Json::Value& changes, const LevelChange& change) const {
  const std::set<std::string> selected(change.selection.names.begin(),
                                       change.selection.names.end());
  for (Json::Value& element : changes) {
    const std::string service = element["service"].asString();
    if (selected.count(service) == 0) {
      continue;
    }
    if (brings_dates()) {
      element["until"] = utc_text(*until_);
      element["then"] = level_text(level_json(dated(change, service).then));
    }
    if (const DatedLevel* const former = former_.find(service)) {
      element["former-date"] = former_date_json(*former);
    }
  }
}

void Dating::begin(const LevelChange& change) const {
  if (!brings_dates()) {
    return;
  }
  DatedLevels dates = former_;
  for (const std::string& service : change.selection.names) {
    dates.set(service, dated(change, service));
  }
  dates.save();
}

void Dating::end(const LevelChange& change, const Json::Value& undone) const {
  std::set<std::string> unchanged;
  for (const Json::Value& element : undone) {
    unchanged.insert(element["service"].asString());
  }
  DatedLevels dates = DatedLevels::load();
  bool is_changed = false;
  for (const std::string& service : change.selection.names) {
    const DatedLevel* const former = former_.find(service);
    if (unchanged.count(service) == 0) {
      is_changed = (!brings_dates() && dates.remove(service)) || is_changed;
    } else if (brings_dates()) {
      dates.remove(service);
      if (former != nullptr) {
        dates.set(service, *former);
      }
      is_changed = true;
    }
  }
  if (is_changed) {
    dates.save();
  }
}

Json::Value former_date_json(const DatedLevel& dated) {
  return object({{"until", utc_text(dated.until)},
                 {"then", level_text(level_json(dated.then))},
                 {"reason", dated.reason}});
}

std::optional<DatedLevel> former_date(const Json::Value& change) {
  const Json::Value& former = change["former-date"];
  if (!former.isObject()) {
    return std::nullopt;
  }
  const std::time_t until = parse_utc(former["until"].asString()).value_or(0);
  const auto then = find_level(former["then"].asString());
  const auto level = find_level(change["from"].asString());
  if (!then || !level) {
    return std::nullopt;
  }
  const Moment now = this_moment();
  return DatedLevel{*level,
                    *then,
                    until,
                    former["reason"].asString(),
                    std::chrono::seconds(until - now.wall),
                    Milliseconds::zero(),
                    now.boot,
                    now.since_boot,
                    {},
                    {}};
}

}  // namespace kelotlsctl
