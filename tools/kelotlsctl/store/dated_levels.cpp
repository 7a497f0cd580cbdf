// Owns the file of levels that end at a date.
#include "store/dated_levels.h"

#include <sys/types.h>

#include <cerrno>
#include <cstring>

#include "files.h"
#include "json_document.h"
#include "output/console.h"
#include "store/documents.h"

namespace kelotlsctl {

namespace {

constexpr mode_t kMode = 0600;
constexpr std::chrono::hours kWorthWriting{1};

constexpr kelotls::MemberRule kMembers[] = {{"services", Json::objectValue, true, false}, {}};
// clang-format off
constexpr kelotls::MemberRule kDatedMembers[] = {
    {"level",      Json::intValue,    true,  false},
    {"then",       Json::intValue,    true,  false},
    {"until",      Json::stringValue, true,  false},
    {"reason",     Json::stringValue, true,  false},
    {"length",     Json::intValue,    true,  false},
    {"ran",        Json::intValue,    true,  false},
    {"boot",       Json::stringValue, true,  true},
    {"since-boot", Json::intValue,    true,  false},
    {"record",     Json::stringValue, false, false},
    {"fault",      Json::stringValue, false, false},
    {}};
// clang-format on

void append_dated_faults(const Json::Value& dated, const std::string& path,
                         kelotls::Faults& faults) {
  if (!append_exact_faults(dated, kDatedMembers, path, faults)) {
    return;
  }
  for (const char* const level : {"level", "then"}) {
    if (level_json(dated[level].asInt())["name"] == "unknown") {
      faults.push_back({kelotls::path_of_member(path, level), "is no level"});
    }
  }
  if (!parse_utc(dated["until"].asString())) {
    faults.push_back({kelotls::path_of_member(path, "until"), "is no time in UTC"});
  }
}

kelotls::Faults faults_of(const Json::Value& document) {
  kelotls::Faults faults;
  if (!append_exact_faults(document, kMembers, "$", faults)) {
    return faults;
  }
  const Json::Value& services = document["services"];
  for (const std::string& service : services.getMemberNames()) {
    append_dated_faults(services[service], kelotls::path_of_member("$.services", service), faults);
  }
  return faults;
}

/// Why the file cannot be used. Without a file there is no fault and no document.
std::string read_file(Json::Value& document) {
  kelotls::JsonReader reader(kelotls::DuplicateKeys::kRefused);
  errno = 0;
  if (!reader.read(DatedLevels::kPath, document)) {
    return errno == ENOENT ? "" : errno != 0 ? std::strerror(errno) : reader.fault();
  }
  const kelotls::Faults faults = faults_of(document);
  return faults.empty() ? "" : fault_text(faults[0]);
}

int seconds_of(Milliseconds time) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(time).count());
}

Json::Value kept_json(const DatedLevel& dated) {
  Json::Value value = object({{"level", dated.level},
                              {"then", dated.then},
                              {"until", utc_text(dated.until)},
                              {"reason", dated.reason},
                              {"length", seconds_of(dated.length)},
                              {"ran", seconds_of(dated.ran)},
                              {"boot", dated.boot},
                              {"since-boot", seconds_of(dated.since_boot)}});
  for (const auto& [member, text] : {std::pair{"record", &dated.record}, {"fault", &dated.fault}}) {
    if (!text->empty()) {
      value[member] = *text;
    }
  }
  return value;
}

DatedLevel dated_of(const Json::Value& value) {
  return {value["level"].asInt(),
          value["then"].asInt(),
          *parse_utc(value["until"].asString()),
          value["reason"].asString(),
          std::chrono::seconds(value["length"].asInt()),
          std::chrono::seconds(value["ran"].asInt()),
          value["boot"].asString(),
          std::chrono::seconds(value["since-boot"].asInt()),
          kelotls::text_member(value, "record"),
          kelotls::text_member(value, "fault")};
}

}  // namespace

Milliseconds DatedLevel::running_time(const Moment& now) const {
  return ran + now.since_boot - (now.boot == boot ? since_boot : Milliseconds::zero());
}

bool DatedLevel::is_over(const Moment& now) const {
  return now.wall >= until || running_time(now) >= length;
}

DatedLevels DatedLevels::load() {
  Json::Value document;
  const std::string fault = read_file(document);
  if (!fault.empty()) {
    throw Failure(kFailed, std::string(kPath) + " cannot be used: " + fault,
                  "Nothing was changed. Mend the file, or remove it: then no level has a date.");
  }
  DatedLevels levels;
  if (!document.isNull()) {
    const Json::Value& services = document["services"];
    for (const std::string& service : services.getMemberNames()) {
      levels.set(service, dated_of(services[service]));
    }
  }
  return levels;
}

std::string DatedLevels::fault() {
  Json::Value document;
  return read_file(document);
}

const DatedLevel* DatedLevels::find(const std::string& service) const {
  const auto found = by_service_.find(service);
  return found != by_service_.end() ? &found->second : nullptr;
}

bool DatedLevels::note_running_time(const Moment& now) {
  bool is_worth_writing = false;
  for (auto& [service, dated] : by_service_) {
    const Milliseconds running = dated.running_time(now);
    if (dated.boot != now.boot || running - dated.ran >= kWorthWriting) {
      dated.ran = running;
      dated.boot = now.boot;
      dated.since_boot = now.since_boot;
      is_worth_writing = true;
    }
  }
  return is_worth_writing;
}

void DatedLevels::save() const {
  Json::Value services(Json::objectValue);
  for (const auto& [service, dated] : by_service_) {
    services[service] = kept_json(dated);
  }
  if (!kelotls::replace_entry(kPath, kelotls::json_text(object({{"services", services}})), kMode)) {
    throw system_failure(kPath);
  }
}

Json::Value dated_json(const DatedLevel& dated) {
  Json::Value value = object({{"until", utc_text(dated.until)},
                              {"then", level_json(dated.then)},
                              {"reason", dated.reason}});
  if (!dated.fault.empty()) {
    value["fault"] = dated.fault;
  }
  return value;
}

}  // namespace kelotlsctl
