// Restoring levels from a saved data store.
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>
#include <sys/stat.h>

#include <cerrno>

#include "framework.h"

namespace kelotls::test {
namespace {

constexpr char kSaved[] = "/usr/kelo/saved.json";

const std::string kStore = kDataStore;

// The line names the live data store, even when it is the saved file that was not loaded.
const std::string kLiveNotLoaded = "framework_config.cpp:16 Load json data failed. ";
const std::string kSavedNotLoaded = "framework_config.cpp:171 Load json data failed. ";
const std::string kSavedInvalid = error_line(
    "framework_config.cpp:176 Json format invalid. "
    "/usr/kelo/etc/security-profile/tls-profile/datastore.json");
const std::string kMissing = "[No such file or directory] " + kStore;

class RestoreFramework : public Framework {
 protected:
  /// Restores; the operation reports success whatever happens.
  static void restore(const std::string& path = kSaved) {
    errno = EPERM;
    EXPECT_EQ(APIProvider().restore_framework(path), 0);
  }
};

// Levels

TEST_F(RestoreFramework, CopiesTheDefaultLevelAndTheServicesLevels) {
  write_file(kDataStore, data_store_text(2, {{"a", "0"}, {"b", "1"}, {"c", "2"}}));
  write_file(kSaved, data_store_text(3, {{"a", "2"}, {"b", "3"}, {"c", "0"}}));

  restore();

  EXPECT_EQ(read_json(kDataStore), read_json(kSaved));
  EXPECT_EQ(log(), Lines());
}

TEST_F(RestoreFramework, CopiesNothingButLevels) {
  write_file(kDataStore, R"({"default-level": 1, "extra": "live", "services": {
      "web": {"display-name": "Live", "display-name-i18n": "app:live", "x": 1,
              "current-level": 1}}})");
  write_file(kSaved, R"({"default-level": 3, "extra": "saved", "more": 1, "services": {
      "web": {"display-name": "Saved", "y": 2, "current-level": 2}}})");

  restore();

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 3, "extra": "live", "services": {
      "web": {"display-name": "Live", "display-name-i18n": "app:live", "x": 1,
              "current-level": 2}}})"));
}

TEST_F(RestoreFramework, LeavesTheContentUnchangedForAnIdenticalFile) {
  write_file(kDataStore, data_store_text(2, {{"a", "0"}, {"b", "3"}}));
  write_file(kSaved, read_file(kDataStore));
  ASSERT_EQ(::chmod(kDataStore, 0640), 0);
  const Json::Value before = read_json(kDataStore);
  const ino_t file = inode(kDataStore);

  restore();

  EXPECT_EQ(read_json(kDataStore), before);
  EXPECT_NE(inode(kDataStore), file);
  EXPECT_EQ(mode(kDataStore), 0640u);
  EXPECT_EQ(log(), Lines());
}

TEST_F(RestoreFramework, LeavesALiveServiceUnchangedThatWasNotSaved) {
  write_file(kDataStore, data_store_text(2, {{"live", "3"}, {"web", "3"}}));
  write_file(kSaved, data_store_text(1, {{"web", "1"}}));

  restore();

  EXPECT_EQ(read_json(kDataStore), json(data_store_text(1, {{"live", "3"}, {"web", "1"}})));
  EXPECT_EQ(log(), Lines());
}

TEST_F(RestoreFramework, ReadsASavedEntryWithoutALevelAsZero) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(kSaved, R"({"default-level": 2, "services": {"web": {"display-name": ""}}})");

  restore();

  EXPECT_EQ(read_json(kDataStore), json(data_store_text(2, {{"web", "0"}})));
}

TEST_F(RestoreFramework, CopiesLevelsUnchecked) {
  write_file(kDataStore, data_store_text(2, {{"a", "3"}, {"b", "3"}}));
  write_file(kSaved, data_store_text(-7, {{"a", "-5"}, {"b", "2147483647"}}));

  restore();

  EXPECT_EQ(read_json(kDataStore), json(data_store_text(-7, {{"a", "-5"}, {"b", "2147483647"}})));
  EXPECT_EQ(log(), Lines());
}

