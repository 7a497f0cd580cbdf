// Owns what is due.
#include "changes/settling.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>

#include "changes/application.h"
#include "changes/dating.h"
#include "changes/snapshot.h"
#include "files.h"
#include "paths.h"
#include "store/dated_levels.h"
#include "store/history.h"
#include "system/background.h"

namespace kelotlsctl {

namespace {

constexpr char kCommand[] = "settle";
constexpr char kWatchLock[] = "/usr/kelo/etc/security-profile/tls-profile/watch.lock";
/// A date is compared with the wall's clock, which may jump: it is looked at this often.
constexpr Milliseconds kLookInterval{60'000};
constexpr Milliseconds kLetWork{1000};
constexpr Milliseconds kFirstRetry{10'000};
constexpr Milliseconds kLastRetry{600'000};

using ChangeState = PendingChange::State;

std::string names_text(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + printable(name);
  }
  return text;
}

// Taking back

ReloadOptions to_the_end() {
  ReloadOptions options;
  options.heeds_interruption = false;
  return options;
}

/// The servers take up what was put back. A Failure where one does not.
void reload_former(Console& console, const PendingChange& change) {
  const Store store = load_store();
  const Selection selection = {services_in(change.snapshot(), store), false};
  if (selection.names.empty()) {
    return;
  }
  require_trust(console, walk_places(console, kAllPlaces, selection),
                {kCommand, change.trusts_anyway(), false});
  const Json::Value reloading = run_reloaders(console, store, selection, to_the_end());
  warn_of_reloading(console, reloading["fault"]);
  warn_of_faults(console, reloading["reloaders"], "path", " ");
  if (reloading.isMember("fault") || any_fault(reloading["reloaders"])) {
    throw Failure(kReloaderFailed,
                  "the former levels are back, but not every reloader has succeeded");
  }
}

void tell(const PendingChange& change, const std::string& command, const std::string& result) {
  for (const std::string& record : change.records()) {
    if (record == open_record_id()) {
      set_result(result, list_of({}));
    } else {
      record_outcome(record, command, result, change.services());
    }
  }
}

/// Nothing where no change is left that waits.
std::optional<PendingChange> settle_pending(Console& console, const std::string& command,
                                            Servers servers, Settling& settling) {
  std::optional<PendingChange> change = PendingChange::load();
  if (!change || change->time_left(this_moment()) > Milliseconds::zero()) {
    return change;
  }
  if (change->state() == ChangeState::kConfirmed) {
    keep(*change, command);
    return std::nullopt;
  }
  const std::vector<std::string> services = change->services();
  take_back(console, *change, command, servers);
  console.warn("the change of " + names_text(services) +
               " was not confirmed in time, and is taken back");
  settling.document["taken-back"] = list_of(services);
  return std::nullopt;
}

// Levels whose date has come

/// Whether something else has changed the service's level since: it is neither the one that was to
/// end, nor, where the return was begun, the one that comes after it.
bool is_superseded(const Store& store, const std::string& service, const DatedLevel& dated) {
  const int level = store.has(service) ? store.stored_level(service) : -1;
  const bool is_begun = level == dated.then && !dated.record.empty();
  return level != dated.level && !is_begun;
}

/// The services whose levels return now; dates that other changes have made meaningless go.
std::vector<std::string> due_services(Console& console, const Store& store, DatedLevels& dates,
                                      bool tries_again) {
  const Moment now = this_moment();
  std::vector<std::string> due;
  std::vector<std::string> superseded;
  for (const auto& [service, dated] : dates.all()) {
    if (!dated.is_over(now) || (!dated.fault.empty() && !tries_again)) {
      continue;
    }
    (is_superseded(store, service, dated) ? superseded : due).push_back(service);
  }
  for (const std::string& service : superseded) {
    console.warn(printable(service) +
                 ": its date has come, but its level was changed since; it stays");
    dates.remove(service);
  }
  if (!superseded.empty()) {
    dates.save();
  }
  return due;
}

/// One record for all of them, and the same one however often the return is tried.
std::string record_of_return(const DatedLevels& dates, const std::vector<std::string>& services) {
  for (const std::string& service : services) {
    if (!dates.find(service)->record.empty()) {
      return dates.find(service)->record;
    }
  }
  return new_record_id();
}

void note(DatedLevels& dates, const std::string& service, const std::string& record,
          const std::string& fault) {
  DatedLevel dated = *dates.find(service);
  dated.record = record;
  dated.fault = fault;
  dates.set(service, dated);
}

std::string reason_of(const DatedLevels& dates, const std::vector<std::string>& services) {
  const DatedLevel& first = *dates.find(services.front());
  return "until " + utc_text(first.until) + ": " + first.reason;
}

Json::Value changes_on(const DatedLevels& dates, const std::vector<std::string>& services) {
  return list_of(services, [&](const std::string& service) {
    const DatedLevel& dated = *dates.find(service);
    Json::Value change = level_change(service, level_text(level_json(dated.level)),
                                      level_text(level_json(dated.then)));
    change["former-date"] = former_date_json(dated);
    return change;
  });
}

Store with_returned(Store store, const DatedLevels& dates,
                    const std::vector<std::string>& services) {
  for (const std::string& service : services) {
    store.root["services"][service]["current-level"] = dates.find(service)->then;
  }
  return store;
}

/// Why the service has not all that its level asks for; empty where it has.
std::string fault_of(const Json::Value& probed) {
  const std::string result = probed["result"].asString();
  return result == "in-force" || result == "not-seen" ? ""
         : probed.isMember("fault")                   ? probed["fault"].asString()
                                                      : "rendering or reloading failed";
}

/// Why each of the services, in their order, has not what it should.
std::vector<std::string> apply_returned(Console& console, const Store& store,
                                        const Selection& selection, Servers servers, int& code) {
  try {
    require_trust(console, walk_places(console, kAllPlaces, selection), {kCommand, false, false});
    if (servers == Servers::kNotStarted) {
      render_templates_of(console, store, selection, kelotls::Rendering::kInForce, false);
      return std::vector<std::string>(selection.names.size(), "its server has not been asked yet");
    }
    const Report report = apply_to(console, store, selection, to_the_end());
    code = report.code;
    std::vector<std::string> faults;
    for (const Json::Value& probed : report.document["probed"]) {
      faults.push_back(fault_of(probed));
    }
    return faults;
  } catch (const std::exception& exception) {
    code = kFailed;
    console.warn(printable(std::string(exception.what())));
    return std::vector<std::string>(selection.names.size(), exception.what());
  }
}

/// The levels of these services end. They stay ended whatever fails afterwards: a reloader that
/// fails is no reason to go on at a level that nobody wants any more.
void return_levels(Console& console, const Store& before, DatedLevels& dates,
                   const std::vector<std::string>& services, Servers servers, Settling& settling) {
  const std::string record = record_of_return(dates, services);
  for (const std::string& service : services) {
    note(dates, service, record, dates.find(service)->fault);
  }
  dates.save();
  begin_record(kCommand, reason_of(dates, services), changes_on(dates, services), record);
  const Store store = with_returned(before, dates, services);
  if (store.root != before.root) {
    save_store(store);
  }
  int code = kDone;
  const std::vector<std::string> faults =
      apply_returned(console, store, {services, false}, servers, code);
  for (std::size_t index = 0; index < services.size(); ++index) {
    Json::Value returned = object(
        {{"service", services[index]}, {"level", level_json(dates.find(services[index])->then)}});
    if (faults[index].empty()) {
      dates.remove(services[index]);
    } else {
      returned["fault"] = faults[index];
      note(dates, services[index], record, faults[index]);
    }
    settling.document["returned"].append(returned);
  }
  dates.save();
  if (code != kDone) {
    settling.code = code;
  } else {
    set_result("done", list_of({}));  // for whom it has failed before, too
  }
  static_cast<void>(end_record(code, code));
}

/// Nobody has to look at dates where there are none. A change that waits may bring one back.
void end_looking() {
  const bool is_looked_at = kelotls::exists_at(DatedLevels::kPath) && !PendingChange::load();
  if (is_looked_at && end_timer().empty()) {
    static_cast<void>(::unlink(DatedLevels::kPath));  // what fails here is tried again
  }
}

/// A data store that cannot be used is the command's own business.
void settle_dates(Console& console, Servers servers, bool tries_again, Settling& settling) {
  DatedLevels dates = DatedLevels::load();
  if (dates.all().empty()) {
    return;
  }
  const std::optional<Store> store = try_store();
  const std::vector<std::string> due =
      store ? due_services(console, *store, dates, tries_again) : std::vector<std::string>();
  if (!due.empty()) {
    return_levels(console, *store, dates, due, servers, settling);
  } else if (dates.note_running_time(this_moment())) {
    dates.save();
  }
}

Settling nothing_settled() {
  return {object({{"taken-back", list_of({})}, {"returned", list_of({})}})};
}

[[noreturn]] void refuse_while_waiting(const PendingChange& change) {
  throw Failure(
      kFailed,
      "a change of " + names_text(change.services()) + " waits to be confirmed, for " +
          duration_text(change.time_left(this_moment())) + " more",
      "Nothing was changed. kelotlsctl confirm keeps it, kelotlsctl revert takes it back.");
}

// Waiting

/// How long until something is due; nothing where nothing will be.
std::optional<Milliseconds> time_to_next() {
  const Moment now = this_moment();
  std::optional<Milliseconds> next;
  const std::optional<PendingChange> change = PendingChange::load();
  if (change) {
    next = std::max(Milliseconds::zero(), change->time_left(now));
  }
  if (!has_timers()) {
    const DatedLevels dates = DatedLevels::load();
    for (const auto& [service, dated] : dates.all()) {
      const Milliseconds left = dated.is_over(now) ? Milliseconds::zero() : kLookInterval;
      next = std::min(next.value_or(left), left);
    }
  }
  return next;
}

/// Whether a command may be at the change just now. It holds the lock, then, and is let work for as
/// long as it writes something.
bool is_being_made() {
  const std::optional<PendingChange> change = PendingChange::load();
  return change && change->state() == ChangeState::kPrepared;
}

/// Whether something was tried before, and is to be tried again.
bool has_failed() {
  const std::optional<PendingChange> change = PendingChange::load();
  const DatedLevels dates = DatedLevels::load();
  return (change && change->state() == ChangeState::kFailed) ||
         std::any_of(dates.all().begin(), dates.all().end(),
                     [](const auto& entry) { return !entry.second.fault.empty(); });
}

/// Whether everything that was due is done.
bool try_to_settle(Console& console) {
  try {
    const Lock lock(console, kCommand, true);
    const bool is_done = settle(console, Servers::kRunning).code == kDone;
    // A data store that cannot be used keeps dates from being settled, and is no failure of theirs.
    return is_done && time_to_next().value_or(kLookInterval) > Milliseconds::zero();
  } catch (const std::exception& exception) {
    console.warn(printable(std::string(exception.what())));
    return false;
  }
}

}  // namespace

WriteAccess::WriteAccess(Console& console, const Confidence& confidence, Waiting waiting)
    : lock_(console, confidence.command, !confidence.is_dry_run) {
  std::optional<PendingChange> change;
  if (confidence.is_dry_run) {
    change = PendingChange::load();
  } else {
    Settling settling = nothing_settled();
    change = settle_pending(console, confidence.command, Servers::kRunning, settling);
    settle_dates(console, Servers::kRunning, false, settling);
  }
  if (change && waiting == Waiting::kRefused) {
    refuse_while_waiting(*change);
  }
}

Settling settle(Console& console, Servers servers) {
  Settling settling = nothing_settled();
  catch_up_history();
  settle_pending(console, kCommand, servers, settling);
  settle_dates(console, servers, true, settling);
  // Here, because whatever ends the last date, the timer itself comes once more.
  if (servers == Servers::kRunning && DatedLevels::load().all().empty()) {
    end_looking();
  }
  return settling;
}

void take_back(Console& console, PendingChange& change, const std::string& command,
               Servers servers) {
  for (const std::string& record : change.records()) {
    record_taking_back(record);
  }
  change.become(ChangeState::kTakingBack);
  try {
    put_back(change.snapshot(), servers == Servers::kNotStarted);
    if (servers == Servers::kRunning) {
      reload_former(console, change);
    }
  } catch (const std::exception& exception) {
    change.fail(exception.what());
    tell(change, command, "take-back-failed");
    throw Failure(kFailed,
                  "the change of " + names_text(change.services()) +
                      " could not be taken back: " + exception.what(),
                  "It is tried again. kelotlsctl confirm leaves everything as it is now.");
  }
  tell(change, command, "taken-back");
  change.remove();
}

void keep(PendingChange& change, const std::string& command) {
  if (change.state() == ChangeState::kFailed) {
    tell(change, command, "take-back-failed");  // who failed may have been killed before it said so
  } else {
    change.become(ChangeState::kConfirmed);
    tell(change, command, "confirmed");
  }
  change.remove();
}

void watch(Console& console) {
  // One that comes while another watches takes its place when that ends: it may have seen nothing
  // left to wait for just before there was something.
  const kelotls::Descriptor turn(
      ::open(kWatchLock, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600));
  if (!turn.is_open() || ::flock(turn.get(), LOCK_EX) != 0) {
    throw system_failure(kWatchLock);
  }
  DirectoryWatch files(kelotls::kFrameworkDir);
  Milliseconds retry = kFirstRetry;
  if (has_failed()) {
    files.let_pass(retry);
  }
  while (const std::optional<Milliseconds> next = time_to_next()) {
    if (*next > Milliseconds::zero()) {
      static_cast<void>(files.wait(*next));
    } else if (is_being_made() && files.wait(kLetWork)) {
      continue;
    } else if (try_to_settle(console)) {
      retry = kFirstRetry;
    } else {
      // Whatever is written meanwhile: a reloader that fails is not run for each change of another.
      files.let_pass(retry);
      retry = std::min(2 * retry, kLastRetry);
    }
  }
}

bool anything_to_watch() {
  if (!time_to_next()) {
    return false;
  }
  const kelotls::Descriptor turn(::open(kWatchLock, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY));
  return !turn.is_open() || ::flock(turn.get(), LOCK_EX | LOCK_NB) == 0;
}

void have_watched() {
  const std::string fault = start_in_background({"settle", "--wait"});
  if (!fault.empty()) {
    throw Failure(kFailed, "nobody would take the change back in time: " + fault,
                  "Nothing was changed.");
  }
}

void have_dates_watched() {
  const std::string fault = begin_timer();
  if (!fault.empty()) {
    throw Failure(kFailed, "nobody would look at the date: " + fault, "Nothing was changed.");
  }
  if (!has_timers()) {
    have_watched();
  }
}

}  // namespace kelotlsctl
