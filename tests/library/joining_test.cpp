// Joining the framework: all of a registration or nothing of it.
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>
#include <sys/stat.h>

#include <cerrno>

#include "bad_registrations.h"
#include "framework.h"

namespace kelotls::test {
namespace {

const std::string kStore = kDataStore;
const std::string kRefused = error_line("api_provider.cpp:52 Invalid registration config.");
const std::string kNoDescriptor =
    error_line("api_provider.cpp:80 Install service descriptor failed.");
const std::string kNoReloader = error_line("api_provider.cpp:88 Install service reloader failed.");
const std::string kNoDataStore =
    error_line("api_provider.cpp:97 Saving to framework config failed.");
const std::string kNotSaved =
    error_line("framework_config.cpp:55 Write json data failed. [Read-only file system] " + kStore);
const std::string kStoreMissing = error_line(
    "framework_config.cpp:16 Load json data failed. [No such file or directory] " + kStore);

std::string not_removed(const std::string& reason, const std::string& path) {
  return error_line("api_provider.cpp:108 Fallback installed file failed.. " + reason + ": " +
                    path);
}

int join(const Json::Value& registration) {
  errno = EPERM;  // a caller's errno must not reach the log
  return APIProvider().join_framework(registration);
}

int join(const char* registration) { return join(json(registration)); }

class JoinFramework : public Framework {
 protected:
  void SetUp() override {
    Framework::SetUp();
    write_file(kDataStore, data_store_text(2, {{"other", "3"}}));
  }

  /// What a former join of the service would have left, each file telling that it is old.
  static void leave_old_files(const std::string& name) {
    write_file(descriptor_path(name), "old descriptor");
    make_link("/old/reload", link_path(name));
  }
};

// A registration that is valid

TEST_F(JoinFramework, InstallsAServicesDescriptorLinkAndEntry) {
  EXPECT_EQ(join(R"({"services": [{"service": "web", "display-name": "Web",
      "display-name-i18n": "app:web", "mustache-path": "/opt/web/tls.mustache",
      "reloader-path": "/opt/web/reload"}]})"),
            0);

  EXPECT_EQ(read_json(descriptor_path("web")),
            json(R"({"service": "web", "display-name": "Web", "display-name-i18n": "app:web",
      "mustache-path": "/opt/web/tls.mustache", "reloader-path": "/opt/web/reload"})"));
  EXPECT_EQ(link_target(link_path("web")), "/opt/web/reload");
  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "services": {
      "other": {"display-name": "other", "current-level": 3},
      "web": {"display-name": "Web", "display-name-i18n": "app:web", "current-level": 0}}})"));
  EXPECT_EQ(log(), Lines());
}

TEST_F(JoinFramework, InstallsNothingElse) {
  ASSERT_EQ(join(R"({"services": [{"service": "web", "display-name": "Web",
      "mustache-path": "/opt/web/tls.mustache", "reloader-path": "/opt/web/reload"},
      {"service": "plain", "display-name": ""}]})"),
            0);

  EXPECT_EQ(names_in(kServices), (Lines{"plain.conf", "web.conf"}));
  EXPECT_EQ(names_in(kPackageReloaders), Lines{"web.conf"});
  EXPECT_EQ(names_in(kSystemReloaders), Lines());
  EXPECT_EQ(names_in(kConfig), Lines());
  EXPECT_EQ(names_in("/usr/kelo/etc/security-profile/tls-profile"),
            (Lines{"config", "datastore.json", "services"}));
}

TEST_F(JoinFramework, NeitherRendersNorReloads) {
  write_file("/usr/kelo/tls.mustache", "text");
  write_program("/usr/kelo/reload", "#!/bin/sh\necho ran > /tmp/ran\n");

  EXPECT_EQ(join(R"({"services": [{"service": "web", "display-name": "Web",
      "mustache-path": "/usr/kelo/tls.mustache", "reloader-path": "/usr/kelo/reload"}]})"),
            0);

  EXPECT_EQ(names_in(kConfig), Lines());
  EXPECT_FALSE(exists("/tmp/ran"));
}