TEST_F(RestoreFramework, ConvertsASavedDefaultLevelThatIsNearlyAnInteger) {
  for (const auto& [text, level] : {std::pair{"null", 0}, {"true", 1}, {"2.0", 2}, {"3.9", 3}}) {
    write_file(kDataStore, data_store_text(99, {}));
    write_file(kSaved, std::string(R"({"services": {}, "default-level": )") + text + "}");

    restore();

    EXPECT_EQ(read_file(kDataStore),
              "{\n  \"default-level\" : " + std::to_string(level) + ",\n  \"services\" : {}\n}\n");
  }
}

TEST_F(RestoreFramework, RestoresFromTheLiveDataStoreItself) {
  write_file(kDataStore, data_store_text(2, {{"a", "0"}, {"b", "3"}}));
  const Json::Value before = read_json(kDataStore);

  restore(kDataStore);

  EXPECT_EQ(read_json(kDataStore), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(RestoreFramework, TouchesNoFileButTheDataStore) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(kSaved, data_store_text(1, {{"web", "1"}}));
  write_file("/usr/kelo/tls.mustache", "new text");
  write_file(descriptor_path("web"), R"({"mustache-path": "/usr/kelo/tls.mustache"})");
  write_file(rendered_path("web"), "rendered");
  write_program("/usr/kelo/reload", "#!/bin/sh\necho ran > /tmp/ran\n");
  make_link("/usr/kelo/reload", link_path("web"));
  Lines before = tree();
  const std::string live = read_file(kDataStore);

  restore();
  ASSERT_NE(tree(), before);
  write_file(kDataStore, live);

  EXPECT_EQ(tree(), before);
  EXPECT_FALSE(exists("/tmp/ran"));
}

TEST_F(RestoreFramework, RestoresTheServiceOfTheEmptyName) {
  write_file(kDataStore, data_store_text(2, {{"", "3"}, {"../up", "3"}}));
  write_file(kSaved, data_store_text(2, {{"", "1"}, {"../up", "1"}}));

  restore();

  EXPECT_EQ(read_json(kDataStore), read_json(kSaved));
  EXPECT_EQ(log(), Lines());
}

// Services that are not live

TEST_F(RestoreFramework, LogsSavedServicesThatAreNotLiveInTheOrderOfTheirNames) {
  write_file(kDataStore, data_store_text(2, {{"m", "3"}}));
  write_file(kSaved, data_store_text(2, {{"z", "1"}, {"m", "1"}, {"B", "1"}, {"a", "1"}}));

  restore();

  EXPECT_EQ(log(), (Lines{"<11>service entry not found. B", "<11>service entry not found. a",
                          "<11>service entry not found. z"}));
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(2, {{"m", "1"}})));
}

TEST_F(RestoreFramework, AddsNoServiceToALiveDataStoreWithoutAny) {
  write_file(kDataStore, data_store_text(2, {}));
  write_file(kSaved, data_store_text(3, {{"web", "1"}}));

  restore();

  EXPECT_EQ(log(), Lines{"<11>service entry not found. web"});
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(3, {})));
}

// A saved file that cannot be used

TEST_F(RestoreFramework, SetsTheDefaultLevelToZeroWhenTheSavedFileIsMissing) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));

  restore();

  EXPECT_EQ(log(), Lines{error_line(kSavedNotLoaded + kMissing)});
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(0, {{"web", "3"}})));
}

TEST_F(RestoreFramework, SetsTheDefaultLevelToZeroWhenTheSavedFileMayNotBeRead) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(kSaved, data_store_text(1, {{"web", "1"}}));
  ASSERT_EQ(::chmod(kSaved, 0), 0);
  obey_file_permissions();

  restore();

  EXPECT_EQ(log(), Lines{error_line(kSavedNotLoaded + "[Permission denied] " + kStore)});
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(0, {{"web", "3"}})));
}

TEST_F(RestoreFramework, SetsTheDefaultLevelToZeroWhenTheSavedFileDoesNotParse) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(kSaved, R"({"default-level": 1, "services": )");

  restore();

  EXPECT_EQ(log(), Lines{error_line(kSavedNotLoaded + "[Success] " + kStore)});
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(0, {{"web", "3"}})));
}

TEST_F(RestoreFramework, SetsTheDefaultLevelToZeroWhenTheSavedFileIsADirectoryOrHasNoName) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));

  restore("/usr/kelo");
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(0, {{"web", "3"}})));
  restore("");

  EXPECT_EQ(log(), (Lines{error_line(kSavedNotLoaded + "[Is a directory] " + kStore),
                          error_line(kSavedNotLoaded + kMissing)}));
}

