// Every fault of a registration, a descriptor and a data store, with its place and text; and the
// rules on names.
#include <ostream>

#include "framework.h"
#include "framework_config.h"
#include "json_document.h"
#include "regeneration.h"
#include "registration.h"

namespace kelotls {

bool operator==(const Fault& left, const Fault& right) {
  return left.path == right.path && left.text == right.text;
}

std::ostream& operator<<(std::ostream& out, const Fault& fault) {
  return out << fault.path << ": " << fault.text;
}

namespace test {
namespace {

using DocumentFaults = PrivateTree;

Faults to_join(const std::string& text) { return registration_faults(json(text), Purpose::kJoin); }
Faults to_leave(const std::string& text) {
  return registration_faults(json(text), Purpose::kLeave);
}
Faults of_descriptor(const std::string& text) { return descriptor_faults(json(text)); }
Faults of_data_store(const std::string& text) { return data_store_faults(json(text)); }

// Registrations

TEST_F(DocumentFaults, OfARegistrationAreAllNamed) {
  EXPECT_EQ(to_join(R"({"services": [{"service": "a", "display-name": ""}]})"), Faults());
  EXPECT_EQ(to_join("{}"), (Faults{{"$", "lacks \"services\""}}));
  EXPECT_EQ(to_join("[]"), (Faults{{"$", "is an array, must be an object"}}));
  EXPECT_EQ(to_join(R"({"services": {}})"),
            (Faults{{"$.services", "is an object, must be an array"}}));
  EXPECT_EQ(to_join(R"({"services": [5, {}, {"service": "", "display-name": null},
                {"service": "a", "display-name": "A", "display-name-i18n": "",
                 "mustache-path": 1.5, "reloader-path": true}], "system-service": 1})"),
            (Faults{{"$.services[0]", "is a number, must be an object"},
                    {"$.services[1]", "lacks \"service\""},
                    {"$.services[1]", "lacks \"display-name\""},
                    {"$.services[2].service", "must not be empty"},
                    {"$.services[2].display-name", "is null, must be a string"},
                    {"$.services[3].display-name-i18n", "must not be empty"},
                    {"$.services[3].mustache-path", "is a number, must be a string"},
                    {"$.services[3].reloader-path", "is a boolean, must be a string"},
                    {"$.system-service", "is a number, must be a boolean"}}));
}

TEST_F(DocumentFaults, OfARegistrationToLeaveAreThoseOfTheNamesAlone) {
  EXPECT_EQ(to_leave(R"({"services": [{"service": "a", "display-name": 5}]})"), Faults());
  EXPECT_EQ(to_leave(R"({"services": [{"service": []}, {"display-name": "A"}]})"),
            (Faults{{"$.services[0].service", "is an array, must be a string"},
                    {"$.services[1]", "lacks \"service\""}}));
}

TEST_F(DocumentFaults, OfNamesComeLast) {
  EXPECT_EQ(to_join(R"({"services": [{"service": "a/b", "display-name": "A"}, {"service": "c"},
                {"service": "c", "display-name": "C"}, {"service": "..", "display-name": "D"},
                {"service": "..", "display-name": "D"}], "system-service": "x"})"),
            (Faults{{"$.services[1]", "lacks \"display-name\""},
                    {"$.system-service", "is a string, must be a boolean"},
                    {"$.services[0].service",
                     "holds a \"/\": its files would lie outside of the framework's folders"},
                    {"$.services[2].service", "\"c\" is already named by $.services[1]"},
                    {"$.services[3].service", "must not be \"..\""},
                    {"$.services[4].service", "must not be \"..\""},
                    {"$.services[4].service", "\"..\" is already named by $.services[3]"}}));
}

TEST_F(DocumentFaults, OfANameDependOnATemplate) {
  const auto with_name = [](std::size_t size, const std::string& rest) {
    return R"({"services": [{"service": ")" + std::string(size, 'x') + R"(", "display-name": "")" +
           rest + "}]}";
  };
  const std::string mustache = R"(, "mustache-path": "/t")";
  EXPECT_EQ(to_join(with_name(250, "")), Faults());
  EXPECT_EQ(to_join(with_name(251, "")),
            (Faults{{"$.services[0].service", "is 251 bytes long, 250 are allowed"}}));
  EXPECT_EQ(to_join(with_name(243, mustache)), Faults());
  EXPECT_EQ(to_join(with_name(244, mustache)),
            (Faults{{"$.services[0].service",
                     "is 244 bytes long; with a template 243 are allowed, or it could never be "
                     "rendered"}}));
}

TEST_F(DocumentFaults, OfANameItself) {
  for (const std::string name :
       {"a", "...", ".a", "a b", "a.conf", "\xc3\xa4", "\xff", "a\\b", "-", "~"}) {
    EXPECT_EQ(name_fault(name, true), "") << name;
  }
  EXPECT_EQ(name_fault("", false), "is empty");
  EXPECT_EQ(name_fault(".", false), "must not be \".\"");
  EXPECT_EQ(name_fault("..", true), "must not be \"..\"");
  for (const std::string name : {"/", "a/b", "../a", "a/"}) {
    EXPECT_EQ(name_fault(name, false),
              "holds a \"/\": its files would lie outside of the framework's folders")
        << name;
  }
  for (const std::string& name :
       {std::string("a\nb"), std::string("\x7f"), std::string("\x1f"), std::string("a\0", 2)}) {
    EXPECT_EQ(name_fault(name, false), "holds a control character") << name;
  }
}

