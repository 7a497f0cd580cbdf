// Leaving the framework: the entry first, then the files.
#include <kelotls/api_provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "bad_registrations.h"
#include "framework.h"

namespace kelotls::test {
namespace {

const std::string kStore = kDataStore;
const std::string kRefused = error_line("api_provider.cpp:120 Invalid registration config.");
const std::string kNotCleanedUp =
    error_line("api_provider.cpp:161 Cleanup service template failed.");
const std::string kMissing = "[2][No such file or directory]";

std::string link_not_removed(const std::string& reason, const std::string& name) {
  return error_line("api_provider.cpp:319 uninstall service reloader failed. " + reason + ": " +
                    link_path(name));
}

std::string descriptor_not_removed(const std::string& reason, const std::string& name) {
  return error_line("api_provider.cpp:286 Uninstall service desc failed. " + reason + ": " +
                    descriptor_path(name));
}

std::string output_not_removed(const std::string& reason, const std::string& name) {
  return error_line("api_provider.cpp:241 cleanup render path failed. " + reason + ": " +
                    rendered_path(name));
}

int leave(const Json::Value& registration) {
  errno = EPERM;  // a caller's errno must not reach the log
  return APIProvider().leave_framework(registration);
}

int leave(const char* registration) { return leave(json(registration)); }

/// Three services have joined and are rendered; a fourth, "other", has nothing to do with them.
class LeaveFramework : public Framework {
 protected:
  void SetUp() override {
    Framework::SetUp();
    write_file(kDataStore, R"({"default-level": 2, "extra": [1], "services": {
        "one": {"display-name": "One", "current-level": 1},
        "other": {"display-name": "Other", "x": null, "current-level": 3},
        "three": {"display-name": "Three", "current-level": 3},
        "two": {"display-name": "Two", "current-level": 0}}})");
    for (const char* name : {"one", "two", "three", "other"}) {
      make_files(name);
    }
  }

  static void make_files(const std::string& name) {
    write_file(descriptor_path(name), "a descriptor");
    remove_all(link_path(name));
    make_link("/opt/reload", link_path(name));
    write_file(rendered_path(name), "rendered");
  }

  static Lines entries() { return read_json(kDataStore)["services"].getMemberNames(); }

  static bool has_all_files(const std::string& name) {
    return exists(descriptor_path(name)) && exists(link_path(name)) && exists(rendered_path(name));
  }

  static bool has_no_file(const std::string& name) {
    return !exists(descriptor_path(name)) && !exists(link_path(name)) &&
           !exists(rendered_path(name));
  }
};

// A registration that is valid

TEST_F(LeaveFramework, RemovesTheEntriesAndAllFilesOfTheServices) {
  EXPECT_EQ(leave(good_registration()), 0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "extra": [1], "services": {
      "other": {"display-name": "Other", "x": null, "current-level": 3}}})"));
  for (const char* name : {"one", "two", "three"}) {
    EXPECT_TRUE(has_no_file(name)) << name;
  }
  EXPECT_EQ(names_in(kServices), Lines{"other.conf"});
  EXPECT_EQ(names_in(kPackageReloaders), Lines{"other.conf"});
  EXPECT_EQ(names_in(kConfig), Lines{"other.conf"});
  EXPECT_EQ(log(), Lines());
}

TEST_F(LeaveFramework, TouchesNoOtherService) {
  EXPECT_EQ(leave(R"({"services": [{"service": "two", "reloader-path": "/opt/reload",
      "mustache-path": "/usr/kelo/tls.mustache"}]})"),
            0);

  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "extra": [1], "services": {
      "one": {"display-name": "One", "current-level": 1},
      "other": {"display-name": "Other", "x": null, "current-level": 3},
      "three": {"display-name": "Three", "current-level": 3}}})"));
  EXPECT_TRUE(has_no_file("two"));
  for (const char* name : {"one", "three", "other"}) {
    EXPECT_TRUE(has_all_files(name)) << name;
  }
}

TEST_F(LeaveFramework, UndoesAJoin) {
  ASSERT_EQ(APIProvider().join_framework(json(R"({"services": []})")), 0);
  const Lines before = tree();
  const Json::Value registration = json(R"({"services": [
      {"service": "new", "display-name": "New", "reloader-path": "/r"},
      {"service": "plain", "display-name": "Plain"}]})");
  ASSERT_EQ(APIProvider().join_framework(registration), 0);
  ASSERT_NE(tree(), before);

  EXPECT_EQ(leave(registration), 0);

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(LeaveFramework, ReplacesTheDataStoreAndKeepsItsMode) {
  ASSERT_EQ(::chmod(kDataStore, 0640), 0);
  const ino_t before = inode(kDataStore);

  EXPECT_EQ(leave(R"({"services": [{"service": "one"}]})"), 0);

  EXPECT_NE(inode(kDataStore), before);
  EXPECT_EQ(mode(kDataStore), 0640u);
}

