// The entries that descriptors give a data store in memory.
#include <json/json.h>

#include "framework.h"
#include "framework_config.h"

namespace kelotls::test {
namespace {

class MergeServiceEntries : public Framework {
 protected:
  void TearDown() override {
    EXPECT_EQ(log(), Lines());
    Framework::TearDown();
  }
};

const ServiceDesc kWeb = service_desc(R"({"service": "web", "display-name": "Web"})");
const ServiceDesc kMail = service_desc(R"({"service": "mail", "display-name": "",
    "display-name-i18n": "app:mail", "mustache-path": "/m", "reloader-path": "/r"})");

TEST_F(MergeServiceEntries, LeavesTheDataStoreUntouchedForNoServices) {
  for (const char* text :
       {"null", "{}", R"({"services": {"web": {"x": 1}}, "default-level": 2})"}) {
    Json::Value root = json(text);

    EXPECT_EQ(merge_service_entries(root, {}), 0) << text;
    EXPECT_EQ(root, json(text));
  }
}

TEST_F(MergeServiceEntries, GivesNewServicesEntriesAtLevelZero) {
  Json::Value root = json(R"({"default-level": 2, "extra": 1, "services": {}})");

  EXPECT_EQ(merge_service_entries(root, {kWeb, kMail}), 0);

  EXPECT_EQ(root, json(R"({"default-level": 2, "extra": 1, "services": {
      "web": {"display-name": "Web", "current-level": 0},
      "mail": {"display-name": "", "display-name-i18n": "app:mail", "current-level": 0}}})"));
}

TEST_F(MergeServiceEntries, KeepsNeitherPathsNorTheSystemServiceMark) {
  ServiceDesc mail = kMail;
  mail.set_system_service();
  Json::Value root;

  EXPECT_EQ(merge_service_entries(root, {mail}), 0);

  EXPECT_EQ(root["services"]["mail"].getMemberNames(),
            (Lines{"current-level", "display-name", "display-name-i18n"}));
}

TEST_F(MergeServiceEntries, CreatesServicesInANullDataStore) {
  Json::Value root;

  EXPECT_EQ(merge_service_entries(root, {kWeb}), 0);

  EXPECT_EQ(root, json(R"({"services": {"web": {"display-name": "Web", "current-level": 0}}})"));
}

TEST_F(MergeServiceEntries, CopiesTheFormerLevelWhateverItsType) {
  for (const char* level : {"3", "0", "-5", "99", "\"2\"", "1.5", "null", "[1]", R"({"a": 1})"}) {
    Json::Value root;
    root["services"]["web"]["current-level"] = json(level);

    EXPECT_EQ(merge_service_entries(root, {kWeb}), 0);

    EXPECT_EQ(root["services"]["web"]["current-level"], json(level)) << level;
  }
}

TEST_F(MergeServiceEntries, CopiesAnAbsentLevelAsNull) {
  Json::Value root = json(R"({"services": {"web": {"display-name": "Old"}}})");

  EXPECT_EQ(merge_service_entries(root, {kWeb}), 0);

  EXPECT_EQ(root, json(R"({"services": {"web": {"display-name": "Web", "current-level": null}}})"));
}

TEST_F(MergeServiceEntries, TakesANullEntryForNone) {
  Json::Value root = json(R"({"services": {"web": null}})");

  EXPECT_EQ(merge_service_entries(root, {kWeb}), 0);

  EXPECT_EQ(root["services"]["web"]["current-level"], Json::Value(0));
}

TEST_F(MergeServiceEntries, ReplacesTheFormerEntryWhole) {
  Json::Value root = json(R"({"services": {"web": {"display-name": "Old",
      "display-name-i18n": "app:old", "extra": {}, "current-level": 1}}})");

  EXPECT_EQ(merge_service_entries(root, {kWeb}), 0);

  EXPECT_EQ(root, json(R"({"services": {"web": {"display-name": "Web", "current-level": 1}}})"));
}

TEST_F(MergeServiceEntries, NeverTouchesTheEntriesOfOtherServices) {
  Json::Value root = json(R"({"services": {"other": {"extra": [1], "current-level": "x"},
      "empty": null}})");
  const Json::Value before = root["services"];

  EXPECT_EQ(merge_service_entries(root, {kWeb}), 0);

  EXPECT_EQ(root["services"]["other"], before["other"]);
  EXPECT_EQ(root["services"]["empty"], before["empty"]);
  EXPECT_EQ(root["services"].size(), 3u);
}

TEST_F(MergeServiceEntries, LetsTheLaterOfTwoDescriptorsWinAndKeepsTheLevel) {
  const ServiceDesc later =
      service_desc(R"({"service": "web", "display-name": "Later", "display-name-i18n": "app:l"})");
  Json::Value joined = json(R"({"services": {"web": {"current-level": 3}}})");
  Json::Value fresh;

  EXPECT_EQ(merge_service_entries(joined, {kWeb, later}), 0);
  EXPECT_EQ(merge_service_entries(fresh, {later, kWeb}), 0);

  EXPECT_EQ(joined, json(R"({"services": {"web": {"display-name": "Later",
      "display-name-i18n": "app:l", "current-level": 3}}})"));
  EXPECT_EQ(fresh, json(R"({"services": {"web": {"display-name": "Web", "current-level": 0}}})"));
}

TEST_F(MergeServiceEntries, AcceptsTheEmptyNameAndOnesWithANulByte) {
  const std::string name("web\0x", 5);
  Json::Value descriptor;
  descriptor["service"] = name;
  ServiceDesc odd;
  odd.from_json(descriptor);
  Json::Value root = json(R"({"services": {"web": {"current-level": 3}}})");

  EXPECT_EQ(merge_service_entries(root, {ServiceDesc(), odd}), 0);

  EXPECT_EQ(root["services"].getMemberNames(), (Lines{"", "web", name}));
  EXPECT_EQ(root["services"][""]["current-level"], Json::Value(0));
  EXPECT_EQ(root["services"][name]["current-level"], Json::Value(0));
  EXPECT_EQ(root["services"]["web"]["current-level"], Json::Value(3));
}

}  // namespace
}  // namespace kelotls::test