TEST_F(JoinFramework, AcceptsEverythingThatTheBadRegistrationsAreMadeFrom) {
  EXPECT_EQ(join(good_registration()), 0);

  EXPECT_EQ(names_in(kServices), (Lines{"one.conf", "three.conf", "two.conf"}));
  EXPECT_EQ(names_in(kPackageReloaders), (Lines{"one.conf", "three.conf", "two.conf"}));
  EXPECT_EQ(log(), Lines());
}

TEST_F(JoinFramework, RewritesTheDataStoreForNoServices) {
  const Json::Value before = read_json(kDataStore);
  ASSERT_EQ(::chmod(kDataStore, 0640), 0);
  const ino_t file = inode(kDataStore);

  EXPECT_EQ(join(R"({"services": []})"), 0);

  EXPECT_EQ(read_json(kDataStore), before);
  EXPECT_NE(inode(kDataStore), file);
  EXPECT_EQ(mode(kDataStore), 0640u);
  EXPECT_EQ(names_in(kServices), Lines());
  EXPECT_EQ(log(), Lines());
}

TEST_F(JoinFramework, AcceptsAnEmptyDisplayName) {
  EXPECT_EQ(join(R"({"services": [{"service": "web", "display-name": ""}]})"), 0);

  EXPECT_EQ(read_file(descriptor_path("web")),
            "{\n  \"display-name\" : \"\",\n  \"service\" : \"web\"\n}\n");
  EXPECT_EQ(read_json(kDataStore)["services"]["web"],
            json(R"({"display-name": "", "current-level": 0})"));
}

TEST_F(JoinFramework, IgnoresKeysThatItDoesNotKnow) {
  EXPECT_EQ(join(R"({"x": {}, "services": [{"service": "web", "display-name": "Web", "x": [],
      "system-service": true, "current-level": 3, "reloader-path": "/opt/web/reload"}]})"),
            0);

  EXPECT_EQ(
      read_json(descriptor_path("web")),
      json(R"({"service": "web", "display-name": "Web", "reloader-path": "/opt/web/reload"})"));
  EXPECT_EQ(read_json(kDataStore)["services"]["web"]["current-level"], Json::Value(0));
  EXPECT_EQ(link_target(link_path("web")), "/opt/web/reload");
}

TEST_F(JoinFramework, TakesNamesUnchecked) {
  const std::string profile = "/usr/kelo/etc/security-profile/tls-profile/";

  EXPECT_EQ(join(R"({"services": [
      {"service": "../up", "display-name": "Up", "reloader-path": "/r"},
      {"service": "with space", "display-name": "Space"},
      {"service": "żó-网", "display-name": "żó-网", "reloader-path": "/żó-网"}]})"),
            0);

  EXPECT_EQ(read_json(profile + "up.conf")["service"], Json::Value("../up"));
  EXPECT_EQ(link_target("/usr/local/libexec/security-profile/up.conf"), "/r");
  EXPECT_EQ(names_in(kServices), (Lines{"with space.conf", "żó-网.conf"}));
  EXPECT_EQ(link_target(link_path("żó-网")), "/żó-网");
  EXPECT_EQ(read_json(kDataStore)["services"].getMemberNames(),
            (Lines{"../up", "other", "with space", "żó-网"}));
}

TEST_F(JoinFramework, JoinsAThousandServices) {
  Json::Value registration;
  for (int number = 0; number < 1000; ++number) {
    Json::Value& service = registration["services"].append(Json::Value());
    service["service"] = "service-" + std::to_string(number);
    service["display-name"] = "Service " + std::to_string(number);
    service["reloader-path"] = "/opt/reload";
  }

  EXPECT_EQ(join(registration), 0);

  EXPECT_EQ(names_in(kServices).size(), 1000u);
  EXPECT_EQ(names_in(kPackageReloaders).size(), 1000u);
  EXPECT_EQ(read_json(kDataStore)["services"].size(), 1001u);
  EXPECT_EQ(read_json(kDataStore)["services"]["service-999"],
            json(R"({"display-name": "Service 999", "current-level": 0})"));
  EXPECT_EQ(log(), Lines());
}

// Joining again

