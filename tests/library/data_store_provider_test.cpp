// Reading and changing levels, down to the corners where a setter destroys the data store.
#include <kelotls/data_store_provider.h>
#include <sys/stat.h>

#include <limits>

#include "framework.h"

namespace kelotls::test {
namespace {

using GetServiceLevel = Framework;
using SetServiceLevel = Framework;
using ListServices = Framework;
using GetDefaultLevel = Framework;
using SetDefaultLevel = Framework;

const std::string kStore = kDataStore;
const Lines kMissing = {error_line(
    "framework_config.cpp:16 Load json data failed. [No such file or directory] " + kStore)};
const Lines kWithoutServices = {
    error_line("validator.cpp:15 Invalid format: no services field."),
    error_line("framework_config.cpp:23 Json format invalid. " + kStore)};
const std::string kNoEntryToRead =
    error_line("framework_config.cpp:123 Service is not joined framework. ");
const std::string kNoEntryToChange =
    error_line("framework_config.cpp:151 Service is not joined framework. ");
const std::string kNotSaved =
    error_line("framework_config.cpp:55 Write json data failed. [Read-only file system] " + kStore);

Lines operator+(Lines lines, const std::string& line) {
  lines.push_back(line);
  return lines;
}

// One service's level, read

TEST_F(GetServiceLevel, GivesTheServicesOwnLevel) {
  write_file(kDataStore, data_store_text(1, {{"web", "3"}}));

  EXPECT_EQ(DataStoreProvider().get_service_level("web"), TLS_PROFILE_LEVEL_OLD);
  EXPECT_EQ(log(), Lines());
}

TEST_F(GetServiceLevel, FollowsTheDefaultLevelAtZero) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));

  EXPECT_EQ(DataStoreProvider().get_service_level("web"), TLS_PROFILE_LEVEL_OLD);
  EXPECT_EQ(log(), Lines());
}

TEST_F(GetServiceLevel, ReportsAServiceThatHasNotJoined) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));

  EXPECT_EQ(DataStoreProvider().get_service_level("mail"), kServiceNotJoined);
  EXPECT_EQ(log(), Lines{kNoEntryToRead + "mail"});
}

TEST_F(GetServiceLevel, ReportsAMissingDataStoreOnce) {
  EXPECT_EQ(DataStoreProvider().get_service_level("web"), kDataStoreUnavailable);
  EXPECT_EQ(log(), kMissing);
}

TEST_F(GetServiceLevel, ReportsAnInvalidDataStore) {
  write_file(kDataStore, R"({"default-level": 2})");

  EXPECT_EQ(DataStoreProvider().get_service_level("web"), kDataStoreUnavailable);
  EXPECT_EQ(log(), kWithoutServices);
}

TEST_F(GetServiceLevel, LetsTheJsonLibraryThrowOnADefaultLevelThatIsNoInteger) {
  write_file(kDataStore, R"({"default-level": "x", "services": {"web": {"display-name": "Web"}}})");

  EXPECT_THROW(DataStoreProvider().get_service_level("web"), Json::LogicError);
}

TEST_F(GetServiceLevel, WritesNothing) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  const Lines before = tree();
  const ino_t file = inode(kDataStore);

  DataStoreProvider().get_service_level("web");
  DataStoreProvider().get_default_level();
  DataStoreProvider().list_services();

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(inode(kDataStore), file);
}

// One service's level, changed

TEST_F(SetServiceLevel, ChangesThatLevelAndNothingElse) {
  write_file(kDataStore, R"({"default-level": 2, "extra": [1, null], "services": {
      "mail": {"display-name": "Mail", "current-level": 1},
      "web": {"display-name": "Web", "display-name-i18n": "app:web", "x": {}, "current-level": 3}}})");
  Json::Value expected = read_json(kDataStore);
  expected["services"]["web"]["current-level"] = 1;

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN), 0);

  EXPECT_EQ(read_json(kDataStore), expected);
  EXPECT_EQ(DataStoreProvider().get_service_level("web"), TLS_PROFILE_LEVEL_MODERN);
  EXPECT_EQ(log(), Lines());
}

