// Loading, saving, looking up and changing the data store.
#include <json/json.h>
#include <sys/stat.h>

#include <cerrno>

#include "framework_config.h"
#include "kelotls/tls_profile_level.h"
#include "paths.h"
#include "private_tree.h"

namespace kelotls::test {
namespace {

using FrameworkConfig = PrivateTree;

const std::string kNotLoaded = "framework_config.cpp:16 Load json data failed. ";
const std::string kInvalid =
    "framework_config.cpp:23 Json format invalid. " + std::string(kDataStore);
const std::string kNotJoinedLookup = "framework_config.cpp:123 Service is not joined framework. ";
const std::string kNotJoinedUpdate = "framework_config.cpp:151 Service is not joined framework. ";

Json::Value one_service(int default_level, int level) {
  Json::Value root;
  root["default-level"] = default_level;
  root["services"]["web"]["display-name"] = "Web";
  root["services"]["web"]["current-level"] = level;
  return root;
}

// The constants

TEST_F(FrameworkConfig, KnowsTheRealPaths) {
  EXPECT_STREQ(kTlsProfileDefaultsPath,
               "/usr/kelo/etc.defaults/security-profile/tls-profile/TLSProfile.conf");
  EXPECT_STREQ(kDataStorePath, "/usr/kelo/etc/security-profile/tls-profile/datastore.json");
  EXPECT_STREQ(kServicesDir, "/usr/kelo/etc/security-profile/tls-profile/services/");
  EXPECT_STREQ(kConfigDir, "/usr/kelo/etc/security-profile/tls-profile/config/");
  EXPECT_STREQ(kSystemReloaderDir, "/usr/libexec/security-profile/tls-profile/");
  EXPECT_STREQ(kPackageReloaderDir, "/usr/local/libexec/security-profile/tls-profile/");
}

TEST_F(FrameworkConfig, StoresLevelsAsTheirIntegers) {
  EXPECT_EQ(sizeof(TlsProfileLevel), 4u);
  EXPECT_EQ(TLS_PROFILE_LEVEL_DEFAULT, 0);
  EXPECT_EQ(TLS_PROFILE_LEVEL_MODERN, 1);
  EXPECT_EQ(TLS_PROFILE_LEVEL_INTERMEDIATE, 2);
  EXPECT_EQ(TLS_PROFILE_LEVEL_OLD, 3);
  EXPECT_EQ(kServiceNotJoined, -1);
  EXPECT_EQ(kDataStoreUnavailable, -2);
}

// Loading

TEST_F(FrameworkConfig, LoadsAValidDataStoreWithAllItHolds) {
  write_file(kDataStore,
             R"({"default-level": 2, "extra": [1], "services": {"web": {"display-name": "W"}}})");

  const Json::Value root = load_data_store();

  EXPECT_EQ(root["default-level"], Json::Value(2));
  EXPECT_EQ(root["extra"][0], Json::Value(1));
  EXPECT_EQ(root["services"]["web"]["display-name"], Json::Value("W"));
  EXPECT_EQ(log(), Lines());
}

TEST_F(FrameworkConfig, YieldsNullForAMissingDataStore) {
  EXPECT_TRUE(load_data_store().isNull());
  EXPECT_EQ(log(), Lines{error_line(kNotLoaded + "[No such file or directory] " + kDataStore)});
}

TEST_F(FrameworkConfig, YieldsNullForAnUnreadableDataStore) {
  write_file(kDataStore, data_store_text(2, {}));
  ASSERT_EQ(::chmod(kDataStore, 0), 0);
  obey_file_permissions();

  EXPECT_TRUE(load_data_store().isNull());
  EXPECT_EQ(log(), Lines{error_line(kNotLoaded + "[Permission denied] " + kDataStore)});
}

TEST_F(FrameworkConfig, LogsErrnoZeroForABrokenDataStore) {
  write_file(kDataStore, R"({"default-level": 2, )");
  errno = EPERM;

  EXPECT_TRUE(load_data_store().isNull());
  EXPECT_EQ(log(), Lines{error_line(kNotLoaded + "[Success] " + kDataStore)});
}

TEST_F(FrameworkConfig, YieldsNullForAnInvalidDataStore) {
  write_file(kDataStore, R"({"default-level": 2})");

  EXPECT_TRUE(load_data_store().isNull());
  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:15 Invalid format: no services field."),
                          error_line(kInvalid)}));
}

// Saving

TEST_F(FrameworkConfig, SavesWhatLoadingReadsBack) {
  const Json::Value root = one_service(2, 3);

  EXPECT_EQ(save_data_store(root), 0);
  EXPECT_EQ(load_data_store(), root);
  EXPECT_EQ(log(), Lines());
}

TEST_F(FrameworkConfig, SavesANullValueThatTheNextLoadRefuses) {
  EXPECT_EQ(save_data_store(Json::Value()), 0);
  EXPECT_EQ(log(), Lines());

  EXPECT_TRUE(load_data_store().isNull());
  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:11 Invalid format: no default-level"),
                          error_line(kInvalid)}));
}

TEST_F(FrameworkConfig, SavesWithoutValidating) {
  EXPECT_EQ(save_data_store(Json::Value("anything")), 0);
  EXPECT_EQ(log(), Lines());
}