TEST_F(LeaveFramework, RewritesTheDataStoreForNoServices) {
  const Json::Value before = read_json(kDataStore);
  const ino_t file = inode(kDataStore);

  EXPECT_EQ(leave(R"({"services": []})"), 0);

  EXPECT_EQ(read_json(kDataStore), before);
  EXPECT_NE(inode(kDataStore), file);
  EXPECT_TRUE(has_all_files("one"));
  EXPECT_EQ(log(), Lines());
}

TEST_F(LeaveFramework, RunsNoReloaderAndRendersNothing) {
  write_program(std::string(kSystemReloaders) + "a", "#!/bin/sh\necho ran > /tmp/ran\n");
  write_program("/usr/kelo/reload", "#!/bin/sh\necho ran > /tmp/ran\n");
  ASSERT_EQ(::unlink(link_path("other").c_str()), 0);
  make_link("/usr/kelo/reload", link_path("other"));
  write_file("/usr/kelo/tls.mustache", "new text");
  write_file(descriptor_path("other"), R"({"mustache-path": "/usr/kelo/tls.mustache"})");

  EXPECT_EQ(leave(R"({"services": [{"service": "one"}]})"), 0);

  EXPECT_FALSE(exists("/tmp/ran"));
  EXPECT_EQ(read_file(rendered_path("other")), "rendered");
}

// What follows from the registration

TEST_F(LeaveFramework, KeepsTheLinkAndTheRenderedFileThatOnlyTheDescriptorNames) {
  write_file(descriptor_path("one"), R"({"service": "one", "display-name": "One",
      "reloader-path": "/opt/reload", "mustache-path": "/usr/kelo/tls.mustache"})");

  EXPECT_EQ(leave(R"({"services": [{"service": "one"}]})"), 0);

  EXPECT_EQ(entries(), (Lines{"other", "three", "two"}));
  EXPECT_FALSE(exists(descriptor_path("one")));
  EXPECT_TRUE(exists(link_path("one")));
  EXPECT_TRUE(exists(rendered_path("one")));
  EXPECT_EQ(log(), Lines());
}

TEST_F(LeaveFramework, KeepsTheLinksAndRenderedFilesOfARegistrationOfNames) {
  EXPECT_EQ(leave(R"({"services": [{"service": "one"}, {"service": "two"}]})"), 0);

  EXPECT_EQ(entries(), (Lines{"other", "three"}));
  EXPECT_EQ(names_in(kServices), (Lines{"other.conf", "three.conf"}));
  EXPECT_EQ(names_in(kPackageReloaders).size(), 4u);
  EXPECT_EQ(names_in(kConfig).size(), 4u);
}

TEST_F(LeaveFramework, TakesEmptyPathsForNone) {
  EXPECT_EQ(leave(R"({"services": [{"service": "one", "reloader-path": "", "mustache-path": "",
      "display-name-i18n": ""}]})"),
            0);

  EXPECT_FALSE(exists(descriptor_path("one")));
  EXPECT_TRUE(exists(link_path("one")));
  EXPECT_TRUE(exists(rendered_path("one")));
  EXPECT_EQ(log(), Lines());
}

TEST_F(LeaveFramework, AcceptsOptionalMembersOfAnyTypeThatHasAStringForm) {
  EXPECT_EQ(leave(R"({"services": [{"service": "one", "display-name": 5, "reloader-path": 7,
      "mustache-path": true, "display-name-i18n": null}]})"),
            0);

  EXPECT_TRUE(has_no_file("one"));
  EXPECT_EQ(log(), Lines());
}

TEST_F(LeaveFramework, KeepsTheReloaderLinksOfSystemServices) {
  Json::Value registration = good_registration();
  for (const char* flag : {"true", "1", "1.5"}) {
    make_files("one");
    registration["system-service"] = json(flag);

    EXPECT_EQ(leave(registration), 0);

    EXPECT_TRUE(exists(link_path("one"))) << flag;
    EXPECT_FALSE(exists(descriptor_path("one")));
    EXPECT_FALSE(exists(rendered_path("one")));
  }
}

TEST_F(LeaveFramework, RemovesTheLinkWhereTheJsonLibraryCallsTheFlagFalse) {
  Json::Value registration = good_registration();
  for (const char* flag : {"false", "null", "0", "0.0"}) {
    make_files("one");
    registration["system-service"] = json(flag);

    EXPECT_EQ(leave(registration), 0);

    EXPECT_FALSE(exists(link_path("one"))) << flag;
  }
}