TEST_F(SetServiceLevel, ReplacesTheFileAndKeepsItsMode) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  ASSERT_EQ(::chmod(kDataStore, 0640), 0);
  const ino_t before = inode(kDataStore);

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN), 0);

  EXPECT_NE(inode(kDataStore), before);
  EXPECT_EQ(mode(kDataStore), 0640u);
  EXPECT_EQ(names_in("/usr/kelo/etc/security-profile/tls-profile"),
            (Lines{"config", "datastore.json", "services"}));
}

TEST_F(SetServiceLevel, StoresZeroAfterWhichTheServiceFollowsTheDefault) {
  write_file(kDataStore, data_store_text(1, {{"web", "3"}}));

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_DEFAULT), 0);

  EXPECT_EQ(read_json(kDataStore)["services"]["web"]["current-level"], Json::Value(0));
  EXPECT_EQ(DataStoreProvider().get_service_level("web"), TLS_PROFILE_LEVEL_MODERN);
}

TEST_F(SetServiceLevel, StoresAnyIntegerUnchecked) {
  for (const std::int32_t level : {9, -7, std::numeric_limits<std::int32_t>::max(),
                                   std::numeric_limits<std::int32_t>::min()}) {
    write_file(kDataStore, data_store_text(1, {{"web", "3"}}));

    EXPECT_EQ(DataStoreProvider().set_service_level("web", static_cast<TlsProfileLevel>(level)), 0);

    EXPECT_EQ(read_json(kDataStore)["services"]["web"]["current-level"], Json::Value(level));
    EXPECT_EQ(DataStoreProvider().get_service_level("web"), level);
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(SetServiceLevel, GivesALevelToAnEntryThatHadNone) {
  write_file(kDataStore, R"({"default-level": 2, "services": {"web": {"display-name": "Web"}}})");

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_OLD), 0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "services":
      {"web": {"display-name": "Web", "current-level": 3}}})"));
}

TEST_F(SetServiceLevel, RewritesTheFileAsItWasForAServiceWithoutAnEntry) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  const Json::Value content = read_json(kDataStore);
  const ino_t before = inode(kDataStore);

  EXPECT_EQ(DataStoreProvider().set_service_level("mail", TLS_PROFILE_LEVEL_MODERN), 0);

  EXPECT_EQ(read_json(kDataStore), content);
  EXPECT_NE(inode(kDataStore), before);
  EXPECT_EQ(log(), Lines{kNoEntryToChange + "mail"});
}

TEST_F(SetServiceLevel, ReportsAFailedRewriteForAServiceWithoutAnEntry) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  make_data_store_read_only();
  const Lines before = tree();

  EXPECT_EQ(DataStoreProvider().set_service_level("mail", TLS_PROFILE_LEVEL_MODERN), -1);

  EXPECT_EQ(log(), (Lines{kNoEntryToChange + "mail", kNotSaved}));
  EXPECT_EQ(tree(), before);
}

TEST_F(SetServiceLevel, WritesNullOverAMissingDataStore) {
  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN), 0);

  EXPECT_EQ(log(), kMissing + (kNoEntryToChange + "web"));
  EXPECT_EQ(read_file(kDataStore), "null\n");
}

TEST_F(SetServiceLevel, WritesNullOverAnInvalidDataStore) {
  write_file(kDataStore, R"({"default-level": 2, "precious": "data"})");

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN), 0);

  EXPECT_EQ(log(), kWithoutServices + (kNoEntryToChange + "web"));
  EXPECT_EQ(read_file(kDataStore), "null\n");
}

TEST_F(SetServiceLevel, WritesNullOverABrokenDataStore) {
  write_file(kDataStore, R"({"default-level": 2, "services": {})");

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN), 0);

  EXPECT_EQ(log(),
            (Lines{error_line("framework_config.cpp:16 Load json data failed. [Success] " + kStore),
                   kNoEntryToChange + "web"}));
  EXPECT_EQ(read_file(kDataStore), "null\n");
}

