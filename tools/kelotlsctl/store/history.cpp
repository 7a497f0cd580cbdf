// Owns the trace that every change leaves.
#include "store/history.h"

#include <fcntl.h>
#include <json/writer.h>
#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <sstream>

#include "files.h"
#include "json_document.h"
#include "output/console.h"
#include "paths.h"
#include "store/lock.h"
#include "store/store.h"
#include "system/clocks.h"
#include "system/digest.h"

namespace kelotlsctl {

namespace {

constexpr Json::ArrayIndex kMostLoggedChanges = 20;

struct OpenRecord {
  bool is_open = false;
  bool is_waiting = false;
  Json::Value begin;
  Json::Value end;
  Json::Value next{Json::objectValue};  // what the next one begins with
};

OpenRecord& current() {
  static OpenRecord record;
  return record;
}

std::string user_name(uid_t user) {
  const passwd* const entry = ::getpwuid(user);
  return entry != nullptr ? entry->pw_name : std::to_string(user);
}

/// Who logged in, whatever user the session became since; empty where the kernel does not know.
std::string login_name() {
  std::string text;
  kelotls::read_file("/proc/self/loginuid", text);
  char* end = nullptr;
  const unsigned long user = std::strtoul(text.c_str(), &end, 10);
  const bool is_known = end != text.c_str() && user != static_cast<uid_t>(-1);
  return is_known ? user_name(static_cast<uid_t>(user)) : std::string();
}

Json::Value who() {
  Json::Value person = object({{"user", user_name(::getuid())}});
  const std::string login = login_name();
  if (!login.empty()) {
    person["login"] = login;
  }
  if (const char* const invoker = std::getenv("SUDO_USER")) {
    person["sudo"] = invoker;
  }
  return person;
}

Json::Value terminal() {
  for (const int descriptor : {STDIN_FILENO, STDERR_FILENO, STDOUT_FILENO}) {
    char name[64];
    if (::ttyname_r(descriptor, name, sizeof name) == 0) {
      return name;
    }
  }
  return {};
}

/// Of the data store as it is; null where it cannot be read.
Json::Value store_digest() {
  std::string text;
  return kelotls::read_file(kelotls::kDataStorePath, text) ? Json::Value(sha256(text))
                                                           : Json::Value();
}

/// One line, whatever the record holds.
std::string line_of(const Json::Value& record) {
  Json::StreamWriterBuilder settings;
  settings["indentation"] = "";
  settings["emitUTF8"] = true;
  return Json::writeString(settings, record) + "\n";
}

bool sync_directory() {
  const kelotls::Descriptor directory(
      ::open(kelotls::kFrameworkDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory.is_open() && ::fsync(directory.get()) == 0;
}

/// A line that was cut short, by a power cut, is ended first.
bool ends_in_line(int file, off_t size) {
  char last = '\n';
  return size == 0 || (::pread(file, &last, 1, size - 1) == 1 && last == '\n');
}

bool append(const Json::Value& record) {
  const kelotls::Descriptor file(
      ::open(kHistoryPath,
             O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
  struct stat status = {};
  if (!file.is_open() || ::fstat(file.get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    return kelotls::fail(EINVAL);
  }
  const std::string line = line_of(record);
  return kelotls::write_all(file.get(),
                            ends_in_line(file.get(), status.st_size) ? line : "\n" + line) &&
         ::fsync(file.get()) == 0 && (status.st_size != 0 || sync_directory());
}

void begin_new_file_where_full() {
  struct stat status = {};
  if (::lstat(kHistoryPath, &status) == 0 &&
      status.st_size > static_cast<off_t>(kMaxHistoryBytes)) {
    static_cast<void>(std::rename(kHistoryPath, kFormerHistoryPath));
  }
}

std::string change_text(const Json::Value& change) {
  std::string text = change["service"].asString();
  if (change.isMember("to")) {
    text += " " + change["from"].asString() + " -> " + change["to"].asString();
  }
  return text;
}

std::string who_text(const Json::Value& person) {
  std::string text = person["user"].asString();
  for (const char* const key : {"login", "sudo"}) {
    if (person.isMember(key)) {
      text += std::string(", ") + key + " " + person[key].asString();
    }
  }
  return text;
}

/// "kelotlsctl set: web old -> modern; by root, login ann, on /dev/pts/0; reason: audit; done"
std::string log_text(const Json::Value& begin, const std::string& result) {
  std::string text = "kelotlsctl " + begin["command"].asString() + ": ";
  const Json::Value& changes = begin["changes"];
  for (Json::ArrayIndex index = 0; index < changes.size() && index < kMostLoggedChanges; ++index) {
    text += change_text(changes[index]) + (index + 1 < changes.size() ? ", " : "; ");
  }
  if (changes.size() > kMostLoggedChanges) {
    text += std::to_string(changes.size() - kMostLoggedChanges) + " more; ";
  }
  text += "by " + who_text(begin["who"]);
  if (!begin["terminal"].isNull()) {
    text += ", on " + begin["terminal"].asString();
  }
  if (!begin["reason"].isNull()) {
    text += "; reason: " + begin["reason"].asString();
  }
  return printable(text + "; " + result);
}

void log(const Json::Value& begin, const std::string& result) {
  ::syslog(LOG_AUTHPRIV | LOG_NOTICE, "%s", log_text(begin, result).c_str());
}

/// The last line that is a record's, of the newer file that has one; null without any.
Json::Value last_line() {
  kelotls::JsonReader reader;
  for (const char* const path : {kHistoryPath, kFormerHistoryPath}) {
    std::string text;
    kelotls::read_file(path, text);
    while (!text.empty()) {
      text.resize(text.size() - (text.back() == '\n' ? 1 : 0));
      const std::size_t begin = text.rfind('\n') + 1;
      Json::Value line;
      if (reader.parse(text.substr(begin), line) && !kelotls::text_member(line, "id").empty()) {
        return line;
      }
      text.resize(begin);
    }
  }
  return {};
}

bool is_ended(const Json::Value& line) { return line.isMember("ended"); }

/// The record of a change that no command has made, if the data store is not what it was when the
/// record was ended; else null.
Json::Value outside_record(const Json::Value& last) {
  const Json::Value digest = store_digest();
  if (!last.isMember("store") || last["store"] == digest) {
    return {};
  }
  const std::string now = now_as_text();
  return object({{"id", new_record_id()},
                 {"time", now},
                 {"ended", now},
                 {"command", "outside"},
                 {"who", object({{"user", "not known"}})},
                 {"terminal", Json::Value()},
                 {"reason", Json::Value()},
                 {"changes", list_of({})},
                 {"result", "done"},
                 {"store", digest}});
}

void append_or_fail(const Json::Value& record) {
  if (!append(record)) {
    throw Failure(kFailed, std::string(kHistoryPath) + ": " + std::strerror(errno),
                  "Nothing was changed: a change has to leave a trace.");
  }
}

/// Before anything is added to the record: ends the one before it, if that was interrupted, and
/// records a change of the data store that no command has made.
void catch_up(const std::string& record) {
  const Json::Value last = last_line();
  if (last.isNull() || last["id"] == record) {
    return;
  }
  if (!is_ended(last)) {
    append_or_fail(object({{"id", last["id"]},
                           {"ended", now_as_text()},
                           {"result", "interrupted"},
                           {"store", store_digest()}}));
    return;
  }
  const Json::Value outside = outside_record(last);
  if (!outside.isNull()) {
    append_or_fail(outside);
  }
}

/// Adds the records of a file, in the order of their first ones.
class HistoryReader {
 public:
  void read(const char* path, std::vector<std::string>& faults) {
    std::string text;
    if (!kelotls::read_file(path, text)) {
      if (errno != ENOENT) {
        faults.push_back(std::string(path) + ": " + std::strerror(errno));
      }
      return;
    }
    std::istringstream lines(text);
    std::size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
      ++number;
      if (!take(line)) {
        faults.push_back(std::string(path) + ", line " + std::to_string(number) + ": is no record");
      }
    }
  }

  Json::Value changes() { return std::move(changes_); }

  const Json::Value& last_line() const { return last_line_; }

 private:
  bool take(const std::string& line) {
    Json::Value record;
    if (!reader_.parse(line, record) || kelotls::text_member(record, "id").empty()) {
      return false;
    }
    const std::string id = record["id"].asString();
    const bool is_new = places_.count(id) == 0;
    if (is_new && !record.isMember("command")) {
      return false;  // it goes on with one that is in no file any more
    }
    last_line_ = record;
    const auto place = places_.emplace(id, changes_.size()).first;
    if (is_new) {
      record["result"] = record.get("result", "interrupted");
      changes_.append(record);
    } else {
      add_to(changes_[place->second], record);
    }
    return true;
  }

  /// What is tried again is tried for those alone for which it has failed.
  static void add_to(Json::Value& record, const Json::Value& later) {
    Json::Value changes = record["changes"];
    for (const Json::Value& change : later["changes"]) {
      if (std::find(changes.begin(), changes.end(), change) == changes.end()) {
        changes.append(change);
      }
    }
    for (const std::string& key : later.getMemberNames()) {
      record[key] = later[key];
    }
    record["changes"] = changes;
  }

  kelotls::JsonReader reader_;
  std::map<std::string, Json::ArrayIndex> places_;
  Json::Value changes_{Json::arrayValue};
  Json::Value last_line_;
};

}  // namespace

Json::Value changes_of(const std::vector<std::string>& services) {
  return list_of(services, [](const std::string& service) {
    return object({{"service", service}});
  });
}

Json::Value level_change(const std::string& service, const std::string& from,
                         const std::string& to) {
  return object({{"service", service}, {"from", from}, {"to", to}});
}

std::string new_record_id() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  static int count = 0;
  return std::to_string(std::chrono::nanoseconds(now).count()) + "-" + std::to_string(::getpid()) +
         "-" + std::to_string(++count);
}

void begin_record(const std::string& command, const std::string& reason, const Json::Value& changes,
                  const std::string& id) {
  catch_up(id);
  begin_new_file_where_full();
  current().begin = object({{"id", id},
                            {"time", now_as_text()},
                            {"command", command},
                            {"who", who()},
                            {"terminal", terminal()},
                            {"reason", reason.empty() ? Json::Value() : Json::Value(reason)},
                            {"changes", changes}});
  for (const std::string& member : current().next.getMemberNames()) {
    current().begin[member] = current().next[member];
  }
  current().next.clear();
  append_or_fail(current().begin);
  current().end = object({{"id", id}});
  current().is_open = true;
  current().is_waiting = false;
}

std::string open_record_id() {
  return current().is_open ? current().begin["id"].asString() : std::string();
}

void add_to_next_record(const char* member, const Json::Value& value) {
  current().next[member] = value;
}

void set_waiting() { current().is_waiting = true; }

void set_result(const std::string& result, const Json::Value& services) {
  current().end["result"] = result;
  if (!services.isNull()) {
    current().end["services"] = services;
  }
}

bool end_record(int code, int exit_status) {
  if (!current().is_open) {
    return true;
  }
  current().is_open = false;
  current().end["ended"] = now_as_text();
  current().end["code"] = exit_status;
  if (current().is_waiting) {
    current().end["result"] = "waiting";
  } else if (!current().end.isMember("result")) {
    current().end["result"] = code == kDone ? "done" : exit_status > 128 ? "interrupted" : "failed";
  }
  current().end["store"] = store_digest();
  const bool is_written = append(current().end);
  const int error = errno;
  log(current().begin, current().end["result"].asString());
  errno = error;
  return is_written;
}

void catch_up_history() { catch_up({}); }

void record_taking_back(const std::string& id) {
  catch_up(id);
  append_or_fail(object({{"id", id}, {"result", "taking-back"}}));
}

void record_outcome(const std::string& id, const std::string& command, const std::string& result,
                    const std::vector<std::string>& services) {
  catch_up(id);
  const Json::Value by = object({{"command", command}, {"who", who()}, {"time", now_as_text()}});
  append_or_fail(object({{"id", id},
                         {"ended", now_as_text()},
                         {"result", result},
                         {"settled", by},
                         {"store", store_digest()}}));
  log(object({{"command", command},
              {"who", by["who"]},
              {"terminal", terminal()},
              {"reason", Json::Value()},
              {"changes", changes_of(services)}}),
      result);
}

Json::Value read_history(std::vector<std::string>& faults) {
  HistoryReader reader;
  reader.read(kFormerHistoryPath, faults);
  reader.read(kHistoryPath, faults);
  Json::Value changes = reader.changes();
  const Json::Value outside = outside_record(reader.last_line());
  if (!outside.isNull()) {
    changes.append(outside);
  }
  return changes;
}

/// Who makes a change ends its record before others may make one. A record that has no end while
/// nobody makes changes is read once more: it may have got one in between.
Json::Value look_at_history(std::vector<std::string>& faults) {
  std::string without_end;
  for (;;) {
    std::vector<std::string> found;
    Json::Value changes = read_history(found);
    const Json::ArrayIndex count = changes.size();
    const std::string id =
        count == 0 || is_ended(changes[count - 1]) ? "" : changes[count - 1]["id"].asString();
    const bool is_running = !id.empty() && Lock::is_held();
    if (is_running) {
      changes[count - 1]["result"] = "running";
    }
    if (id.empty() || is_running || id == without_end) {
      faults.insert(faults.end(), found.begin(), found.end());
      return changes;
    }
    without_end = id;
  }
}

}  // namespace kelotlsctl
