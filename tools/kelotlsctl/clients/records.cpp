// Owns the files of recorded clients.
#include "clients/records.h"

#include <json/writer.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "clients/client_hello.h"
#include "files.h"
#include "json_document.h"
#include "output/console.h"
#include "registration.h"
#include "store/documents.h"
#include "system/hexadecimal.h"

namespace kelotlsctl {

namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0700;
constexpr std::size_t kMostSummaryBytes = 1024;
constexpr char kSuffix[] = ".json";
constexpr char kTimeFormat[] = "%Y-%m-%dT%H:%M:%SZ";
constexpr char kHourFormat[] = "%Y-%m-%dT%H";

constexpr kelotls::MemberRule kMembers[] = {
    {"service", Json::stringValue, true, false},
    {"since", Json::stringValue, true, false},
    {"until", Json::stringValue, true, false},
    {"connections", Json::intValue, true, false},
    {"left-out", Json::objectValue, true, false},
    {"unread", Json::objectValue, true, false},
    {"kernel-drops", Json::intValue, true, false},
    {"hellos", Json::arrayValue, true, false},
    {},
};

std::string formatted(std::time_t when, const char* format) {
  std::tm utc = {};
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, format, ::gmtime_r(&when, &utc));
  return {text, length};
}

/// What makes a file unusable.
struct Unusable {
  std::string reason;
};

std::time_t time_of(const Json::Value& text, const char* format) {
  std::tm utc = {};
  const std::string written = text.asString();
  const char* const end = ::strptime(written.c_str(), format, &utc);
  if (end == nullptr || *end != '\0') {
    throw Unusable{"\"" + printable(written) + "\" is no time"};
  }
  return ::timegm(&utc);
}

std::uint64_t count_of(const Json::Value& value, const char* key) {
  const Json::Value* const member = kelotls::find_member(value, key);
  if (member == nullptr || !member->isUInt64()) {
    throw Unusable{std::string("\"") + key + "\" is no count"};
  }
  return member->asUInt64();
}

Json::Value json_of(const RecordedHello& hello) {
  Json::Value hours(Json::objectValue);
  for (const auto& [hour, count] : hello.hours) {
    hours[formatted(static_cast<std::time_t>(hour * kSecondsPerHour), kHourFormat)] =
        Json::UInt64{count};
  }
  return object({{"hello", hexadecimal_digits(hello.hello)},
                 {"count", Json::UInt64{hello.count}},
                 {"first", time_text(hello.first)},
                 {"last", time_text(hello.last)},
                 {"hours", hours},
                 {"addresses", list_of(hello.addresses)}});
}

RecordedHello hello_of(const Json::Value& value) {
  RecordedHello hello;
  hello.hello = octets_of(kelotls::text_member(value, "hello"));
  hello.count = count_of(value, "count");
  hello.first = time_of(value["first"], kTimeFormat);
  hello.last = time_of(value["last"], kTimeFormat);
  const Json::Value& hours = value["hours"];
  for (const std::string& hour : hours.getMemberNames()) {
    hello.hours[time_of(hour, kHourFormat) / kSecondsPerHour] = count_of(hours, hour.c_str());
  }
  for (const Json::Value& address : value["addresses"]) {
    hello.addresses.push_back(address.asString());
  }
  return hello;
}

/// On one line: the text of a large file need not be held as a tree, too.
std::string line_of(const Json::Value& value) {
  static const Json::StreamWriterBuilder settings = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return builder;
  }();
  return Json::writeString(settings, value);
}

/// What the hello takes in the file, at most.
std::size_t size_of(const RecordedHello& hello) {
  constexpr std::size_t kFixed = 160;
  constexpr std::size_t kHour = 40;
  std::size_t size = kFixed + 2 * hello.hello.size() + kHour * hello.hours.size();
  for (const std::string& address : hello.addresses) {
    size += address.size() + 3;
  }
  return size;
}

void add_hours(RecordedHello& hello, std::int64_t hour, std::uint64_t count) {
  hello.hours[hour] += count;
  const std::int64_t newest = hello.hours.rbegin()->first;
  hello.hours.erase(hello.hours.begin(), hello.hours.upper_bound(newest - kRecordedHours));
}

void add_address(RecordedHello& hello, const std::string& address) {
  std::vector<std::string>& known = hello.addresses;
  if (!address.empty() && known.size() < kMostAddresses &&
      std::find(known.begin(), known.end(), address) == known.end()) {
    known.push_back(address);
  }
}