TEST_F(JoinFramework, KeepsTheLevelOfAServiceThatJoinsAgain) {
  write_file(kDataStore, R"({"default-level": 2, "extra": 1, "services": {
      "other": {"display-name": "Other", "extra": [], "current-level": 1},
      "web": {"display-name": "Old", "display-name-i18n": "app:old", "x": 1, "current-level": 3}}})");
  leave_old_files("web");

  EXPECT_EQ(join(R"({"services": [{"service": "new", "display-name": "New"},
      {"service": "web", "display-name": "Web", "reloader-path": "/opt/web/reload"}]})"),
            0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "extra": 1, "services": {
      "new": {"display-name": "New", "current-level": 0},
      "other": {"display-name": "Other", "extra": [], "current-level": 1},
      "web": {"display-name": "Web", "current-level": 3}}})"));
  EXPECT_EQ(read_json(descriptor_path("web"))["display-name"], Json::Value("Web"));
  EXPECT_EQ(link_target(link_path("web")), "/opt/web/reload");
  EXPECT_EQ(log(), Lines());
}

TEST_F(JoinFramework, KeepsTheOldLinkOfAServiceThatNoLongerNamesAReloader) {
  leave_old_files("web");

  EXPECT_EQ(join(R"({"services": [{"service": "web", "display-name": "Web"}]})"), 0);

  EXPECT_EQ(link_target(link_path("web")), "/old/reload");
}

TEST_F(JoinFramework, ChangesNothingWhenItIsRepeated) {
  ASSERT_EQ(join(good_registration()), 0);
  const Lines before = tree();

  EXPECT_EQ(join(good_registration()), 0);

  EXPECT_EQ(tree(), before);
}

TEST_F(JoinFramework, LetsTheSecondOfTwoElementsOfOneNameWin) {
  EXPECT_EQ(join(R"({"services": [
      {"service": "web", "display-name": "First", "display-name-i18n": "app:first",
       "reloader-path": "/first"},
      {"service": "web", "display-name": "Second", "reloader-path": "/second"}]})"),
            0);

  EXPECT_EQ(read_json(descriptor_path("web")),
            json(R"({"service": "web", "display-name": "Second", "reloader-path": "/second"})"));
  EXPECT_EQ(link_target(link_path("web")), "/second");
  EXPECT_EQ(read_json(kDataStore)["services"]["web"],
            json(R"({"display-name": "Second", "current-level": 0})"));
  EXPECT_EQ(log(), Lines());
}

// System services

TEST_F(JoinFramework, LinksNoReloaderOfASystemService) {
  for (const char* flag : {"true", "1", "-1", "1.5"}) {
    EXPECT_EQ(join(json(std::string(R"({"system-service": )") + flag +
                        R"(, "services": [{"service": "web", "display-name": "Web",
                   "reloader-path": "/opt/web/reload"}]})")),
              0);

    EXPECT_EQ(names_in(kPackageReloaders), Lines()) << flag;
    EXPECT_EQ(read_json(descriptor_path("web")), json(R"({"service": "web", "display-name": "Web",
                       "reloader-path": "/opt/web/reload"})"));
    remove_all(descriptor_path("web"));
  }
  EXPECT_EQ(names_in(kSystemReloaders), Lines());
  EXPECT_EQ(log(), Lines());
}

TEST_F(JoinFramework, ReadsWhatTheJsonLibraryCallsFalseAsNoSystemService) {
  for (const char* flag : {"false", "null", "0", "0.0"}) {
    EXPECT_EQ(join(json(std::string(R"({"system-service": )") + flag +
                        R"(, "services": [{"service": "web", "display-name": "Web",
                   "reloader-path": "/opt/web/reload"}]})")),
              0);

    EXPECT_EQ(names_in(kPackageReloaders), Lines{"web.conf"}) << flag;
    remove_all(link_path("web"));
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(JoinFramework, MarksEveryServiceOfARegistrationAlike) {
  Json::Value registration = good_registration();
  registration["system-service"] = true;

  EXPECT_EQ(join(registration), 0);

  EXPECT_EQ(names_in(kServices), (Lines{"one.conf", "three.conf", "two.conf"}));
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
}

