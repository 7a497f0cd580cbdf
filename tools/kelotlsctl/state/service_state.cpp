// Owns whether a service's level has reached the service.
#include "state/service_state.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "files.h"
#include "paths.h"

namespace kelotlsctl {

namespace {

using kelotls::find_member;
using kelotls::RenderResult;
using kelotls::text_member;

struct StateWords {
  const char* text;
  const char* key;
};

// clang-format off
constexpr std::array<StateWords, 6> kStateWords = {{
    {"in force",                       "in-force"},
    {"pending render",                 "pending-render"},
    {"pending reload",                 "pending-reload"},
    {"in force from its next context", "next-context"},
    {"cannot be rendered",             "cannot-render"},
    {"unusable level",                 "unusable-level"},
}};
// clang-format on

std::string failure_text(const RenderResult& result, const Store& store,
                         const std::string& service) {
  switch (result.failed_step) {
    case RenderResult::Step::kDescriptor:
      return "descriptor " + result.path + ": " + read_service_descriptor(service).fault;
    case RenderResult::Step::kLevel:
      return "the level " + std::to_string(store.effective_level(service)) + " is unusable";
    case RenderResult::Step::kTemplate:
      return "template " + result.template_path +
             (kelotls::exists_at(result.template_path) ? " cannot be rendered" : " is missing");
    case RenderResult::Step::kRead:
      return result.path + ": " + std::strerror(result.error);
    default:
      return kelotls::rendered_path(service) + " was not written";
  }
}

Change change_of(const RenderResult& result, const kelotls::RenderedTexts& texts) {
  switch (result.outcome) {
    case RenderResult::Outcome::kNoTemplate:
      return Change::kNoTemplate;
    case RenderResult::Outcome::kUnchanged:
      return Change::kUnchanged;
    case RenderResult::Outcome::kFailed:
      return Change::kFailed;
    default:
      return texts.had_former ? Change::kChanged : Change::kNew;
  }
}

std::string sha256(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    throw Failure(kFailed, "OpenSSL gives no SHA-256");
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int index = 0; index < length; ++index) {
    hex += kDigits[digest[index] >> 4];
    hex += kDigits[digest[index] & 15];
  }
  return hex;
}

Json::Value stamp_entry(int effective, const std::string& rendered) {
  return object({{"level", effective}, {"rendered", sha256(rendered)}});
}

/// The stamp's services; null where it cannot be used.
Json::Value read_stamp() {
  Json::Value document;
  std::string fault;
  const bool is_read = read_document(Stamp::kPath, document, fault);
  const Json::Value* const services = is_read ? find_member(document, "services") : nullptr;
  return services != nullptr && services->isObject() ? *services : Json::Value();
}

}  // namespace

std::string ServiceDescriptor::template_path() const { return text_member(value, "mustache-path"); }

std::string ServiceDescriptor::reloader_path() const { return text_member(value, "reloader-path"); }

ServiceDescriptor read_service_descriptor(const std::string& service) {
  ServiceDescriptor descriptor;
  descriptor.path = kelotls::descriptor_path(service);
  if (read_document(descriptor.path, descriptor.value, descriptor.fault)) {
    descriptor.usable = descriptor.value.isObject();
    descriptor.fault = descriptor.usable ? "" : "it is no JSON object";
  }
  return descriptor;
}

std::string link_target(const std::string& service) {
  char target[PATH_MAX];
  const ssize_t length = ::readlink(kelotls::link_path(service).c_str(), target, sizeof target);
  return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

Rendered render(const Store& store, const std::string& service, kelotls::JsonReader& reader,
                kelotls::Rendering rendering) {
  Rendered rendered;
  rendered.service = service;
  const RenderResult result =
      kelotls::render_and_compare(store.root, service, reader, rendering, rendered.texts);
  rendered.change = change_of(result, rendered.texts);
  if (rendered.change == Change::kFailed) {
    rendered.fault = failure_text(result, store, service);
  }
  return rendered;
}

Stamp Stamp::load() {
  Stamp stamp;
  const Json::Value services = read_stamp();
  if (services.isObject()) {
    stamp.services_ = services;
  }
  return stamp;
}

bool Stamp::is_broken() { return kelotls::exists_at(Stamp::kPath) && read_stamp().isNull(); }

bool Stamp::matches(const std::string& service, int effective, const std::string& rendered) const {
  const Json::Value* const found = find_member(services_, service);
  return found != nullptr && *found == stamp_entry(effective, rendered);
}

void Stamp::record(const std::string& service, int effective, const std::string& rendered) {
  services_[service] = stamp_entry(effective, rendered);
}

bool Stamp::forget(const std::vector<std::string>& services) {
  bool any = false;
  for (const std::string& service : services) {
    any = services_.removeMember(service.data(), service.data() + service.size(), nullptr) || any;
  }
  return any;
}

void Stamp::save() const {
  Json::Value document(Json::objectValue);
  document["services"] = services_;
  if (!kelotls::replace_entry(Stamp::kPath, kelotls::json_text(document), 0644)) {
    throw Failure(kFailed, std::string(Stamp::kPath) + ": " + std::strerror(errno));
  }
}

ServiceStatus ServiceInspector::inspect(const std::string& service) {
  const Json::Value& entry = store_.services()[service];
  ServiceStatus status;
  status.name = service;
  status.display_name = text_member(entry, "display-name");
  status.i18n_display_name = text_member(entry, "display-name-i18n");
  status.stored = store_.stored_level(service);
  status.effective = store_.effective_level(service);
  status.descriptor = read_service_descriptor(service);
  status.link_target = link_target(service);
  status.rendered = render(store_, service, reader_, kelotls::Rendering::kPreview);
  status.state = state_of(status);
  return status;
}

State ServiceInspector::state_of(const ServiceStatus& status) const {
  if (status.effective < 0) {
    return State::kUnusableLevel;
  }
  switch (status.rendered.change) {
    case Change::kFailed:
      return State::kCannotRender;
    case Change::kNew:
    case Change::kChanged:
      return State::kPendingRender;
    case Change::kNoTemplate:
      if (status.link_target.empty() && status.descriptor.reloader_path().empty()) {
        return State::kNextContext;
      }
      break;
    case Change::kUnchanged:
      break;
  }
  const bool has_template = status.rendered.change != Change::kNoTemplate;
  const std::string rendered = has_template ? status.rendered.texts.former : std::string();
  return stamp_.matches(status.name, status.effective, rendered) ? State::kInForce
                                                                 : State::kPendingReload;
}

std::string state_text(const std::string& state_key) {
  for (const StateWords& words : kStateWords) {
    if (state_key == words.key) {
      return words.text;
    }
  }
  return state_key;
}

Json::Value status_json(const ServiceStatus& status) {
  Json::Value value = object({{"service", status.name},
                              {"display-name", status.display_name},
                              {"stored-level", level_json(status.stored)},
                              {"effective-level", effective_level_json(status.effective)},
                              {"state", kStateWords[static_cast<std::size_t>(status.state)].key}});
  if (!status.rendered.fault.empty()) {
    value["fault"] = status.rendered.fault;
  }
  return value;
}

}  // namespace kelotlsctl
