// Owns the change that can still be taken back.
#include "changes/pending_change.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "changes/snapshot.h"
#include "files.h"
#include "json_document.h"
#include "output/console.h"
#include "paths.h"
#include "store/documents.h"

namespace kelotlsctl {

namespace {

constexpr mode_t kMode = 0600;  // it holds rendered files, which others may not read

constexpr std::array<const char*, 5> kStates = {"prepared", "waiting", "confirmed", "taking-back",
                                                "failed"};

// clang-format off
constexpr kelotls::MemberRule kMembers[] = {
    {"state",        Json::stringValue,  true,  false},
    {"records",      Json::arrayValue,   true,  false},
    {"boot",         Json::stringValue,  false, false},
    {"deadline",     Json::intValue,     false, false},
    {"trust-anyway", Json::booleanValue, false, false},
    {"former",       Json::objectValue,  true,  false},
    {"fault",        Json::stringValue,  false, true},
    {}};
// clang-format on

kelotls::Faults faults_of(const Json::Value& document) {
  kelotls::Faults faults;
  if (append_exact_faults(document, kMembers, "$", faults) &&
      std::find(kStates.begin(), kStates.end(), document["state"].asString()) == kStates.end()) {
    faults.push_back({"$.state", "is no state of a change"});
  }
  return faults;
}

std::string read_file(Json::Value& document) {
  kelotls::JsonReader reader(kelotls::DuplicateKeys::kRefused);
  errno = 0;
  if (!reader.read(PendingChange::kPath, document)) {
    return errno == ENOENT ? "" : errno != 0 ? std::strerror(errno) : reader.fault();
  }
  const kelotls::Faults faults = faults_of(document);
  return faults.empty() ? "" : fault_text(faults[0]);
}

/// A file that is gone is gone for good once its directory is on the disk.
void remove_for_good(const char* path) {
  const kelotls::Descriptor directory(
      ::open(kelotls::kFrameworkDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if ((::unlink(path) != 0 && errno != ENOENT) || !directory.is_open() ||
      ::fsync(directory.get()) != 0) {
    throw system_failure(path);
  }
}

int seconds_up(Milliseconds time) { return static_cast<int>((time.count() + 999) / 1000); }

}  // namespace

std::optional<PendingChange> PendingChange::load() {
  PendingChange change;
  const std::string fault = read_file(change.document_);
  if (!fault.empty()) {
    throw Failure(
        kFailed, std::string(kPath) + " cannot be used: " + fault,
        "It holds what was there before a change that is not confirmed. Mend the file; or "
        "remove it, and everything stays as it is.");
  }
  return change.document_.empty() ? std::nullopt : std::optional(change);
}

std::string PendingChange::fault() {
  Json::Value document;
  return read_file(document);
}

void PendingChange::add(const std::string& record, const Json::Value& snapshot) {
  document_["state"] = kStates[0];
  document_["records"].append(record);
  if (!document_.isMember("former")) {
    document_["former"] = snapshot;
  } else {
    merge_snapshot(document_["former"], snapshot);
  }
}

PendingChange::State PendingChange::state() const {
  const auto* const found =
      std::find(kStates.begin(), kStates.end(), document_["state"].asString());
  return static_cast<State>(found - kStates.begin());
}

std::vector<std::string> PendingChange::records() const {
  std::vector<std::string> ids;
  for (const Json::Value& id : document_["records"]) {
    ids.push_back(id.asString());
  }
  return ids;
}

std::vector<std::string> PendingChange::services() const {
  return snapshot()["services"].getMemberNames();
}

std::string PendingChange::fault_text() const { return kelotls::text_member(document_, "fault"); }

Milliseconds PendingChange::time_left(const Moment& now) const {
  const bool is_waiting = state() == State::kWaiting && !now.boot.empty() &&
                          kelotls::text_member(document_, "boot") == now.boot;
  return is_waiting ? std::chrono::seconds(document_["deadline"].asInt()) - now.since_boot
                    : Milliseconds(-1);
}

void PendingChange::become(State state) {
  document_["state"] = kStates[static_cast<std::size_t>(state)];
  save();
}

void PendingChange::wait_for(std::chrono::seconds duration, const Moment& now) {
  document_["boot"] = now.boot;
  document_["deadline"] = seconds_up(now.since_boot + duration);
  become(State::kWaiting);
}

void PendingChange::fail(const std::string& fault) {
  document_["fault"] = fault;
  become(State::kFailed);
}

void PendingChange::remove() {
  remove_for_good(kPath);
  document_.clear();
}

void PendingChange::save() const {
  const std::string text = kelotls::json_text(document_);
  if (text.size() > kelotls::kMaxFileBytes) {
    throw Failure(kFailed, std::string(kPath) + " would hold more than can be read back",
                  "Nothing was changed. Change fewer services at a time.");
  }
  if (!kelotls::replace_entry(kPath, text, kMode)) {
    throw system_failure(kPath);
  }
}

Json::Value PendingChange::report(const Moment& now) const {
  Json::Value value = object({{"state", document_["state"]}, {"services", list_of(services())}});
  if (state() == State::kWaiting) {
    value["seconds-left"] = std::max(0, static_cast<int>(time_left(now).count() / 1000));
  }
  if (state() == State::kFailed) {
    value["fault"] = document_["fault"];
  }
  return value;
}

}  // namespace kelotlsctl