/// The name may come from the command line. It is a part of a path.
void require_name(const std::string& service) {
  const std::string fault = kelotls::name_fault(service, false);
  if (!fault.empty()) {
    throw Failure(kNoSuchService, "the name \"" + printable(service) + "\" " + fault);
  }
}

void make_directory() {
  std::vector<std::string> made;
  if (!kelotls::make_directories(ClientRecords::kDirectory, kDirectoryMode, made)) {
    throw system_failure(ClientRecords::kDirectory);
  }
}

/// "web.json.4711-0"
bool is_left_of(const std::string& name, const std::string& file) {
  return name.size() > file.size() + 1 && name.compare(0, file.size() + 1, file + ".") == 0 &&
         name.find_first_not_of("0123456789-", file.size() + 1) == std::string::npos;
}

bool remove_file(const std::string& path) {
  const bool is_removed = ::unlink(path.c_str()) == 0;
  if (!is_removed && errno != ENOENT) {
    throw system_failure(path);
  }
  return is_removed;
}

}  // namespace

UnreadConnections& UnreadConnections::operator+=(const UnreadConnections& more) {
  not_tls += more.not_tls;
  ssl2 += more.ssl2;
  incomplete += more.incomplete;
  too_large += more.too_large;
  return *this;
}

Json::Value UnreadConnections::json() const {
  return object({{"not-tls", Json::UInt64{not_tls}},
                 {"ssl2", Json::UInt64{ssl2}},
                 {"incomplete", Json::UInt64{incomplete}},
                 {"too-large", Json::UInt64{too_large}}});
}

std::string time_text(std::time_t when) { return formatted(when, kTimeFormat); }

std::string ClientRecords::path_of(const std::string& service) {
  require_name(service);
  return std::string(kDirectory) + "/" + service + kSuffix;
}

std::string ClientRecords::lock_path_of(const std::string& service) {
  require_name(service);
  make_directory();
  return std::string(kDirectory) + "/" + service + ".lock";
}

bool ClientRecords::exist_of(const std::string& service) {
  return kelotls::exists_at(path_of(service));
}

ClientRecords ClientRecords::load(const std::string& service) {
  const std::string path = path_of(service);
  ClientRecords records(service);
  Json::Value document;
  kelotls::JsonReader reader(kelotls::DuplicateKeys::kRefused);
  errno = 0;
  std::string fault;
  if (reader.read(path, document)) {
    try {
      records.read(document);
    } catch (const Unusable& unusable) {
      fault = unusable.reason;
    } catch (const Json::Exception& exception) {
      fault = exception.what();
    }
  } else if (errno != ENOENT) {
    fault = errno != 0 ? std::strerror(errno) : reader.fault();
  }
  if (!fault.empty()) {
    throw Failure(kFailed, path + " cannot be used: " + fault,
                  "Nothing was changed. kelotlsctl clients forget " + service + " removes it.");
  }
  return records;
}

void ClientRecords::read(const Json::Value& document) {
  kelotls::Faults faults;
  if (!append_exact_faults(document, kMembers, "$", faults)) {
    throw Unusable{fault_text(faults[0])};
  }
  since_ = time_of(document["since"], kTimeFormat);
  until_ = time_of(document["until"], kTimeFormat);
  connections_ = count_of(document, "connections");
  kernel_drops_ = count_of(document, "kernel-drops");
  left_out_hellos_ = count_of(document["left-out"], "hellos");
  left_out_connections_ = count_of(document["left-out"], "connections");
  const Json::Value& unread = document["unread"];
  unread_ = {count_of(unread, "not-tls"), count_of(unread, "ssl2"), count_of(unread, "incomplete"),
             count_of(unread, "too-large")};
  for (const Json::Value& hello : document["hellos"]) {
    insert(hello_of(hello));
  }
}

void ClientRecords::insert(RecordedHello hello) {
  const std::string key = comparison_key(hello.hello);
  if (key.empty() || !by_key_.emplace(key, hellos_.size()).second) {
    throw Unusable{key.empty() ? "a hello is none" : "two hellos are the same"};
  }
  size_ += size_of(hello);
  hellos_.push_back(std::move(hello));
}

