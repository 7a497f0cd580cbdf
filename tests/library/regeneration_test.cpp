// Bringing the data store in line with the descriptor files.
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>
#include <sys/stat.h>

#include <cerrno>

#include "framework.h"

namespace kelotls::test {
namespace {

using RegenFrameworkConfig = Framework;

const std::string kStore = kDataStore;
const std::string kNotListed = error_line(
    "api_provider.cpp:364 Fail to list dir /usr/kelo/etc/security-profile/tls-profile/config/");
const std::string kStoreMissing = error_line(
    "framework_config.cpp:16 Load json data failed. [No such file or directory] " + kStore);

/// The line for an entry of the services' directory that could not be read.
std::string not_loaded(const std::string& reason, const std::string& name) {
  return error_line("api_provider.cpp:376 Load json data failed. " + reason + " " + name);
}

int regenerate() { return APIProvider().regen_framework_config(); }

// What regeneration keeps and changes

TEST_F(RegenFrameworkConfig, WritesTheDataStoreBackUnchangedWithoutDescriptors) {
  write_file(kDataStore, R"({"default-level": 2, "extra": [1], "services": {
      "web": {"display-name": "Web", "x": null}}})");
  ASSERT_EQ(::chmod(kDataStore, 0640), 0);
  const Json::Value content = read_json(kDataStore);
  const ino_t before = inode(kDataStore);

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore), content);
  EXPECT_NE(inode(kDataStore), before);
  EXPECT_EQ(mode(kDataStore), 0640u);
  EXPECT_EQ(log(), Lines());
}

TEST_F(RegenFrameworkConfig, KeepsTheLevelAndTakesTheDisplayNameFromTheDescriptor) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "New name"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "services": {
      "web": {"display-name": "New name", "current-level": 3}}})"));
  EXPECT_EQ(log(), Lines());
}

TEST_F(RegenFrameworkConfig, GivesANewDescriptorAnEntryAtLevelZero) {
  write_file(kDataStore, data_store_text(2, {}));
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web",
      "display-name-i18n": "app:web", "mustache-path": "/m", "reloader-path": "/r",
      "system-service": true, "current-level": 3})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "services": {
      "web": {"display-name": "Web", "display-name-i18n": "app:web", "current-level": 0}}})"));
}

TEST_F(RegenFrameworkConfig, DropsATranslationKeyThatTheDescriptorLacks) {
  write_file(kDataStore, R"({"default-level": 2, "services": {"web": {"display-name": "Web",
      "display-name-i18n": "app:web", "extra": 1, "current-level": 1}}})");
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "services": {
      "web": {"display-name": "Web", "current-level": 1}}})"));
}

TEST_F(RegenFrameworkConfig, CopiesAnAbsentLevelAsNullWhichTheNextLoadRefuses) {
  write_file(kDataStore, R"({"default-level": 2, "services": {"web": {"display-name": "Web"}}})");
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");

  EXPECT_EQ(regenerate(), 0);
  EXPECT_EQ(log(), Lines());
  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "services": {
      "web": {"display-name": "Web", "current-level": null}}})"));

  EXPECT_EQ(DataStoreProvider().get_default_level(), kDataStoreUnavailable);
  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:35 Invalid format: no current-level."),
                          error_line("framework_config.cpp:23 Json format invalid. " + kStore)}));
}

TEST_F(RegenFrameworkConfig, KeepsTheEntryOfADeletedDescriptor) {
  write_file(kDataStore, R"({"default-level": 2, "services": {
      "gone": {"display-name": "Gone", "extra": 1, "current-level": 3}}})");
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore)["services"], json(R"({
      "gone": {"display-name": "Gone", "extra": 1, "current-level": 3},
      "web": {"display-name": "Web", "current-level": 0}})"));
}

TEST_F(RegenFrameworkConfig, KeepsEveryOtherKeyOfTheDataStore) {
  write_file(kDataStore, R"({"default-level": "x", "extra": {"a": [null]}, "services": {}})");
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore)["default-level"], Json::Value("x"));
  EXPECT_EQ(read_json(kDataStore)["extra"], json(R"({"a": [null]})"));
  EXPECT_EQ(log(), Lines());
}

TEST_F(RegenFrameworkConfig, ChangesNothingBesidesTheDataStore) {
  write_file(kDataStore, data_store_text(2, {}));
  write_file(descriptor_path("web"),
             R"({"service": "web", "display-name": "Web", "reloader-path": "/r"})");
  ASSERT_EQ(regenerate(), 0);
  const Lines before = tree();

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(tree(), before);
}

// Which files are read

