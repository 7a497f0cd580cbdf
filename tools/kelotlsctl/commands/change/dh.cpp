// kelotlsctl dh: the files of Diffie-Hellman parameters, made where they are missing or broken.
#include <kelotls/tls_profile_level.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "changes/settling.h"
#include "command_line.h"
#include "files.h"
#include "levels/dh_parameters.h"
#include "paths.h"
#include "profile.h"
#include "store/history.h"
#include "store/store.h"

namespace kelotlsctl {

namespace {

constexpr mode_t kMode = 0644;  // services read it, under whatever user they run
constexpr int kNamedBits = 2048;

/// A file as it is to be; the text is empty for one that stays.
struct Plan {
  int bits;
  DhFile former;
  std::string text;

  bool is_named() const { return bits == kNamedBits; }
  bool stays(bool is_forced) const { return former.fault.empty() && !is_forced; }
};

Plan make_plan(const kelotls::Profile& profile) {
  return {profile.dh_bits, read_dh_file(profile), {}};
}

Json::Value plan_json(const Plan& plan, bool is_forced) {
  const char* const change = plan.stays(is_forced)         ? "none"
                             : plan.former.error != ENOENT ? "changed"
                                                           : "new";
  Json::Value file = object({{"path", plan.former.path}, {"bits", plan.bits}, {"change", change}});
  if (!plan.stays(is_forced)) {
    file["group"] = plan.is_named() ? "ffdhe2048" : "generated";
  }
  if (plan.former.error != ENOENT && !plan.former.fault.empty()) {
    file["fault"] = plan.former.fault;
  }
  return file;
}

/// Makes the text of each file that does not stay: all of them, before the first is written.
void make_texts(Console& console, std::vector<Plan>& plans, bool is_forced) {
  for (Plan& plan : plans) {
    if (plan.stays(is_forced)) {
      continue;
    }
    if (!plan.is_named()) {
      console.say("Looking for a prime of " + std::to_string(plan.bits) +
                  " bits: seconds, on a slow machine a minute or more");
    }
    plan.text = plan.is_named() ? named_dh_text() : generated_dh_text(plan.bits);
  }
}

/// Who is to be refused is refused before the search for primes, not minutes later.
void require_access(Console& console, const std::vector<Plan>& plans, const Arguments& arguments) {
  const bool writes = std::any_of(plans.begin(), plans.end(),
                                  [&](const Plan& plan) { return !plan.stays(arguments.force); });
  if (writes && kelotls::exists_at(kelotls::kFrameworkDir)) {
    const WriteAccess access(console, arguments.confidence());
  }
}

/// Where there is no framework yet, there is neither a lock nor a history.
void execute(Console& console, const std::vector<Plan>& plans, const Arguments& arguments) {
  const bool writes =
      std::any_of(plans.begin(), plans.end(), [](const Plan& plan) { return !plan.text.empty(); });
  const bool has_framework = kelotls::exists_at(kelotls::kFrameworkDir);
  std::optional<WriteAccess> access;
  if (writes && has_framework) {
    access.emplace(console, arguments.confidence());
  }
  if (writes && has_framework) {
    begin_record(arguments.command, arguments.reason, list_of({}));
  }
  std::vector<std::string> made;
  if (!kelotls::make_directories(kelotls::kDhParamDir, 0755, made)) {
    throw system_failure(kelotls::kDhParamDir);
  }
  for (const Plan& plan : plans) {
    if (!plan.text.empty() && !kelotls::replace_entry(plan.former.path, plan.text, kMode)) {
      throw system_failure(plan.former.path);
    }
  }
}

}  // namespace

Report make_dh_files(Console& console, const Arguments& arguments) {
  std::vector<Plan> plans;
  Json::Value files = list_of({});
  for (const int level :
       {kelotls::TLS_PROFILE_LEVEL_INTERMEDIATE, kelotls::TLS_PROFILE_LEVEL_OLD}) {
    plans.push_back(make_plan(kelotls::profile_of_level(level)));
    files.append(plan_json(plans.back(), arguments.force));
  }
  if (!arguments.dry_run) {
    require_access(console, plans, arguments);
    make_texts(console, plans, arguments.force);  // takes long: nobody waits for the lock meanwhile
    execute(console, plans, arguments);
  }
  Report report;
  report.document = object({{"written", !arguments.dry_run}, {"files", files}});
  return report;
}

void print_dh_files(Console& console, const Json::Value& document) {
  const bool is_done = document["written"].asBool();
  for (const Json::Value& file : document["files"]) {
    console.data() << file["path"].asString() << ": ";
    if (file["change"] == "none") {
      console.data() << "stays as it is\n";
      continue;
    }
    const bool is_new = file["change"] == "new";
    console.data() << (is_done ? "" : "would be ") << (is_new ? "made" : "replaced") << " with "
                   << (file["group"] == "generated"
                           ? "a new prime of " + file["bits"].asString() + " bits"
                           : "ffdhe2048, of RFC 7919");
    console.data() << (file.isMember("fault") ? "; it " + file["fault"].asString() : "") << '\n';
  }
}

}  // namespace kelotlsctl