TEST_F(FrameworkConfig, ReportsASaveThatFails) {
  remove_all("/usr/kelo/etc/security-profile");

  EXPECT_EQ(save_data_store(one_service(1, 1)), -1);
  EXPECT_EQ(log(), Lines{error_line("framework_config.cpp:55 Write json data failed. "
                                    "[No such file or directory] " +
                                    std::string(kDataStore))});
}

TEST_F(FrameworkConfig, ReportsASaveOverADirectory) {
  make_directories(kDataStore);

  EXPECT_EQ(save_data_store(one_service(1, 1)), -1);
  EXPECT_EQ(log(), Lines{error_line("framework_config.cpp:55 Write json data failed. "
                                    "[Is a directory] " +
                                    std::string(kDataStore))});
}

// Entries

TEST_F(FrameworkConfig, GivesACopyOfAnEntry) {
  const Json::Value root = one_service(2, 3);

  EXPECT_EQ(get_service_entry(root, "web"), root["services"]["web"]);
  EXPECT_TRUE(get_service_entry(root, "mail").isNull());
  EXPECT_TRUE(get_service_entry(Json::Value(), "web").isNull());
}

TEST_F(FrameworkConfig, LooksForAnEntryWithoutCreatingServices) {
  Json::Value root;
  root["default-level"] = 1;

  EXPECT_TRUE(get_service_entry(root, "web").isNull());
  EXPECT_FALSE(root.isMember("services"));
}

TEST_F(FrameworkConfig, TakesANullEntryForAMissingOne) {
  Json::Value root = one_service(2, 3);
  root["services"]["web"] = Json::Value();

  EXPECT_EQ(lookup_service_level(root, "web"), kServiceNotJoined);
  EXPECT_EQ(log(), Lines{error_line(kNotJoinedLookup + "web")});
}

TEST_F(FrameworkConfig, TellsNamesApartBehindANulByte) {
  Json::Value root = one_service(2, 3);
  const std::string name("web\0x", 5);
  root["services"][name]["current-level"] = 1;

  EXPECT_EQ(lookup_service_level(root, name), 1);
  EXPECT_EQ(lookup_service_level(root, "web"), 3);
}

// Levels

TEST_F(FrameworkConfig, PrefersTheServicesOwnLevel) {
  EXPECT_EQ(lookup_service_level(one_service(1, 3), "web"), 3);
  EXPECT_EQ(lookup_service_level(one_service(0, 3), "web"), 3);
}

TEST_F(FrameworkConfig, FollowsTheDefaultLevelAtZero) {
  EXPECT_EQ(lookup_service_level(one_service(1, 0), "web"), 1);
}

TEST_F(FrameworkConfig, GivesZeroWhenTheDefaultIsZeroToo) {
  EXPECT_EQ(lookup_service_level(one_service(0, 0), "web"), 0);
}

TEST_F(FrameworkConfig, GivesNegativeAndUnknownLevelsUnchanged) {
  EXPECT_EQ(lookup_service_level(one_service(2, -5), "web"), -5);
  EXPECT_EQ(lookup_service_level(one_service(2, 99), "web"), 99);
  EXPECT_EQ(lookup_service_level(one_service(-4, 0), "web"), -4);
  EXPECT_EQ(log(), Lines());
}

TEST_F(FrameworkConfig, ReadsAMissingLevelAsZero) {
  Json::Value root = one_service(1, 0);
  root["services"]["web"].removeMember("current-level");

  EXPECT_EQ(lookup_service_level(root, "web"), 1);
}

TEST_F(FrameworkConfig, ReportsALookupOfAnUnjoinedService) {
  EXPECT_EQ(lookup_service_level(one_service(1, 1), "mail"), kServiceNotJoined);
  EXPECT_EQ(lookup_service_level(Json::Value(), "web"), kServiceNotJoined);
  EXPECT_EQ(log(),
            (Lines{error_line(kNotJoinedLookup + "mail"), error_line(kNotJoinedLookup + "web")}));
}

TEST_F(FrameworkConfig, LetsTheJsonLibraryThrowOnADefaultLevelThatIsNoInteger) {
  Json::Value root = one_service(0, 0);
  root["default-level"] = "x";

  EXPECT_THROW(lookup_service_level(root, "web"), Json::LogicError);
}

TEST_F(FrameworkConfig, UpdatesTheLevelAndNothingElse) {
  Json::Value root = one_service(2, 3);
  root["services"]["web"]["extra"] = "kept";
  root["services"]["mail"]["display-name"] = "Mail";
  Json::Value expected = root;
  expected["services"]["web"]["current-level"] = 9;

  EXPECT_EQ(update_service_level(root, "web", 9), 0);
  EXPECT_EQ(root, expected);
  EXPECT_EQ(log(), Lines());
}

TEST_F(FrameworkConfig, LeavesTheRootAloneWhenTheServiceIsNotJoined) {
  Json::Value root = one_service(2, 3);
  const Json::Value before = root;
  Json::Value null;

  EXPECT_EQ(update_service_level(root, "mail", 1), kServiceNotJoined);
  EXPECT_EQ(update_service_level(null, "web", 1), kServiceNotJoined);

  EXPECT_EQ(root, before);
  EXPECT_TRUE(null.isNull());
  EXPECT_EQ(log(),
            (Lines{error_line(kNotJoinedUpdate + "mail"), error_line(kNotJoinedUpdate + "web")}));
}

}  // namespace
}  // namespace kelotls::test