// Descriptors

TEST_F(DocumentFaults, OfADescriptorAreAllNamed) {
  EXPECT_EQ(of_descriptor(R"({"service": "a", "display-name": "", "display-name-i18n": "",
                              "reloader-path": "", "mustache-path": "/t"})"),
            Faults());
  EXPECT_EQ(of_descriptor("\"a\""), (Faults{{"$", "is a string, must be an object"}}));
  EXPECT_EQ(of_descriptor(R"({"display-name": 1, "display-name-i18n": [], "mustache-path": "",
                              "reloader-path": {}})"),
            (Faults{{"$", "lacks \"service\""},
                    {"$.display-name", "is a number, must be a string"},
                    {"$.display-name-i18n", "is an array, must be a string"},
                    {"$.mustache-path", "must not be empty"},
                    {"$.reloader-path", "is an object, must be a string"}}));
}

// Data stores

TEST_F(DocumentFaults, OfADataStoreAreAllNamed) {
  EXPECT_EQ(of_data_store(R"({"default-level": 2, "services": {"a": {"display-name": ""}}})"),
            Faults());
  EXPECT_EQ(of_data_store("null"), (Faults{{"$", "is null, must be an object"}}));
  EXPECT_EQ(of_data_store("{}"),
            (Faults{{"$", "lacks \"default-level\""}, {"$", "lacks \"services\""}}));
  EXPECT_EQ(of_data_store(R"({"default-level": "2", "services": []})"),
            (Faults{{"$.default-level", "is a string, must be an integer"},
                    {"$.services", "is an array, must be an object"}}));
  EXPECT_EQ(of_data_store(R"({"default-level": true, "services": {"": null, "a b": 1, "ok": {},
                "z": {"display-name": 3, "display-name-i18n": "", "current-level": null}}})"),
            (Faults{{"$.default-level", "is a boolean, must be an integer"},
                    {"$.services[\"\"]", "is null, must be an object"},
                    {"$.services[\"a b\"]", "is a number, must be an object"},
                    {"$.services.ok", "lacks \"display-name\""},
                    {"$.services.z.display-name", "is a number, must be a string"},
                    {"$.services.z.display-name-i18n", "must not be empty"},
                    {"$.services.z.current-level", "is null, must be an integer"}}));
}

TEST_F(DocumentFaults, OfALevelAreThatItIsNoIntegerOf32Bits) {
  for (const std::string level :
       {"2147483648", "-2147483649", "1.5", "1e300", "18446744073709551615"}) {
    SCOPED_TRACE(level);
    const std::string entry = R"({"a": {"display-name": "", "current-level": )" + level + "}}";
    EXPECT_EQ(of_data_store(R"({"default-level": 2, "services": )" + entry + "}"),
              (Faults{{"$.services.a.current-level", "is a number, must be an integer"}}));
    EXPECT_EQ(of_data_store(R"({"default-level": )" + level + R"(, "services": {}})"),
              (Faults{{"$.default-level", "is a number, must be an integer"}}));
  }
}

// Members

TEST_F(DocumentFaults, OfAStringAreThatItIsMissingEmptyOrNone) {
  constexpr MemberRule kRules[] = {{"name", Json::stringValue, true, false}, {}};
  const auto breaks_rule = [&](const char* text) {
    return broken_rule(json(text), kRules) == kRules;
  };
  EXPECT_FALSE(breaks_rule(R"({"name": "a"})"));
  EXPECT_FALSE(breaks_rule(R"({"name": "\u0000"})"));
  EXPECT_TRUE(breaks_rule(R"({"name": ""})"));
  EXPECT_TRUE(breaks_rule(R"({"name": 1})"));
  EXPECT_TRUE(breaks_rule("{}"));
}

TEST_F(DocumentFaults, AreOfMembersThatAreKnown) {
  EXPECT_EQ(registration_members(), (Lines{"services", "system-service"}));
  EXPECT_EQ(service_members(), (Lines{"service", "display-name", "display-name-i18n",
                                      "mustache-path", "reloader-path"}));
}

// Places

TEST_F(DocumentFaults, HaveAPathThatIsReadInOneWay) {
  EXPECT_EQ(path_of_member("$", "display-name_2"), "$.display-name_2");
  EXPECT_EQ(path_of_member("$", ""), "$[\"\"]");
  EXPECT_EQ(path_of_member("$", "a.b"), "$[\"a.b\"]");
  EXPECT_EQ(path_of_member("$.a", "x y"), "$.a[\"x y\"]");
  EXPECT_EQ(path_of_member("$", "\"\n"), "$[\"\\\"\\n\"]");
  EXPECT_EQ(path_of_element("$.services", 10), "$.services[10]");
}

}  // namespace
}  // namespace test
}  // namespace kelotls
