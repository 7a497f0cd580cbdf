// What counts as a data store, and which line says why something does not.
#include <json/json.h>

#include <memory>
#include <stdexcept>

#include "framework_config.h"
#include "private_tree.h"

namespace kelotls::test {
namespace {

Json::Value parse(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    throw std::runtime_error(errors);
  }
  return value;
}

std::string with_entry(const std::string& entry) {
  return R"({"default-level": 2, "services": {"web": )" + entry + "}}";
}

constexpr char kNoDefaultLevel[] = "validator.cpp:11 Invalid format: no default-level";
constexpr char kNoServices[] = "validator.cpp:15 Invalid format: no services field.";
constexpr char kNoDisplayName[] = "validator.cpp:23 Invalid format: no display-name.";
constexpr char kBadI18nName[] =
    "validator.cpp:29 Invalid format: incorrect type of display-name-i18n.";
constexpr char kNoCurrentLevel[] = "validator.cpp:35 Invalid format: no current-level.";

class Validator : public PrivateTree {
 protected:
  void expect_valid(const std::string& text) {
    EXPECT_TRUE(validate_data_store(parse(text))) << text;
    EXPECT_EQ(log(), Lines()) << text;
  }

  void expect_fault(const std::string& text, const std::string& message) {
    EXPECT_FALSE(validate_data_store(parse(text))) << text;
    EXPECT_EQ(log(), Lines{error_line(message)}) << text;
  }
};

TEST_F(Validator, AcceptsAnEmptyServicesObject) {
  expect_valid(R"({"default-level": 2, "services": {}})");
}

TEST_F(Validator, RefusesARootWithoutDefaultLevel) {
  expect_fault(R"({"services": {}})", kNoDefaultLevel);
}

TEST_F(Validator, DoesNotTestTheTypeOfDefaultLevel) {
  for (const char* level : {"\"x\"", "null", "[]", "{}", "1.5", "true", "-7"}) {
    expect_valid(std::string(R"({"default-level": )") + level + R"(, "services": {}})");
  }
}

TEST_F(Validator, RefusesARootThatIsNoObjectAsOneWithoutDefaultLevel) {
  for (const char* root : {"null", "[]", "[1]", "3", "\"default-level\"", "true", "1.5"}) {
    expect_fault(root, kNoDefaultLevel);
  }
}

TEST_F(Validator, RefusesMissingServices) { expect_fault(R"({"default-level": 2})", kNoServices); }

TEST_F(Validator, RefusesServicesThatAreNoObject) {
  for (const char* services : {"[]", "null", "1", "\"x\"", "false"}) {
    expect_fault(std::string(R"({"default-level": 2, "services": )") + services + "}", kNoServices);
  }
}

TEST_F(Validator, TestsDefaultLevelBeforeServices) { expect_fault("{}", kNoDefaultLevel); }

TEST_F(Validator, RefusesAMissingDisplayName) { expect_fault(with_entry("{}"), kNoDisplayName); }

TEST_F(Validator, RefusesADisplayNameThatIsNoString) {
  for (const char* name : {"1", "null", "true", "[]", "{}"}) {
    expect_fault(with_entry(std::string(R"({"display-name": )") + name + "}"), kNoDisplayName);
  }
}

TEST_F(Validator, AcceptsAnEmptyDisplayName) {
  expect_valid(with_entry(R"({"display-name": ""})"));
}

TEST_F(Validator, TreatsANullEntryAsOneWithoutDisplayName) {
  expect_fault(with_entry("null"), kNoDisplayName);
}

TEST_F(Validator, LetsTheJsonLibraryThrowOnAnEntryThatIsNoObject) {
  for (const char* entry : {"1", "\"x\"", "[]", "true"}) {
    EXPECT_THROW(validate_data_store(parse(with_entry(entry))), Json::LogicError) << entry;
    EXPECT_EQ(log(), Lines());
  }
}

TEST_F(Validator, RefusesAnEmptyI18nDisplayName) {
  expect_fault(with_entry(R"({"display-name": "", "display-name-i18n": ""})"), kBadI18nName);
}

TEST_F(Validator, RefusesAnI18nDisplayNameThatIsNoString) {
  for (const char* name : {"1", "null", "true", "[]", "{}"}) {
    expect_fault(
        with_entry(std::string(R"({"display-name": "w", "display-name-i18n": )") + name + "}"),
        kBadI18nName);
  }
}

TEST_F(Validator, AcceptsAnI18nDisplayName) {
  expect_valid(with_entry(R"({"display-name": "w", "display-name-i18n": "key"})"));
}

TEST_F(Validator, RefusesACurrentLevelThatIsNoInteger) {
  for (const char* level : {"\"2\"", "null", "true", "1.5", "[]", "{}", "2147483648", "1e10"}) {
    expect_fault(
        with_entry(std::string(R"({"display-name": "w", "current-level": )") + level + "}"),
        kNoCurrentLevel);
  }
}

TEST_F(Validator, AcceptsAnyIntegerAsCurrentLevel) {
  for (const char* level : {"0", "3", "9", "-5", "2147483647", "-2147483648", "2.0"}) {
    expect_valid(
        with_entry(std::string(R"({"display-name": "w", "current-level": )") + level + "}"));
  }
}

TEST_F(Validator, AcceptsAMissingCurrentLevel) {
  expect_valid(with_entry(R"({"display-name": "w"})"));
}

TEST_F(Validator, ChecksTheKeysOfAnEntryInOrder) {
  expect_fault(with_entry(R"({"display-name-i18n": "", "current-level": "2"})"), kNoDisplayName);
  expect_fault(with_entry(R"({"display-name": "", "display-name-i18n": "", "current-level": "2"})"),
               kBadI18nName);
}

TEST_F(Validator, ReportsOnlyTheFirstBadEntryInNameOrder) {
  expect_fault(R"({"default-level": 2, "services": {
                   "b": {"display-name": 1},
                   "a": {"display-name": "a", "current-level": "2"},
                   "\u00e9": {}}})",
               kNoCurrentLevel);
}

TEST_F(Validator, IgnoresOtherKeys) {
  expect_valid(
      R"({"default-level": 2, "version": [], "services": {"w": {"display-name": "", "x": 1}}})");
}

}  // namespace
}  // namespace kelotls::test
