// Owns the rules of what may join and leave the framework.
#include "registration.h"

#include <algorithm>
#include <map>
#include <utility>

namespace kelotls {
namespace {

constexpr MemberRule kRegistration[] = {
    {"services", Json::arrayValue, true, false},
    {"system-service", Json::booleanValue, false, false},
    {},
};
constexpr MemberRule kJoiningService[] = {
    {"service", Json::stringValue, true, false},
    {"display-name", Json::stringValue, true, true},
    {"display-name-i18n", Json::stringValue, false, false},
    {"mustache-path", Json::stringValue, false, false},
    {"reloader-path", Json::stringValue, false, false},
    {},
};
constexpr MemberRule kLeavingService[] = {
    {"service", Json::stringValue, true, false},
    {},
};

// A file name holds 255 bytes at most. The suffix takes five; the temporary file that becomes the
// rendered one takes seven more.
constexpr std::size_t kMaxName = 250;
constexpr std::size_t kMaxNameWithTemplate = 243;

const MemberRule* rules_for(Purpose purpose) {
  return purpose == Purpose::kJoin ? kJoiningService : kLeavingService;
}

/// Null where there is no array of services.
const Json::Value* find_services(const Json::Value& registration) {
  const Json::Value* const services = find_member(registration, "services");
  return services != nullptr && services->type() == Json::arrayValue ? services : nullptr;
}

/// The rules on names, of elements that have one.
void append_name_faults(const Json::Value& services, Faults& faults) {
  std::map<std::string, std::string> first_places;
  for (Json::ArrayIndex index = 0; index < services.size(); ++index) {
    const std::string name = text_member(services[index], "service");
    if (name.empty()) {
      continue;
    }
    const std::string element = path_of_element("$.services", index);
    const std::string fault =
        name_fault(name, !text_member(services[index], "mustache-path").empty());
    if (!fault.empty()) {
      faults.push_back({element + ".service", fault});
    }
    const auto [first, is_new] = first_places.emplace(name, element);
    if (!is_new) {
      faults.push_back(
          {element + ".service", "\"" + name + "\" is already named by " + first->second});
    }
  }
}

std::vector<std::string> keys_of(const MemberRule* rule) {
  std::vector<std::string> keys;
  for (; rule->key != nullptr; ++rule) {
    keys.emplace_back(rule->key);
  }
  return keys;
}

}  // namespace

bool is_registration(const Json::Value& registration, Purpose purpose) {
  const Json::Value* const services = find_services(registration);
  return services != nullptr &&
         std::all_of(services->begin(), services->end(), [&](const Json::Value& service) {
           return broken_rule(service, rules_for(purpose)) == nullptr;
         });
}

Faults registration_faults(const Json::Value& registration, Purpose purpose) {
  Faults faults;
  const Json::Value* const services = find_services(registration);
  for (Json::ArrayIndex index = 0; services != nullptr && index < services->size(); ++index) {
    append_faults((*services)[index], rules_for(purpose), path_of_element("$.services", index),
                  faults);
  }
  append_faults(registration, kRegistration, "$", faults);
  if (services != nullptr) {
    append_name_faults(*services, faults);
  }
  return faults;
}

std::vector<std::string> registration_members() { return keys_of(kRegistration); }

std::vector<std::string> service_members() { return keys_of(kJoiningService); }

std::string name_fault(const std::string& name, bool has_template) {
  const bool has_control = std::any_of(name.begin(), name.end(), [](unsigned char character) {
    return character < 0x20 || character == 0x7f;
  });
  const std::string length = "is " + std::to_string(name.size()) + " bytes long";
  return name.empty()                  ? "is empty"
         : name == "." || name == ".." ? "must not be \"" + name + "\""
         : name.find('/') != std::string::npos
             ? "holds a \"/\": its files would lie outside of the framework's folders"
         : has_control            ? "holds a control character"
         : name.size() > kMaxName ? length + ", 250 are allowed"
         : has_template && name.size() > kMaxNameWithTemplate
             ? length + "; with a template 243 are allowed, or it could never be rendered"
             : std::string();
}

bool is_system_service(const Json::Value& registration) {
  const Json::Value* const flag = find_member(registration, "system-service");
  return flag != nullptr && flag->asBool();
}

std::vector<ServiceDesc> services_of(const Json::Value& registration) {
  const bool belong_to_system = is_system_service(registration);
  std::vector<ServiceDesc> services;
  for (const Json::Value& element : registration["services"]) {
    ServiceDesc service;
    service.from_json(element);
    if (belong_to_system) {
      service.set_system_service();
    }
    services.push_back(std::move(service));
  }
  return services;
}

bool needs_reloader_link(const ServiceDesc& service) {
  return service.has_reloader() && !service.is_system_service();
}

}  // namespace kelotls