TEST_F(RegenFrameworkConfig, ReadsFilesWithAnyEnding) {
  write_file(kDataStore, data_store_text(2, {}));
  for (const char* name : {"a", "b.json", ".hidden", "c.conf~"}) {
    write_file(kServices + std::string(name),
               std::string(R"({"display-name": "", "service": ")") + name + "\"}");
  }
  make_link("a", std::string(kServices) + "link");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore)["services"].getMemberNames(),
            (Lines{".hidden", "a", "b.json", "c.conf~"}));
  EXPECT_EQ(log(), Lines());
}

TEST_F(RegenFrameworkConfig, GoesByTheNameInsideTheDescriptor) {
  write_file(kDataStore, data_store_text(2, {{"file", "1"}, {"inside", "3"}}));
  write_file(descriptor_path("file"), R"({"service": "inside", "display-name": "Inside"})");
  write_file(descriptor_path("nameless"), R"({"display-name": "Nameless"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "services": {
      "": {"display-name": "Nameless", "current-level": 0},
      "file": {"display-name": "file", "current-level": 1},
      "inside": {"display-name": "Inside", "current-level": 3}}})"));
}

TEST_F(RegenFrameworkConfig, LetsTheFileListedLaterSetTheNames) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(std::string(kServices) + "B", R"({"service": "web", "display-name": "B"})");
  write_file(std::string(kServices) + "a",
             R"({"service": "web", "display-name": "a", "display-name-i18n": "app:a"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore)["services"], json(R"({"web": {"display-name": "a",
      "display-name-i18n": "app:a", "current-level": 3}})"));
}

TEST_F(RegenFrameworkConfig, ReadsMoreFilesThanTheListStartsWithRoomFor) {
  write_file(kDataStore, data_store_text(2, {}));
  for (int number = 0; number < 1500; ++number) {
    const std::string name = "s" + std::to_string(number);
    write_file(descriptor_path(name), R"({"display-name": "", "service": ")" + name + "\"}");
  }

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore)["services"].size(), 1500u);
  EXPECT_EQ(log(), Lines());
}

TEST_F(RegenFrameworkConfig, PassesOverSubdirectoriesWithoutALine) {
  write_file(kDataStore, data_store_text(2, {}));
  make_directories(std::string(kServices) + "directory.conf");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), Lines());
}

// Files that are no descriptors

TEST_F(RegenFrameworkConfig, SkipsAFileThatDoesNotParse) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  const Json::Value before = read_json(kDataStore);
  write_file(descriptor_path("web"), R"({"service": "web", )");
  errno = EPERM;

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), Lines{not_loaded("[0][Success]", "web.conf")});
  EXPECT_EQ(read_json(kDataStore), before);
}

TEST_F(RegenFrameworkConfig, SkipsWhatParsesButIsNoObject) {
  write_file(kDataStore, data_store_text(2, {}));
  write_file(descriptor_path("array"), R"([{"service": "web", "display-name": "Web"}])");
  write_file(descriptor_path("null"), "null");
  write_file(descriptor_path("number"), "5");
  write_file(descriptor_path("string"), R"("service")");
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), (Lines{not_loaded("[0][Success]", "array.conf"),
                          not_loaded("[0][Success]", "null.conf"),
                          not_loaded("[0][Success]", "number.conf"),
                          not_loaded("[0][Success]", "string.conf")}));
  EXPECT_EQ(read_json(kDataStore)["services"].getMemberNames(), Lines{"web"});
}

TEST_F(RegenFrameworkConfig, SkipsAFileThatCannotBeOpened) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  const Json::Value before = read_json(kDataStore);
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "New"})");
  ASSERT_EQ(::chmod(descriptor_path("web").c_str(), 0), 0);
  obey_file_permissions();

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), Lines{not_loaded("[13][Permission denied]", "web.conf")});
  EXPECT_EQ(read_json(kDataStore), before);
}

TEST_F(RegenFrameworkConfig, SkipsLinksThatLeadNowhereOrToADirectory) {
  write_file(kDataStore, data_store_text(2, {}));
  make_link("/usr/kelo", descriptor_path("directory"));
  make_link("nothing", descriptor_path("nowhere"));

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), (Lines{not_loaded("[21][Is a directory]", "directory.conf"),
                          not_loaded("[2][No such file or directory]", "nowhere.conf")}));
}