TEST_F(SetServiceLevel, ReportsAMissingDataStoreThatCannotBeWrittenEither) {
  remove_all("/usr/kelo/etc/security-profile");

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN), -1);

  EXPECT_EQ(log(), kMissing + (kNoEntryToChange + "web") +
                       error_line("framework_config.cpp:55 Write json data failed. "
                                  "[No such file or directory] " +
                                  kStore));
  EXPECT_FALSE(exists("/usr/kelo/etc/security-profile"));
}

TEST_F(SetServiceLevel, KeepsTheDataStoreWhenTheWriteFails) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  make_data_store_read_only();
  const Lines before = tree();

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN), -1);

  EXPECT_EQ(log(), Lines{kNotSaved});
  EXPECT_EQ(tree(), before);
}

TEST_F(SetServiceLevel, KeepsTheDataStoreOnAFullFileSystem) {
  const std::string directory = "/usr/kelo/etc/security-profile/tls-profile";
  mount_small_file_system(directory, 64 << 10);
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  fill_file_system(directory);
  const Lines before = tree();

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN), -1);

  EXPECT_EQ(log(), Lines{error_line("framework_config.cpp:55 Write json data failed. "
                                    "[No space left on device] " +
                                    kStore)});
  EXPECT_EQ(tree(), before);
}

TEST_F(SetServiceLevel, DoesNotReadTheDefaultLevel) {
  write_file(kDataStore, R"({"default-level": "x", "services": {"web": {"display-name": "Web"}}})");

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_OLD), 0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": "x", "services":
      {"web": {"display-name": "Web", "current-level": 3}}})"));
}

TEST_F(SetServiceLevel, LetsTheJsonLibraryThrowOnAnEntryThatIsNoObject) {
  write_file(kDataStore, R"({"default-level": 2, "services": {"web": 5}})");
  const Lines before = tree();

  EXPECT_THROW(DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_OLD),
               Json::LogicError);
  EXPECT_EQ(tree(), before);
}

// The list of services

TEST_F(ListServices, GivesTheEntriesUnchanged) {
  write_file(kDataStore, R"({"default-level": 2, "services": {
      "web": {"display-name": "Web", "display-name-i18n": "app:web", "x": [1], "current-level": 3},
      "mail": {"display-name": ""}}})");

  EXPECT_EQ(DataStoreProvider().list_services(), read_json(kDataStore)["services"]);
  EXPECT_EQ(log(), Lines());
}

TEST_F(ListServices, GivesAnEmptyObjectWhenNoServiceHasJoined) {
  write_file(kDataStore, data_store_text(2, {}));

  EXPECT_EQ(DataStoreProvider().list_services(), Json::Value(Json::objectValue));
  EXPECT_EQ(log(), Lines());
}

TEST_F(ListServices, GivesNullWithoutADataStore) {
  EXPECT_EQ(DataStoreProvider().list_services(), Json::Value());
  EXPECT_EQ(log(), kMissing);
  EXPECT_FALSE(exists(kDataStore));
}

TEST_F(ListServices, GivesNullForAnInvalidDataStore) {
  write_file(kDataStore, R"({"default-level": 2})");

  EXPECT_EQ(DataStoreProvider().list_services(), Json::Value());
  EXPECT_EQ(log(), kWithoutServices);
}

// The default level, read

