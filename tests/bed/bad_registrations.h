// Registrations with one flaw each: a value of the wrong type in every place, a missing key, an
// empty string, something else in place of an object.
#ifndef KELOTLS_TESTS_BAD_REGISTRATIONS_H
#define KELOTLS_TESTS_BAD_REGISTRATIONS_H

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "framework.h"

namespace kelotls::test {

struct BadRegistration {
  std::string name;  // shown when the case fails
  Json::Value registration;
};

/// A value of each JSON type, and the edge cases of some.
inline const std::vector<std::pair<std::string, std::string>>& json_values() {
  static const std::vector<std::pair<std::string, std::string>> values = {
      {"Null", "null"},
      {"True", "true"},
      {"False", "false"},
      {"Zero", "0"},
      {"Number", "7"},
      {"NegativeNumber", "-1"},
      {"Real", "1.5"},
      {"EmptyString", R"("")"},
      {"String", R"("x")"},
      {"EmptyArray", "[]"},
      {"Array", R"(["x"])"},
      {"EmptyObject", "{}"},
      {"Object", R"({"x": "y"})"},
  };
  return values;
}

/// Three services that can join, with everything that a service can have.
inline Json::Value good_registration() {
  return json(R"({"services": [
    {"service": "one", "display-name": "One", "reloader-path": "/opt/one/reload",
     "display-name-i18n": "app:one", "mustache-path": "/usr/kelo/tls.mustache"},
    {"service": "two", "display-name": "Two", "reloader-path": "/opt/two/reload",
     "display-name-i18n": "app:two", "mustache-path": "/usr/kelo/tls.mustache"},
    {"service": "three", "display-name": "Three", "reloader-path": "/opt/three/reload",
     "display-name-i18n": "app:three", "mustache-path": "/usr/kelo/tls.mustache"}
  ]})");
}

namespace bad {

using Kinds = std::vector<BadRegistration>;
enum class Strings { kNone, kFilled, kAll };  // the strings that a place accepts

/// Other values in place of the whole registration, of its services, of one service.
inline void add_structures(Kinds& kinds) {
  for (const auto& [type, text] : json_values()) {
    kinds.push_back({"RegistrationIs" + type, json(text)});
    if (type != "EmptyArray") {
      Json::Value registration = good_registration();
      registration["services"] = json(text);
      kinds.push_back({"ServicesIs" + type, registration});
    }
    for (const Json::ArrayIndex index : {0u, 2u}) {
      Json::Value registration = good_registration();
      registration["services"][index] = json(text);
      kinds.push_back({(index == 0 ? "FirstServiceIs" : "ThirdServiceIs") + type, registration});
    }
  }
  Json::Value misspelt;
  misspelt["Services"] = good_registration()["services"];
  kinds.push_back({"ServicesIsMisspelt", misspelt});
  kinds.push_back({"RegistrationIsTheArrayOfServices", good_registration()["services"]});
  Json::Value nested;
  nested["services"].append(good_registration()["services"]);
  kinds.push_back({"ServicesIsNestedOnceMore", nested});
  Json::Value wrapped;
  wrapped.append(good_registration());
  kinds.push_back({"RegistrationIsWrappedInAnArray", wrapped});
  Json::Value named;
  named["services"]["one"] = good_registration()["services"][0];
  kinds.push_back({"ServicesIsAnObjectOfServices", named});
}

/// Other values in place of one member of one service.
inline void add_members(Kinds& kinds, Json::ArrayIndex index, const std::string& place,
                        const std::string& key, Strings accepted) {
  for (const auto& [type, text] : json_values()) {
    const bool is_accepted = (type == "String" && accepted != Strings::kNone) ||
                             (type == "EmptyString" && accepted == Strings::kAll);
    if (!is_accepted) {
      Json::Value registration = good_registration();
      registration["services"][index][key] = json(text);
      kinds.push_back({place + "Is" + type, registration});
    }
  }
}

inline void add_missing(Kinds& kinds, Json::ArrayIndex index, const std::string& place,
                        const std::string& key) {
  Json::Value registration = good_registration();
  registration["services"][index].removeMember(key);
  kinds.push_back({place + "IsMissing", registration});
}

}  // namespace bad

/// What neither joining nor leaving accepts.
inline std::vector<BadRegistration> registrations_that_cannot_leave() {
  bad::Kinds kinds;
  bad::add_structures(kinds);
  bad::add_members(kinds, 0, "FirstName", "service", bad::Strings::kFilled);
  bad::add_members(kinds, 2, "ThirdName", "service", bad::Strings::kFilled);
  bad::add_missing(kinds, 0, "FirstName", "service");
  bad::add_missing(kinds, 2, "ThirdName", "service");
  return kinds;
}

/// Joining refuses all of that, and more.
inline std::vector<BadRegistration> registrations_that_cannot_join() {
  bad::Kinds kinds = registrations_that_cannot_leave();
  bad::add_missing(kinds, 0, "FirstDisplayName", "display-name");
  bad::add_missing(kinds, 2, "ThirdDisplayName", "display-name");
  bad::add_members(kinds, 0, "FirstDisplayName", "display-name", bad::Strings::kAll);
  bad::add_members(kinds, 2, "ThirdDisplayName", "display-name", bad::Strings::kAll);
  bad::add_members(kinds, 2, "ThirdTranslationKey", "display-name-i18n", bad::Strings::kFilled);
  bad::add_members(kinds, 2, "ThirdTemplate", "mustache-path", bad::Strings::kFilled);
  bad::add_members(kinds, 2, "ThirdReloader", "reloader-path", bad::Strings::kFilled);
  return kinds;
}

}  // namespace kelotls::test

#endif