void ClientRecords::set_limit(std::size_t bytes) {
  limit_ = bytes - std::min(bytes, kMostSummaryBytes);
  if (size_ > limit_) {
    drop_down_to(limit_);
  }
}

bool ClientRecords::add(const std::string& hello, std::time_t when, const std::string& address) {
  const std::string key = comparison_key(hello);
  if (key.empty()) {
    return false;
  }
  const auto [place, is_new] = by_key_.emplace(key, hellos_.size());
  if (is_new) {
    hellos_.push_back({hello, 0, when, when, {}, {}});
  }
  RecordedHello& known = hellos_[place->second];
  size_ -= is_new ? 0 : size_of(known);
  ++known.count;
  ++connections_;
  known.first = std::min(known.first, when);
  known.last = std::max(known.last, when);
  add_hours(known, when / kSecondsPerHour, 1);
  add_address(known, address);
  size_ += size_of(known);
  if (size_ > limit_) {
    // More than has to go, so that the next hello does not sort them all again.
    drop_down_to(limit_ - limit_ / 10);
  }
  return true;
}

void ClientRecords::cover(std::time_t since, std::time_t until) {
  const bool is_first = since_ == 0 && until_ == 0;
  since_ = is_first ? since : std::min(since_, since);
  until_ = is_first ? until : std::max(until_, until);
}

void ClientRecords::drop_down_to(std::size_t bytes) {
  std::time_t newest = until_;
  for (const RecordedHello& hello : hellos_) {
    newest = std::max(newest, hello.last);
  }
  const std::int64_t recent = newest - kRecordedHours * kSecondsPerHour;
  std::vector<RecordedHello> sorted = std::move(hellos_);
  const auto goes_later = [recent](const RecordedHello& one, const RecordedHello& other) {
    const bool is_recent = one.last > recent;
    const bool is_other_recent = other.last > recent;
    return is_recent != is_other_recent            ? is_recent
           : is_recent && one.count != other.count ? one.count > other.count
                                                   : one.last > other.last;
  };
  std::stable_sort(sorted.begin(), sorted.end(), goes_later);
  hellos_.clear();
  by_key_.clear();
  size_ = 0;
  for (RecordedHello& hello : sorted) {
    if (size_ + size_of(hello) <= bytes) {
      insert(std::move(hello));
    } else {
      ++left_out_hellos_;
      left_out_connections_ += hello.count;
      bytes = size_;  // nothing that goes earlier stays in its place
    }
  }
}

void ClientRecords::forget_hours() {
  const std::int64_t newest = until_ / kSecondsPerHour;
  for (RecordedHello& hello : hellos_) {
    size_ -= size_of(hello);
    hello.hours.erase(hello.hours.begin(), hello.hours.upper_bound(newest - kRecordedHours));
    size_ += size_of(hello);
  }
}

Json::Value ClientRecords::summary() const {
  return object({{"service", service_},
                 {"since", time_text(since_)},
                 {"until", time_text(until_)},
                 {"connections", Json::UInt64{connections_}},
                 {"left-out", object({{"hellos", Json::UInt64{left_out_hellos_}},
                                      {"connections", Json::UInt64{left_out_connections_}}})},
                 {"unread", unread_.json()},
                 {"kernel-drops", Json::UInt64{kernel_drops_}}});
}

void ClientRecords::save() {
  forget_hours();
  std::string text = line_of(summary());
  text.back() = ',';  // the object goes on
  text += "\n\"hellos\":[";
  const char* before = "\n";
  for (const RecordedHello& hello : hellos_) {
    text += before + line_of(json_of(hello));
    before = ",\n";
  }
  text += "\n]}\n";
  make_directory();
  if (!kelotls::replace_entry(path_of(service_), text, kFileMode)) {
    throw system_failure(path_of(service_));
  }
}

bool forget_clients(const std::string& service) {
  const std::string path = ClientRecords::path_of(service);
  std::vector<std::string> names;
  if (!kelotls::list_directory(ClientRecords::kDirectory, names)) {
    if (errno == ENOENT) {
      return false;
    }
    throw system_failure(ClientRecords::kDirectory);
  }
  bool has_removed = false;
  for (const std::string& name : names) {
    if (name == service + kSuffix || is_left_of(name, service + kSuffix)) {
      has_removed = remove_file(std::string(ClientRecords::kDirectory) + "/" + name) || has_removed;
    }
  }
  return has_removed;
}

}  // namespace kelotlsctl