TEST_F(JoinFramework, LetsTheJsonLibraryThrowOnAFlagThatIsNoBooleanBeforeAnythingIsRead) {
  remove_all(kDataStore);
  const Lines before = tree();
  for (const char* flag : {R"("x")", R"("")", R"("true")", "[]", "{}", "[true]"}) {
    Json::Value registration = good_registration();
    registration["system-service"] = json(flag);

    EXPECT_THROW(join(registration), Json::LogicError) << flag;
  }

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(JoinFramework, ValidatesTheServicesBeforeItReadsTheFlag) {
  Json::Value registration = good_registration();
  registration["system-service"] = "x";
  registration["services"][2]["reloader-path"] = "";

  EXPECT_EQ(join(registration), -1);

  EXPECT_EQ(log(), Lines{kRefused});
}

TEST_F(JoinFramework, RemovesOnlyTheDescriptorOfASystemServiceWhenItFails) {
  leave_old_files("web");
  make_data_store_read_only();

  EXPECT_EQ(join(R"({"system-service": true, "services": [{"service": "web",
      "display-name": "Web", "reloader-path": "/opt/web/reload"}]})"),
            -1);

  EXPECT_EQ(log(), (Lines{kNotSaved, kNoDataStore}));
  EXPECT_EQ(names_in(kServices), Lines());
  EXPECT_EQ(link_target(link_path("web")), "/old/reload");
}

// A registration that is not valid

TEST_F(JoinFramework, RefusesABadRegistrationBeforeAnythingIsReadOrWritten) {
  write_file(kDataStore, "broken, as the log would tell if it were read");
  write_file(descriptor_path("one"), "old descriptor");
  make_link("/old/reload", link_path("one"));
  const Lines before = tree();
  const ino_t store = inode(kDataStore);

  const std::vector<BadRegistration> registrations = registrations_that_cannot_join();
  ASSERT_GE(registrations.size(), 100u);
  for (const BadRegistration& bad : registrations) {
    SCOPED_TRACE(bad.name);
    EXPECT_EQ(join(bad.registration), -1);

    EXPECT_EQ(log(), Lines{kRefused});
    EXPECT_EQ(tree(), before);
    EXPECT_EQ(inode(kDataStore), store);
  }
}

// A data store that cannot be loaded

TEST_F(JoinFramework, WritesADataStoreOfItsServicesAloneWhenItCannotBeLoaded) {
  remove_all(kDataStore);

  EXPECT_EQ(join(R"({"services": [{"service": "web", "display-name": "Web"}]})"), 0);

  EXPECT_EQ(log(), Lines{kStoreMissing});
  EXPECT_EQ(read_json(kDataStore),
            json(R"({"services": {"web": {"display-name": "Web", "current-level": 0}}})"));
  EXPECT_TRUE(exists(descriptor_path("web")));

  EXPECT_EQ(DataStoreProvider().get_service_level("web"), kDataStoreUnavailable);
  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:11 Invalid format: no default-level"),
                          error_line("framework_config.cpp:23 Json format invalid. " + kStore)}));
}

TEST_F(JoinFramework, LosesTheLevelsOfAnInvalidDataStore) {
  write_file(kDataStore, R"({"services": {"web": {"display-name": "Web", "current-level": 3}}})");

  EXPECT_EQ(join(R"({"services": [{"service": "web", "display-name": "Web"}]})"), 0);

  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:11 Invalid format: no default-level"),
                          error_line("framework_config.cpp:23 Json format invalid. " + kStore)}));
  EXPECT_EQ(read_json(kDataStore),
            json(R"({"services": {"web": {"display-name": "Web", "current-level": 0}}})"));
}

TEST_F(JoinFramework, WritesNullForNoServicesWithoutADataStore) {
  remove_all(kDataStore);

  EXPECT_EQ(join(R"({"services": []})"), 0);

  EXPECT_EQ(log(), Lines{kStoreMissing});
  EXPECT_EQ(read_file(kDataStore), "null\n");
}

