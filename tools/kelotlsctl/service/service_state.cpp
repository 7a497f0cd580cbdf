// Owns whether a service's level has reached the service.
#include "service/service_state.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "output/text.h"
#include "service/expected_differences.h"
#include "service/running_server.h"
#include "service/templates.h"
#include "system/clocks.h"
#include "system/digest.h"

namespace kelotlsctl {

namespace {

using kelotls::RenderResult;
using Outcome = RenderResult::Outcome;

struct StateWords {
  const char* text;
  const char* key;
  const char* tone;
};

// clang-format off
constexpr std::array<StateWords, 12> kStateWords = {{
    {"in force",                       "in-force",       kGood},
    {"pending render",                 "pending-render", kCare},
    {"pending reload",                 "pending-reload", kCare},
    {"in force from its next context", "next-context",   kGood},
    {"cannot be rendered",             "cannot-render",  kBad},
    {"unusable level",                 "unusable-level", kBad},
    {"not known: needs root",          "needs-root",     kCare},
    {"differs on the wire",            "differs",        kBad},
    {"not known: server does not say", "cannot-tell",    kCare},
    {"no answer from its server",      "no-answer",      kBad},
    {"in force, as far as it can be",  "as-expected",    kGood},
    {"its server cannot be at it",     "unreachable",    kBad},
}};
// clang-format on

/// Those of a key that state_keys gives.
const StateWords& words_of_state(const std::string& key) {
  const auto has_key = [&key](const StateWords& words) { return key == words.key; };
  return *std::find_if(kStateWords.begin(), kStateWords.end() - 1, has_key);
}

std::string failure_text(const RenderResult& result, const Store& store,
                         const std::string& service) {
  switch (result.failed_step) {
    case RenderResult::Step::kDescriptor:
      return "descriptor " + result.path + ": " + read_service_descriptor(result.path).fault;
    case RenderResult::Step::kLevel:
      return "the level " + std::to_string(store.effective_level(service)) + " is unusable";
    case RenderResult::Step::kTemplate:
      return rendering_fault(result.template_path, store.effective_level(service));
    case RenderResult::Step::kRead:
      return result.path + ": " + std::strerror(result.error);
    default:
      return kelotls::rendered_path(service) + " was not written";
  }
}

/// The template's own step gives no errno.
bool needs_root(const RenderResult& result) {
  if (::geteuid() == 0 || result.outcome != Outcome::kFailed) {
    return false;
  }
  return result.error == EACCES ||
         (result.failed_step == RenderResult::Step::kTemplate &&
          ::access(result.template_path.c_str(), R_OK) != 0 && errno == EACCES);
}

Json::Value stamp_entry(int effective, const std::string& rendered) {
  const std::string digest = sha256(rendered);
  if (digest.empty()) {
    throw Failure(kFailed, "OpenSSL gives no SHA-256");
  }
  return object({{"level", effective}, {"rendered", digest}});
}

bool holds(const Json::Value& recorded, const Json::Value& entry) {
  return recorded["level"] == entry["level"] && recorded["rendered"] == entry["rendered"];
}

}  // namespace

ServiceDescriptor read_service_descriptor(const std::string& path) {
  ServiceDescriptor descriptor = {path, {}, {}};
  if (read_document(path, descriptor.value, descriptor.fault) && !descriptor.value.isObject()) {
    descriptor.fault = "it is no JSON object";
  }
  return descriptor;
}

std::string link_target(const std::string& service) {
  std::error_code error;
  return std::filesystem::read_symlink(kelotls::link_path(service), error).string();
}

Rendered render(const Store& store, const std::string& service, kelotls::JsonReader& reader,
                kelotls::Rendering rendering) {
  kelotls::RenderedTexts texts;
  const RenderResult result =
      kelotls::render_and_compare(store.root, service, reader, rendering, texts);
  const bool has_failed = result.outcome == Outcome::kFailed;
  return {result.outcome, texts, has_failed ? failure_text(result, store, service) : "",
          needs_root(result)};
}

Stamp Stamp::load() {
  Stamp stamp;
  Json::Value document;
  kelotls::JsonReader().read(kPath, document);
  const Json::Value* const services = kelotls::find_member(document, "services");
  stamp.services_ = services != nullptr && services->isObject() ? *services : Json::Value();
  return stamp;
}

bool Stamp::is_broken() { return kelotls::exists_at(kPath) && load().services_.isNull(); }

void Stamp::forget(const std::vector<std::string>& services) {
  Stamp stamp = load();
  bool any = false;
  for (const std::string& service : services) {
    any = stamp.services_.removeMember(service.data(), service.data() + service.size(), nullptr) ||
          any;
  }
  if (any) {
    stamp.save();
  }
}

bool Stamp::matches(const std::string& service, int effective, const std::string& rendered) const {
  const Json::Value* const found = kelotls::find_member(services_, service);
  return found != nullptr && found->isObject() && holds(*found, stamp_entry(effective, rendered));
}

void Stamp::record(const std::string& service, int effective, const std::string& rendered) {
  if (!matches(service, effective, rendered) || since(service).empty()) {
    services_[service] = stamp_entry(effective, rendered);
    services_[service]["since"] = now_as_text();
  }
}

std::string Stamp::since(const std::string& service) const {
  const Json::Value* const found = kelotls::find_member(services_, service);
  return found != nullptr ? kelotls::text_member(*found, "since") : std::string();
}

std::optional<int> Stamp::level(const std::string& service) const {
  const Json::Value* const found = kelotls::find_member(services_, service);
  const Json::Value* const level =
      found != nullptr ? kelotls::find_member(*found, "level") : nullptr;
  return level != nullptr && level->isInt() ? std::optional(level->asInt()) : std::nullopt;
}

void Stamp::remove(const std::string& service) {
  services_.removeMember(service.data(), service.data() + service.size(), nullptr);
}

void Stamp::remove_strangers(const Store& store) {
  for (const std::string& service :
       services_.isObject() ? services_.getMemberNames() : std::vector<std::string>()) {
    if (!store.has(service)) {
      remove(service);
    }
  }
}

void Stamp::save() const {
  const Json::Value services = services_.isNull() ? Json::Value(Json::objectValue) : services_;
  const std::string text = kelotls::json_text(object({{"services", services}}));
  if (!kelotls::replace_entry(kPath, text, 0644)) {
    throw system_failure(kPath);
  }
}

Json::Value ask_with_short_patience(const Addresses& addresses, const std::string& service,
                                    int level) {
  return ask_running_server(addresses, service, level, kShortPatience);
}

Json::Value ask_nobody(const Addresses&, const std::string&, int) { return {}; }

ServiceStatus ServiceInspector::inspect(const std::string& service) {
  const Json::Value& entry = store_.services()[service];
  ServiceStatus status = {service,
                          read_service_descriptor(kelotls::descriptor_path(service)),
                          link_target(service),
                          render(store_, service, reader_, kelotls::Rendering::kPreview),
                          State::kInForce,
                          store_.levels_json(service)};
  status.state = state_of(status);
  if (addresses_) {
    look_at_server(status);
  }
  status.document["display-name"] = kelotls::text_member(entry, "display-name");
  status.document["state"] = kStateWords[static_cast<std::size_t>(status.state)].key;
  if (const DatedLevel* const dated = dates_.find(service)) {
    status.document["dated"] = dated_json(*dated);
  }
  if (!status.rendered.fault.empty()) {
    status.document["fault"] = status.rendered.fault;
  }
  if (status.state == State::kInForce || status.state == State::kAsExpected) {
    status.document["in-force-since"] = stamp_.since(service);
  }
  return status;
}

void ServiceInspector::look_at_server(ServiceStatus& status) const {
  const std::string unreachable = unreachable_level(*addresses_, store_, status.name);
  const bool is_faulty = status.state == State::kCannotRender ||
                         status.state == State::kUnusableLevel || status.state == State::kNeedsRoot;
  if (!unreachable.empty() && !is_faulty) {
    status.state = State::kUnreachable;
    status.document["fault"] = unreachable;
  }
  const bool is_set = status.state == State::kInForce || status.state == State::kNextContext;
  const Json::Value seen =
      is_set ? see_(*addresses_, status.name, store_.effective_level(status.name)) : Json::Value();
  status.document["asked"] = seen.isNull() ? "files" : "server";
  if (seen.isNull()) {
    return;
  }
  const Json::Value& verdict = seen["verdict"];
  status.document["server"] = seen;
  status.state = verdict == "agrees"        ? State::kInForce
                 : verdict == "as-expected" ? State::kAsExpected
                 : verdict == "differs"     ? State::kDiffers
                 : verdict == "cannot-tell" ? State::kCannotTell
                                            : State::kNoAnswer;
}

State ServiceInspector::state_of(const ServiceStatus& status) const {
  const int effective = store_.effective_level(status.name);
  const Outcome outcome = status.rendered.outcome;
  if (effective < 0) {
    return State::kUnusableLevel;
  }
  if (outcome == Outcome::kFailed) {
    return status.rendered.needs_root ? State::kNeedsRoot : State::kCannotRender;
  }
  if (outcome == Outcome::kRendered) {
    return State::kPendingRender;
  }
  const bool has_template = outcome != Outcome::kNoTemplate;
  if (!has_template && status.link_target.empty() && status.descriptor.reloader_path().empty()) {
    return State::kNextContext;
  }
  const std::string rendered = has_template ? status.rendered.texts.former : std::string();
  return stamp_.matches(status.name, effective, rendered) ? State::kInForce : State::kPendingReload;
}

std::vector<std::string> state_keys() {
  std::vector<std::string> keys;
  keys.reserve(kStateWords.size());
  for (const StateWords& words : kStateWords) {
    keys.emplace_back(words.key);
  }
  return keys;
}

std::string state_text(const std::string& state_key) { return words_of_state(state_key).text; }

std::string date_text(const Json::Value& document) {
  return document.isMember("dated") ? " until " + document["dated"]["until"].asString() : "";
}

const char* state_tone(const std::string& state_key) { return words_of_state(state_key).tone; }

}  // namespace kelotlsctl