TEST_F(LeaveFramework, IgnoresAFlagInsideAService) {
  EXPECT_EQ(leave(R"({"services": [{"service": "one", "system-service": true,
      "reloader-path": "/opt/reload"}]})"),
            0);

  EXPECT_FALSE(exists(link_path("one")));
}

TEST_F(LeaveFramework, RemovesTheFilesOfClimbingNames) {
  const std::string descriptor = "/usr/kelo/etc/security-profile/tls-profile/up.conf";
  const std::string link = "/usr/local/libexec/security-profile/up.conf";
  write_file(descriptor, "a descriptor");
  make_link("/r", link);

  EXPECT_EQ(leave(R"({"services": [{"service": "../up", "reloader-path": "/r"}]})"), 0);

  EXPECT_FALSE(exists(descriptor));
  EXPECT_FALSE(exists(link));
  EXPECT_EQ(log(), Lines());
}

// A registration that is not valid

class RegistrationToLeave : public Framework {};

TEST_F(RegistrationToLeave, IsRefusedBeforeAnythingIsReadOrWrittenIfItIsBad) {
  write_file(kDataStore, "broken, as the log would tell if it were read");
  for (const char* name : {"one", "two", "three"}) {
    write_file(descriptor_path(name), "a descriptor");
    make_link("/opt/reload", link_path(name));
    write_file(rendered_path(name), "rendered");
  }
  const Lines before = tree();
  const ino_t store = inode(kDataStore);

  const std::vector<BadRegistration> registrations = registrations_that_cannot_leave();
  ASSERT_GE(registrations.size(), 80u);
  for (const BadRegistration& bad : registrations) {
    SCOPED_TRACE(bad.name);
    EXPECT_EQ(leave(bad.registration), -1);

    EXPECT_EQ(log(), Lines{kRefused});
    EXPECT_EQ(tree(), before);
    EXPECT_EQ(inode(kDataStore), store);
  }
}

TEST_F(LeaveFramework, LetsTheJsonLibraryThrowOnAFlagThatIsNoBooleanBeforeAnythingIsRead) {
  write_file(kDataStore, "broken, as the log would tell if it were read");
  const Lines before = tree();
  for (const char* flag : {R"("x")", R"("")", "[]", "{}"}) {
    Json::Value registration = good_registration();
    registration["system-service"] = json(flag);

    EXPECT_THROW(leave(registration), Json::LogicError) << flag;
  }

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(LeaveFramework, LetsTheJsonLibraryThrowOnAMemberWithoutAStringFormBeforeAnythingIsRead) {
  write_file(kDataStore, "broken, as the log would tell if it were read");
  const Lines before = tree();
  for (const char* key : {"display-name", "display-name-i18n", "mustache-path", "reloader-path"}) {
    for (const char* value : {"[]", "{}"}) {
      Json::Value registration = good_registration();
      registration["services"][2][key] = json(value);

      EXPECT_THROW(leave(registration), Json::LogicError) << key << ' ' << value;
    }
  }

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(LeaveFramework, ValidatesTheServicesBeforeItReadsTheFlag) {
  Json::Value registration = good_registration();
  registration["system-service"] = "x";
  registration["services"][2]["service"] = "";

  EXPECT_EQ(leave(registration), -1);

  EXPECT_EQ(log(), Lines{kRefused});
}

// A data store that cannot be used

TEST_F(LeaveFramework, WritesNullOverAMissingDataStoreAndGoesOn) {
  remove_all(kDataStore);

  EXPECT_EQ(leave(good_registration()), 0);

  EXPECT_EQ(log(), Lines{error_line("framework_config.cpp:16 Load json data failed. "
                                    "[No such file or directory] " +
                                    kStore)});
  EXPECT_EQ(read_file(kDataStore), "null\n");
  EXPECT_TRUE(has_no_file("one"));
  EXPECT_TRUE(has_no_file("three"));
}

TEST_F(LeaveFramework, WritesNullOverAnInvalidDataStoreAndGoesOn) {
  write_file(kDataStore, R"({"services": {"other": {"display-name": "Other"}}})");

  EXPECT_EQ(leave(R"({"services": [{"service": "one"}]})"), 0);

  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:11 Invalid format: no default-level"),
                          error_line("framework_config.cpp:23 Json format invalid. " + kStore)}));
  EXPECT_EQ(read_file(kDataStore), "null\n");
  EXPECT_FALSE(exists(descriptor_path("one")));
}

TEST_F(LeaveFramework, SavesTheDataStoreFirstAndTouchesNoFileWhenThatFails) {
  make_data_store_read_only();
  const Lines before = tree();

  EXPECT_EQ(leave(good_registration()), -1);

  EXPECT_EQ(log(), (Lines{error_line("framework_config.cpp:55 Write json data failed. "
                                     "[Read-only file system] " +
                                     kStore),
                          error_line("api_provider.cpp:139 Save service config failed.")}));
  EXPECT_EQ(tree(), before);
}

