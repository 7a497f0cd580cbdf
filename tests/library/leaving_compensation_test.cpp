// What leaving does when a removal reports failure. Linked to a build of the library whose removals
// this program interposes (failing_removals.h).
#include <kelotls/api_provider.h>

#include "bad_registrations.h"
#include "failing_removals.h"
#include "framework.h"

namespace kelotls::test {
namespace {

const std::string kLinkStays =
    error_line("api_provider.cpp:148 Unregister service reloader failed.");
const std::string kDescriptorStays =
    error_line("api_provider.cpp:156 Uninstall service desc failed.");

/// The three services of the good registration have joined and are rendered.
class CompensateLeaving : public Framework {
 protected:
  void SetUp() override {
    Framework::SetUp();
    write_file(kDataStore, R"({"default-level": 2, "extra": [1], "services": {
        "one": {"display-name": "Old", "x": 1, "current-level": 1},
        "other": {"display-name": "Other", "current-level": 3},
        "three": {"display-name": "Old", "current-level": 3},
        "two": {"display-name": "Old", "current-level": 2}}})");
    for (const char* name : {"one", "two", "three"}) {
      write_file(descriptor_path(name), "a descriptor");
      make_link("/opt/reload", link_path(name));
      write_file(rendered_path(name), "rendered");
    }
  }

  static int leave() { return APIProvider().leave_framework(good_registration()); }

  /// The data store with all entries back, as the registration has them.
  static Json::Value compensated_data_store() {
    return json(R"({"default-level": 2, "extra": [1], "services": {
        "one": {"display-name": "One", "display-name-i18n": "app:one", "current-level": 0},
        "other": {"display-name": "Other", "current-level": 3},
        "three": {"display-name": "Three", "display-name-i18n": "app:three", "current-level": 0},
        "two": {"display-name": "Two", "display-name-i18n": "app:two", "current-level": 0}}})");
  }
};

TEST_F(CompensateLeaving, BringsAllEntriesBackAtLevelZeroWhenALinkStays) {
  link_that_stays = "two";

  EXPECT_EQ(leave(), -1);

  EXPECT_EQ(log(), Lines{kLinkStays});
  EXPECT_EQ(read_json(kDataStore), compensated_data_store());
}

TEST_F(CompensateLeaving, KeepsTheFilesOfThatServiceAndOfLaterOnesOnly) {
  link_that_stays = "two";

  EXPECT_EQ(leave(), -1);

  for (const char* directory : {kServices, kPackageReloaders, kConfig}) {
    EXPECT_EQ(names_in(directory), (Lines{"three.conf", "two.conf"})) << directory;
  }
  EXPECT_EQ(removals_by_the_test, 3);  // link and descriptor of the first, link of the second
}

TEST_F(CompensateLeaving, RemovesTheLinkOfAServiceBeforeItsOtherFiles) {
  link_that_stays = "one";

  EXPECT_EQ(leave(), -1);

  EXPECT_EQ(removals_by_the_test, 1);
  EXPECT_EQ(log(), Lines{kLinkStays});
  EXPECT_EQ(read_json(kDataStore), compensated_data_store());
  for (const char* directory : {kServices, kPackageReloaders, kConfig}) {
    EXPECT_EQ(names_in(directory).size(), 3u) << directory;
  }
}

TEST_F(CompensateLeaving, CompensatesForTheLastServiceAsWell) {
  link_that_stays = "three";

  EXPECT_EQ(leave(), -1);

  EXPECT_EQ(read_json(kDataStore), compensated_data_store());
  EXPECT_EQ(names_in(kServices), Lines{"three.conf"});
}

TEST_F(CompensateLeaving, CompensatesOnADataStoreThatCouldNotBeLoaded) {
  remove_all(kDataStore);
  link_that_stays = "one";

  EXPECT_EQ(leave(), -1);

  EXPECT_EQ(log(), (Lines{error_line("framework_config.cpp:16 Load json data failed. "
                                     "[No such file or directory] " +
                                     std::string(kDataStore)),
                          kLinkStays}));
  Json::Value expected = compensated_data_store();
  expected.removeMember("default-level");
  expected.removeMember("extra");
  expected["services"].removeMember("other");
  EXPECT_EQ(read_json(kDataStore), expected);
}

TEST_F(CompensateLeaving, HasSavedTheDataStoreWithoutTheEntriesBeforeTheFirstRemoval) {
  static Lines entries;
  before_each_removal = [] { entries = read_json(kDataStore)["services"].getMemberNames(); };
  link_that_stays = "one";

  EXPECT_EQ(leave(), -1);

  EXPECT_EQ(entries, Lines{"other"});
}

TEST_F(CompensateLeaving, OnlyLogsThatTheEntriesCouldNotBeSavedAgain) {
  before_each_removal = make_data_store_read_only;
  link_that_stays = "one";

  EXPECT_EQ(leave(), -1);

  EXPECT_EQ(log(), (Lines{kLinkStays, error_line("framework_config.cpp:55 Write json data failed. "
                                                 "[Read-only file system] " +
                                                 std::string(kDataStore))}));
  EXPECT_EQ(read_json(kDataStore)["services"].getMemberNames(), Lines{"other"});
  EXPECT_EQ(names_in(kServices).size(), 3u);
}

TEST_F(CompensateLeaving, DoesNotAskForTheLinksOfSystemServices) {
  link_that_stays = "two";
  Json::Value registration = good_registration();
  registration["system-service"] = true;

  EXPECT_EQ(APIProvider().leave_framework(registration), 0);

  EXPECT_EQ(removals_by_the_test, 3);
  EXPECT_EQ(names_in(kServices), Lines());
  EXPECT_EQ(names_in(kPackageReloaders).size(), 3u);
  EXPECT_EQ(log(), Lines());
}

TEST_F(CompensateLeaving, OnlyLogsADescriptorThatStaysAndGoesOn) {
  descriptor_that_stays = "one";

  EXPECT_EQ(leave(), 0);

  EXPECT_EQ(log(), Lines{kDescriptorStays});
  EXPECT_EQ(names_in(kServices), Lines{"one.conf"});
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
  EXPECT_EQ(names_in(kConfig), Lines());
  EXPECT_EQ(read_json(kDataStore)["services"].getMemberNames(), Lines{"other"});
}

TEST_F(CompensateLeaving, CompensatesForNothingWhenNothingStays) {
  EXPECT_EQ(leave(), 0);

  EXPECT_EQ(removals_by_the_test, 6);
  EXPECT_EQ(log(), Lines());
  EXPECT_EQ(read_json(kDataStore)["services"].getMemberNames(), Lines{"other"});
}

}  // namespace
}  // namespace kelotls::test
