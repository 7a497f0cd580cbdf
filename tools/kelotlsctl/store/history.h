// Owns the trace that every change leaves: records in a file that only root reads, and a line in
// the system log. A change has two records: one on the disk before its first effect, and one when
// it is over. A change that has the first alone was interrupted.
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

/// Begins the record of the one change that this process makes. changes: a list of what
/// level_change and changes_of give. Who makes it, from where and when is added. A Failure
/// when it cannot be written: then nothing may be changed.
void begin_record(const std::string& command, const std::string& reason,
                  const Json::Value& changes);

/// What came of the change: "done", "failed", "undone", "interrupted"; where it differs among
/// services, of those for which it is not "done": [{"service", "result"}].
void set_result(const std::string& result, const Json::Value& services = Json::Value());

/// Ends the record, if one was begun, with the result that was set; else with "done" where the
/// command was, "interrupted" or "failed". Writes the line to the system log too. exit_status: of
/// the command, once it is known whether a signal asked it to end. False with errno when the record
/// could not be written.
bool end_record(int code, int exit_status);

/// The changes on record, oldest first: {"id", "time", "command", "who", "terminal", "reason",
/// "changes", "result", "ended", "code"}. faults: "PATH, line 3: ...", for lines that are no
/// record.
Json::Value read_history(std::vector<std::string>& faults);

}  // namespace kelotlsctl