TEST_F(GetDefaultLevel, GivesWhatIsStored) {
  for (const int level : {0, 1, 3, 99, -4}) {
    write_file(kDataStore, data_store_text(level, {}));

    EXPECT_EQ(DataStoreProvider().get_default_level(), level);
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(GetDefaultLevel, ReportsAMissingDataStore) {
  EXPECT_EQ(DataStoreProvider().get_default_level(), kDataStoreUnavailable);
  EXPECT_EQ(log(), kMissing);
}

TEST_F(GetDefaultLevel, ReportsAnInvalidDataStore) {
  write_file(kDataStore, R"({"default-level": 2})");

  EXPECT_EQ(DataStoreProvider().get_default_level(), kDataStoreUnavailable);
  EXPECT_EQ(log(), kWithoutServices);
}

TEST_F(GetDefaultLevel, LetsTheJsonLibraryThrowOnALevelThatIsNoInteger) {
  for (const char* level : {R"("x")", "[]", "{}", "3000000000"}) {
    write_file(kDataStore, std::string(R"({"services": {}, "default-level": )") + level + "}");

    EXPECT_THROW(DataStoreProvider().get_default_level(), Json::LogicError) << level;
  }
}

// The default level, changed

TEST_F(SetDefaultLevel, ChangesThatLevelAndNothingElse) {
  write_file(kDataStore, R"({"default-level": 2, "extra": true, "services": {
      "web": {"display-name": "Web", "x": 1, "current-level": 0}}})");
  Json::Value expected = read_json(kDataStore);
  expected["default-level"] = 1;

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_MODERN);

  EXPECT_EQ(read_json(kDataStore), expected);
  EXPECT_EQ(DataStoreProvider().get_default_level(), TLS_PROFILE_LEVEL_MODERN);
  EXPECT_EQ(DataStoreProvider().get_service_level("web"), TLS_PROFILE_LEVEL_MODERN);
  EXPECT_EQ(log(), Lines());
}

TEST_F(SetDefaultLevel, StoresAnyIntegerUnchecked) {
  for (const std::int32_t level : {0, 9, -7, std::numeric_limits<std::int32_t>::max(),
                                   std::numeric_limits<std::int32_t>::min()}) {
    write_file(kDataStore, data_store_text(1, {}));

    DataStoreProvider().set_default_level(static_cast<TlsProfileLevel>(level));

    EXPECT_EQ(read_json(kDataStore)["default-level"], Json::Value(level));
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(SetDefaultLevel, ReplacesALevelThatIsNoInteger) {
  write_file(kDataStore, R"({"default-level": "x", "services": {}})");

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_OLD);

  EXPECT_EQ(DataStoreProvider().get_default_level(), TLS_PROFILE_LEVEL_OLD);
}

TEST_F(SetDefaultLevel, ReplacesTheFileAndKeepsItsMode) {
  write_file(kDataStore, data_store_text(2, {}));
  ASSERT_EQ(::chmod(kDataStore, 0604), 0);
  const ino_t before = inode(kDataStore);

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_MODERN);

  EXPECT_NE(inode(kDataStore), before);
  EXPECT_EQ(mode(kDataStore), 0604u);
}

TEST_F(SetDefaultLevel, CreatesAMissingDataStoreThatTheNextLoadRefuses) {
  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_OLD);

  EXPECT_EQ(log(), kMissing);
  EXPECT_EQ(read_file(kDataStore), "{\n  \"default-level\" : 3\n}\n");

  EXPECT_EQ(DataStoreProvider().get_default_level(), kDataStoreUnavailable);
  EXPECT_EQ(log(), kWithoutServices);
}

TEST_F(SetDefaultLevel, KeepsNothingElseOfAnInvalidDataStore) {
  write_file(kDataStore, R"({"default-level": 1, "services": [], "precious": "data"})");

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_INTERMEDIATE);

  EXPECT_EQ(log(), kWithoutServices);
  EXPECT_EQ(read_file(kDataStore), "{\n  \"default-level\" : 2\n}\n");
}

TEST_F(SetDefaultLevel, OnlyLogsAWriteThatFails) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  make_data_store_read_only();
  const Lines before = tree();

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_MODERN);

  EXPECT_EQ(log(), Lines{kNotSaved});
  EXPECT_EQ(tree(), before);
}

}  // namespace
}  // namespace kelotls::test
