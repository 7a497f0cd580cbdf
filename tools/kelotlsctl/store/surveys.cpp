// Owns the file of what was last seen of running servers.
#include "store/surveys.h"

#include <sys/types.h>

#include "files.h"
#include "json_document.h"
#include "output/console.h"
#include "store/store.h"
#include "system/clocks.h"

namespace kelotlsctl {

namespace {

constexpr mode_t kMode = 0600;  // it tells where servers listen, as the addresses do

bool is_certificate(const Json::Value& value) {
  return !kelotls::text_member(value, "kind").empty() &&
         !kelotls::text_member(value, "not-after").empty();
}

bool is_survey(const Json::Value& value) {
  for (const char* const key : {"time", "address", "verdict"}) {
    if (kelotls::text_member(value, key).empty()) {
      return false;
    }
  }
  const Json::Value* const certificates = kelotls::find_member(value, "certificates");
  return value["level"].isInt() && certificates != nullptr && certificates->isArray();
}

/// Those that can be read, each with its kind and its end alone.
Json::Value certificates_of(const Json::Value& seen) {
  Json::Value list(Json::arrayValue);
  for (const Json::Value& certificate : seen["certificates"]) {
    if (is_certificate(certificate)) {
      list.append(object({{"kind", certificate["kind"]}, {"not-after", certificate["not-after"]}}));
    }
  }
  return list;
}

}  // namespace

Surveys Surveys::load() {
  Surveys surveys;
  Json::Value document;
  kelotls::JsonReader().read(kPath, document);
  const Json::Value* const services = kelotls::find_member(document, "services");
  if (services == nullptr || !services->isObject()) {
    return surveys;
  }
  for (const std::string& service : services->getMemberNames()) {
    Json::Value survey = (*services)[service];
    if (is_survey(survey)) {
      survey["certificates"] = certificates_of(survey);
      surveys.by_service_[service] = survey;
    }
  }
  return surveys;
}

const Json::Value* Surveys::find(const std::string& service) const {
  const auto found = by_service_.find(service);
  return found != by_service_.end() ? &found->second : nullptr;
}

Json::Value Surveys::still_true(const Addresses& addresses, const std::string& service,
                                int level) const {
  const Address* const address = addresses.find(service);
  const Json::Value* const survey = find(service);
  const bool is_true = address != nullptr && survey != nullptr &&
                       (*survey)["address"] == address_text(*address) &&
                       (*survey)["level"] == level;
  return is_true ? *survey : Json::Value();
}

void Surveys::set(const std::string& service, int level, const Json::Value& seen) {
  Json::Value survey = seen;
  survey["time"] = now_as_text();
  survey["level"] = level;
  survey["certificates"] = certificates_of(seen);
  by_service_[service] = survey;
}

void Surveys::save() const {
  Json::Value services(Json::objectValue);
  for (const auto& [service, survey] : by_service_) {
    services[service] = survey;
  }
  if (!kelotls::replace_entry(kPath, kelotls::json_text(object({{"services", services}})), kMode)) {
    throw system_failure(kPath);
  }
}

}  // namespace kelotlsctl
