// Owns the trace that every change leaves: records in a file that only root reads, and a line in
// the system log. A record is the lines of one "id", later ones adding to the first: one on the
// disk before the first effect of the change, one when it is over, one more where it was confirmed
// or taken back later. A change that has the first alone is being made, or was interrupted.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kelotlsctl {

constexpr char kHistoryPath[] = "/usr/kelo/etc/security-profile/tls-profile/history.jsonl";
/// What the file is renamed to, before a change, once it holds more than kMaxHistoryBytes.
constexpr char kFormerHistoryPath[] = "/usr/kelo/etc/security-profile/tls-profile/history.jsonl.1";
constexpr std::size_t kMaxHistoryBytes = std::size_t{1} << 20;

/// [{"service"}]
Json::Value changes_of(const std::vector<std::string>& services);

/// {"service", "from", "to"}, levels by name.
Json::Value level_change(const std::string& service, const std::string& from,
                         const std::string& to);

/// Names a record; no two have the same.
std::string new_record_id();

/// Begins a record. changes: a list of what level_change and changes_of give. Who makes it, from
/// where and when is added. A Failure when it cannot be written: then nothing may be changed. With
/// the id of a record that is there, that one goes on. One record is open at a time.
void begin_record(const std::string& command, const std::string& reason, const Json::Value& changes,
                  const std::string& id = new_record_id());

/// Of the record that is open; empty without one.
std::string open_record_id();

/// Adds a member to the first line of the next record that is begun.
void add_to_next_record(const char* member, const Json::Value& value);

/// What came of the change: "done", "failed", "undone", "interrupted", "waiting"; where it differs
/// among services, of those for which it is not so: [{"service", "result"}].
void set_result(const std::string& result, const Json::Value& services = Json::Value());

/// The change waits to be confirmed, whatever set_result says of single services.
void set_waiting();

/// Ends the record, if one was begun, with the result that was set; else with "done" where the
/// command was, "interrupted" or "failed". Writes the line to the system log too. exit_status: of
/// the command, once it is known whether a signal asked it to end. False with errno when the record
/// could not be written.
bool end_record(int code, int exit_status);

/// A change that was recorded is about to be taken back: the data store changes with it. A Failure
/// when it cannot be written.
void record_taking_back(const std::string& id);

/// What became of a change after its record was ended: "confirmed", "taken-back",
/// "take-back-failed". By whom and when is added, and a line written to the system log. command:
/// what has made it so. A Failure when it cannot be written.
void record_outcome(const std::string& id, const std::string& command, const std::string& result,
                    const std::vector<std::string>& services);

/// Ends the record of a change that was interrupted, if that is the last one, and records a change
/// of the data store that no command has made, as everything does that adds to the history. Nobody
/// else may be writing. A Failure when it cannot be written.
void catch_up_history();

/// The changes on record, oldest first: {"id", "time", "command", "who", "terminal", "reason",
/// "changes", "result", "ended", "code"}; "store": the digest of the data store when it was over. A
/// change that no command has made has the command "outside", also where it is not yet on record.
/// faults: "PATH, line 3: ...", for lines that are no record.
Json::Value read_history(std::vector<std::string>& faults);

/// The same for who holds no lock: a change that has no end because it is being made is "running".
Json::Value look_at_history(std::vector<std::string>& faults);

}  // namespace kelotlsctl