TEST_F(JoinFramework, LetsTheJsonLibraryThrowOnABrokenEntryBeforeAnyFileIsWritten) {
  write_file(kDataStore, R"({"default-level": 2, "services": {"other": 5}})");
  const Lines before = tree();

  EXPECT_THROW(join(good_registration()), Json::LogicError);

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

// A descriptor that cannot be written

TEST_F(JoinFramework, RemovesTheEarlierFilesWhenADescriptorFails) {
  make_directories(descriptor_path("two"));
  write_file(descriptor_path("three"), "old descriptor");
  const Lines before = tree();
  const ino_t store = inode(kDataStore);

  EXPECT_EQ(join(good_registration()), -1);

  EXPECT_EQ(log(), (Lines{error_line("api_provider.cpp:271 Install service desc failed. "
                                     "[21][Is a directory]: " +
                                     descriptor_path("two")),
                          kNoDescriptor}));
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(inode(kDataStore), store);
}

TEST_F(JoinFramework, LeavesNothingBehindWhenTheFirstDescriptorFails) {
  remove_all(kServices);
  const Lines before = tree();

  EXPECT_EQ(join(good_registration()), -1);

  EXPECT_EQ(log(), (Lines{error_line("api_provider.cpp:271 Install service desc failed. "
                                     "[2][No such file or directory]: " +
                                     descriptor_path("one")),
                          kNoDescriptor}));
  EXPECT_EQ(tree(), before);
}

TEST_F(JoinFramework, LeavesTheHalfWrittenDescriptorOfAFullFileSystem) {
  mount_small_file_system(kServices, 64 << 10);
  Json::Value registration = good_registration();
  registration["services"][1]["display-name"] = std::string(128 << 10, 'x');

  EXPECT_EQ(join(registration), -1);

  EXPECT_EQ(log(), (Lines{error_line("api_provider.cpp:271 Install service desc failed. "
                                     "[28][No space left on device]: " +
                                     descriptor_path("two")),
                          kNoDescriptor}));
  EXPECT_EQ(names_in(kServices), Lines{"two.conf"});
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
}

// A reloader link that cannot be made

TEST_F(JoinFramework, RemovesInstalledFilesWhenALinkFails) {
  make_directories(link_path("two"));
  leave_old_files("three");
  const Lines before = tree();
  const ino_t store = inode(kDataStore);

  EXPECT_EQ(join(good_registration()), -1);

  EXPECT_EQ(log(), (Lines{error_line("api_provider.cpp:299 Unlink service reloader failed. "
                                     "[21][Is a directory]: " +
                                     link_path("two")),
                          kNoReloader}));
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(inode(kDataStore), store);
}

TEST_F(JoinFramework, RemovesTheServicesOwnDescriptorWhenTheLinksDirectoryIsMissing) {
  remove_all(kPackageReloaders);
  const Lines before = tree();

  EXPECT_EQ(join(good_registration()), -1);

  EXPECT_EQ(log(), (Lines{error_line("api_provider.cpp:305 Install service reloader failed. "
                                     "[2][No such file or directory]: /opt/one/reload -> " +
                                     link_path("one")),
                          kNoReloader}));
  EXPECT_EQ(tree(), before);
}

TEST_F(JoinFramework, DoesNotNeedTheLinksDirectoryForServicesWithoutAReloader) {
  remove_all(kPackageReloaders);

  EXPECT_EQ(join(R"({"services": [{"service": "web", "display-name": "Web"}]})"), 0);

  EXPECT_EQ(log(), Lines());
}

// A data store that cannot be saved

TEST_F(JoinFramework, SavesTheDataStoreLastAndRemovesEverythingWhenThatFails) {
  leave_old_files("one");
  make_data_store_read_only();
  const std::string before = read_file(kDataStore);

  EXPECT_EQ(join(good_registration()), -1);

  // That the old files have gone shows that the new ones had been there.
  EXPECT_EQ(log(), (Lines{kNotSaved, kNoDataStore}));
  EXPECT_EQ(names_in(kServices), Lines());
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
  EXPECT_EQ(read_file(kDataStore), before);
}

TEST_F(JoinFramework, ReportsAFailedSaveForNoServices) {
  make_data_store_read_only();
  const Lines before = tree();

  EXPECT_EQ(join(R"({"services": []})"), -1);

  EXPECT_EQ(log(), (Lines{kNotSaved, kNoDataStore}));
  EXPECT_EQ(tree(), before);
}

TEST_F(JoinFramework, ReportsADataStoreThatCanNeitherBeLoadedNorSaved) {
  remove_all(kDataStore);
  make_directories(kDataStore);
  const Lines before = tree();

  EXPECT_EQ(join(good_registration()), -1);

  EXPECT_EQ(
      log(),
      (Lines{
          error_line("framework_config.cpp:16 Load json data failed. [Is a directory] " + kStore),
          error_line("framework_config.cpp:55 Write json data failed. [Is a directory] " + kStore),
          kNoDataStore}));
  EXPECT_EQ(tree(), before);
}

// The rollback

TEST_F(JoinFramework, RollsBackFromTheFirstInstalledFileToTheLast) {
  // Files that can be written, in a directory out of which nothing can be removed.
  for (const char* name : {"one", "two", "three"}) {
    write_file(descriptor_path(name), "old descriptor");
  }
  ASSERT_EQ(::chmod(kServices, 0555), 0);
  make_data_store_read_only();
  obey_file_permissions();

  EXPECT_EQ(join(good_registration()), -1);

  const std::string reason = "[13][Permission denied]";
  EXPECT_EQ(log(), (Lines{kNotSaved, kNoDataStore, not_removed(reason, descriptor_path("one")),
                          not_removed(reason, descriptor_path("two")),
                          not_removed(reason, descriptor_path("three"))}));
  EXPECT_EQ(names_in(kServices), (Lines{"one.conf", "three.conf", "two.conf"}));
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
}

TEST_F(JoinFramework, KeepsInTheRollbackWhatCannotBeRemovedAndReturnsFailureAllTheSame) {
  write_file(descriptor_path("one"), "old descriptor");
  write_file(descriptor_path("two"), "old descriptor");
  ASSERT_EQ(::chmod(kServices, 0555), 0);
  make_directories(link_path("two"));
  obey_file_permissions();

  EXPECT_EQ(join(good_registration()), -1);

  const std::string reason = "[13][Permission denied]";
  EXPECT_EQ(log(), (Lines{error_line("api_provider.cpp:299 Unlink service reloader failed. "
                                     "[21][Is a directory]: " +
                                     link_path("two")),
                          kNoReloader, not_removed(reason, descriptor_path("one")),
                          not_removed(reason, descriptor_path("two"))}));
  EXPECT_EQ(read_json(descriptor_path("one"))["service"], Json::Value("one"));
  EXPECT_EQ(read_json(descriptor_path("two"))["service"], Json::Value("two"));
  EXPECT_EQ(names_in(kPackageReloaders), Lines{"two.conf"});  // the directory in the way
}

TEST_F(JoinFramework, RollsBackAFileInstalledTwiceAndLogsThatItHasGone) {
  make_data_store_read_only();

  EXPECT_EQ(join(R"({"services": [
      {"service": "web", "display-name": "First", "reloader-path": "/first"},
      {"service": "web", "display-name": "Second", "reloader-path": "/second"}]})"),
            -1);

  const std::string reason = "[2][No such file or directory]";
  EXPECT_EQ(log(), (Lines{kNotSaved, kNoDataStore, not_removed(reason, descriptor_path("web")),
                          not_removed(reason, link_path("web"))}));
  EXPECT_EQ(names_in(kServices), Lines());
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
}

TEST_F(JoinFramework, DoesNotBringBackTheFilesThatItReplaced) {
  leave_old_files("one");
  make_directories(link_path("two"));

  EXPECT_EQ(join(good_registration()), -1);

  EXPECT_FALSE(exists(descriptor_path("one")));
  EXPECT_FALSE(exists(link_path("one")));
}

TEST_F(JoinFramework, NeverTouchesTheServicesBehindTheOneThatFailed) {
  make_directories(descriptor_path("one"));
  leave_old_files("two");
  leave_old_files("three");
  const Lines before = tree();

  EXPECT_EQ(join(good_registration()), -1);

  EXPECT_EQ(tree(), before);
}

}  // namespace
}  // namespace kelotls::test