TEST_F(LeaveFramework, LetsTheJsonLibraryThrowOnABrokenEntryBeforeAnyFileIsTouched) {
  write_file(kDataStore, R"({"default-level": 2, "services": {"other": 5}})");
  const Lines before = tree();

  EXPECT_THROW(leave(good_registration()), Json::LogicError);

  EXPECT_EQ(tree(), before);
}

// Files that cannot be removed

TEST_F(LeaveFramework, LogsEachMissingFileOfAServiceThatNeverJoined) {
  const Lines before = tree();
  const Json::Value content = read_json(kDataStore);

  EXPECT_EQ(leave(R"({"services": [{"service": "new", "reloader-path": "/r",
      "mustache-path": "/m"}]})"),
            0);

  EXPECT_EQ(log(),
            (Lines{link_not_removed(kMissing, "new"), descriptor_not_removed(kMissing, "new"),
                   output_not_removed(kMissing, "new"), kNotCleanedUp}));
  EXPECT_EQ(read_json(kDataStore), content);
  EXPECT_EQ(tree().size(), before.size());
}

TEST_F(LeaveFramework, LogsOnlyTheMissingDescriptorOfANameThatNeverJoined) {
  EXPECT_EQ(leave(R"({"services": [{"service": "new"}]})"), 0);

  EXPECT_EQ(log(), Lines{descriptor_not_removed(kMissing, "new")});
}

TEST_F(LeaveFramework, TakesEachServiceWholeInTheOrderOfTheRegistration) {
  EXPECT_EQ(leave(R"({"services": [
      {"service": "z", "reloader-path": "/r", "mustache-path": "/m"},
      {"service": "a", "reloader-path": "/r", "mustache-path": "/m"}]})"),
            0);

  EXPECT_EQ(log(), (Lines{link_not_removed(kMissing, "z"), descriptor_not_removed(kMissing, "z"),
                          output_not_removed(kMissing, "z"), kNotCleanedUp,
                          link_not_removed(kMissing, "a"), descriptor_not_removed(kMissing, "a"),
                          output_not_removed(kMissing, "a"), kNotCleanedUp}));
}

TEST_F(LeaveFramework, GoesOnWhenAReloaderLinkStays) {
  ASSERT_EQ(::unlink(link_path("one").c_str()), 0);
  make_directories(link_path("one"));

  EXPECT_EQ(leave(good_registration()), 0);

  EXPECT_EQ(log(), Lines{link_not_removed("[21][Is a directory]", "one")});
  EXPECT_TRUE(exists(link_path("one")));
  EXPECT_FALSE(exists(descriptor_path("one")));
  EXPECT_FALSE(exists(rendered_path("one")));
  EXPECT_TRUE(has_no_file("three"));
  EXPECT_EQ(entries(), Lines{"other"});
}

TEST_F(LeaveFramework, GoesOnWhenADescriptorStays) {
  remove_all(descriptor_path("one"));
  make_directories(descriptor_path("one"));

  EXPECT_EQ(leave(good_registration()), 0);

  EXPECT_EQ(log(), Lines{descriptor_not_removed("[21][Is a directory]", "one")});
  EXPECT_TRUE(exists(descriptor_path("one")));
  EXPECT_FALSE(exists(rendered_path("one")));
  EXPECT_TRUE(has_no_file("three"));
  EXPECT_EQ(entries(), Lines{"other"});
}

TEST_F(LeaveFramework, GoesOnWhenARenderedFileStays) {
  remove_all(rendered_path("one"));
  make_directories(rendered_path("one"));

  EXPECT_EQ(leave(good_registration()), 0);

  EXPECT_EQ(log(), (Lines{output_not_removed("[21][Is a directory]", "one"), kNotCleanedUp}));
  EXPECT_TRUE(exists(rendered_path("one")));
  EXPECT_FALSE(exists(descriptor_path("one")));
  EXPECT_TRUE(has_no_file("three"));
  EXPECT_EQ(entries(), Lines{"other"});
}

TEST_F(LeaveFramework, LogsTheFilesOfAServiceNamedTwiceAsGone) {
  EXPECT_EQ(leave(R"({"services": [
      {"service": "one", "reloader-path": "/r"}, {"service": "one", "reloader-path": "/r"}]})"),
            0);

  EXPECT_EQ(log(),
            (Lines{link_not_removed(kMissing, "one"), descriptor_not_removed(kMissing, "one")}));
  EXPECT_EQ(entries(), (Lines{"other", "three", "two"}));
}

}  // namespace
}  // namespace kelotls::test