TEST_F(RestoreFramework, SetsTheDefaultLevelToZeroWhenTheSavedFileIsNotValid) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(kSaved, R"({"default-level": 1, "services": {
      "other": {"display-name": "Other"},
      "web": {"display-name": "Web", "current-level": "1"}}})");

  restore();

  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:35 Invalid format: no current-level."),
                          kSavedInvalid}));
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(0, {{"web", "3"}})));
}

TEST_F(RestoreFramework, TakesSavedDocumentsThatAreNoObjectsForInvalid) {
  for (const char* text : {"null", "[]", "5", R"("default-level")"}) {
    write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
    write_file(kSaved, text);

    restore();

    EXPECT_EQ(log(), (Lines{error_line("validator.cpp:11 Invalid format: no default-level"),
                            kSavedInvalid}))
        << text;
    EXPECT_EQ(read_json(kDataStore), json(data_store_text(0, {{"web", "3"}})));
  }
}

TEST_F(RestoreFramework, LetsTheJsonLibraryThrowOnADefaultLevelThatIsNoInteger) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  for (const char* level : {R"("x")", R"("1")", "[]", "{}", "3000000000", "1e300"}) {
    write_file(kSaved, std::string(R"({"services": {"web": {"display-name": ""}},
        "default-level": )") +
                           level + "}");
    const Lines before = tree();
    const ino_t store = inode(kDataStore);

    EXPECT_THROW(APIProvider().restore_framework(kSaved), Json::LogicError) << level;

    EXPECT_EQ(tree(), before);
    EXPECT_EQ(inode(kDataStore), store);
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(RestoreFramework, LetsTheJsonLibraryThrowOnAnEntryThatIsNoObject) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(kSaved, R"({"default-level": 1, "services": {"web": 5}})");
  const Lines before = tree();

  EXPECT_THROW(APIProvider().restore_framework(kSaved), Json::LogicError);

  EXPECT_EQ(tree(), before);
}

// A live data store that cannot be used

TEST_F(RestoreFramework, WritesTheDefaultLevelAloneWhenTheLiveDataStoreIsMissing) {
  write_file(kSaved, data_store_text(3, {{"b", "1"}, {"a", "1"}}));

  restore();

  EXPECT_EQ(log(), (Lines{error_line(kLiveNotLoaded + kMissing), "<11>service entry not found. a",
                          "<11>service entry not found. b"}));
  EXPECT_EQ(read_file(kDataStore), "{\n  \"default-level\" : 3\n}\n");

  EXPECT_EQ(DataStoreProvider().get_default_level(), kDataStoreUnavailable);
  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:15 Invalid format: no services field."),
                          error_line("framework_config.cpp:23 Json format invalid. " + kStore)}));
}

TEST_F(RestoreFramework, WritesTheDefaultLevelAloneOverAnInvalidLiveDataStore) {
  write_file(kDataStore, R"({"services": {"web": {"display-name": "Web"}}})");
  write_file(kSaved, data_store_text(3, {{"web", "1"}}));

  restore();

  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:11 Invalid format: no default-level"),
                          error_line("framework_config.cpp:23 Json format invalid. " + kStore),
                          "<11>service entry not found. web"}));
  EXPECT_EQ(read_file(kDataStore), "{\n  \"default-level\" : 3\n}\n");
}

TEST_F(RestoreFramework, ReadsTheLiveDataStoreBeforeTheSavedFile) {
  restore();

  EXPECT_EQ(log(),
            (Lines{error_line(kLiveNotLoaded + kMissing), error_line(kSavedNotLoaded + kMissing)}));
  EXPECT_EQ(read_file(kDataStore), "{\n  \"default-level\" : 0\n}\n");
}

TEST_F(RestoreFramework, OnlyLogsASaveThatFails) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(kSaved, data_store_text(1, {{"web", "1"}}));
  make_data_store_read_only();
  const Lines before = tree();

  restore();

  EXPECT_EQ(log(), Lines{error_line("framework_config.cpp:55 Write json data failed. "
                                    "[Read-only file system] " +
                                    kStore)});
  EXPECT_EQ(tree(), before);
}

}  // namespace
}  // namespace kelotls::test