TEST_F(RegenFrameworkConfig, LogsTheFilesInTheOrderOfTheirNamesAndGoesOn) {
  write_file(kDataStore, data_store_text(2, {}));
  for (const char* name : {"z", "a", "m"}) {
    write_file(descriptor_path(name), "broken");
  }
  write_file(descriptor_path("n"), R"({"service": "n", "display-name": "N"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(),
            (Lines{not_loaded("[0][Success]", "a.conf"), not_loaded("[0][Success]", "m.conf"),
                   not_loaded("[0][Success]", "z.conf")}));
  EXPECT_EQ(read_json(kDataStore)["services"].getMemberNames(), Lines{"n"});
}

TEST_F(RegenFrameworkConfig, ConvertsMembersOfADescriptorThatHaveAStringForm) {
  write_file(kDataStore, data_store_text(2, {}));
  write_file(descriptor_path("web"), R"({"service": 5, "display-name": null})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(read_json(kDataStore)["services"],
            json(R"({"5": {"display-name": "", "current-level": 0}})"));
}

TEST_F(RegenFrameworkConfig, LetsTheJsonLibraryThrowBeforeAnythingIsSaved) {
  write_file(kDataStore, data_store_text(2, {}));
  write_file(descriptor_path("a"), R"({"service": "a", "display-name": "A"})");
  write_file(descriptor_path("b"), R"({"service": {}, "display-name": "B"})");
  const Lines before = tree();

  EXPECT_THROW(regenerate(), Json::LogicError);

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

// A directory that cannot be listed

TEST_F(RegenFrameworkConfig, ReportsAMissingDirectoryUnderTheNameOfTheRenderedFilesDirectory) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  remove_all(kServices);
  const Lines before = tree();
  const ino_t file = inode(kDataStore);

  EXPECT_EQ(regenerate(), -1);

  EXPECT_EQ(log(), Lines{kNotListed});
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(inode(kDataStore), file);
}

TEST_F(RegenFrameworkConfig, DoesNotEvenReadTheDataStoreWhenTheDirectoryCannotBeListed) {
  remove_all(kServices);

  EXPECT_EQ(regenerate(), -1);

  EXPECT_EQ(log(), Lines{kNotListed});
  EXPECT_FALSE(exists(kDataStore));
}

TEST_F(RegenFrameworkConfig, ReportsAFileInTheDirectoriesPlace) {
  remove_all(kServices);
  write_file("/usr/kelo/etc/security-profile/tls-profile/services", "");

  EXPECT_EQ(regenerate(), -1);

  EXPECT_EQ(log(), Lines{kNotListed});
}

TEST_F(RegenFrameworkConfig, ReportsADirectoryWithoutPermission) {
  ASSERT_EQ(::chmod(kServices, 0), 0);
  obey_file_permissions();

  EXPECT_EQ(regenerate(), -1);

  EXPECT_EQ(log(), Lines{kNotListed});
}

// A data store that cannot be used

TEST_F(RegenFrameworkConfig, SavesNullWithoutADataStoreAndDescriptors) {
  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), Lines{kStoreMissing});
  EXPECT_EQ(read_file(kDataStore), "null\n");
}

TEST_F(RegenFrameworkConfig, SavesServicesAloneWithoutADataStore) {
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), Lines{kStoreMissing});
  EXPECT_EQ(read_json(kDataStore),
            json(R"({"services": {"web": {"display-name": "Web", "current-level": 0}}})"));
}

TEST_F(RegenFrameworkConfig, LosesTheLevelsOfAnInvalidDataStore) {
  write_file(kDataStore, R"({"default-level": 2, "services": {
      "web": {"display-name": "Web", "current-level": 3}, "mail": {"current-level": 1}}})");
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:23 Invalid format: no display-name."),
                          error_line("framework_config.cpp:23 Json format invalid. " + kStore)}));
  EXPECT_EQ(read_json(kDataStore),
            json(R"({"services": {"web": {"display-name": "Web", "current-level": 0}}})"));
}

TEST_F(RegenFrameworkConfig, LoadsTheDataStoreBeforeTheDescriptors) {
  write_file(descriptor_path("web"), "broken");

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), (Lines{kStoreMissing, not_loaded("[0][Success]", "web.conf")}));
  EXPECT_EQ(read_file(kDataStore), "null\n");
}

TEST_F(RegenFrameworkConfig, OnlyLogsASaveThatFails) {
  write_file(kDataStore, data_store_text(2, {}));
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");
  make_data_store_read_only();
  const Lines before = tree();

  EXPECT_EQ(regenerate(), 0);

  EXPECT_EQ(log(), (Lines{error_line("framework_config.cpp:55 Write json data failed. "
                                     "[Read-only file system] " +
                                     kStore),
                          error_line("api_provider.cpp:390 Regen framework config failed.")}));
  EXPECT_EQ(tree(), before);
}

}  // namespace
}  // namespace kelotls::test
