// What SECURITY.md promises: modes, links in the way, names, and what reloaders inherit.
#include <fcntl.h>
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

constexpr char kVictim[] = "/usr/kelo/victim";
constexpr char kNowhere[] = "/usr/kelo/nowhere";

class Security : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    write_file(kVictim, "precious");
  }

  void join_by_the_library() {
    ASSERT_EQ(APIProvider().join_framework(json(web_registration())), 0);
  }

  /// Nothing has reached what a planted link leads to.
  static void expect_victims_untouched() {
    EXPECT_EQ(read_file(kVictim), "precious");
    EXPECT_FALSE(exists(kNowhere));
  }
};

/// All in the private tree that users other than its owner can write.
Lines writable_by_others() {
  Lines found;
  for (const char* top :
       {"/usr/kelo", "/usr/libexec/security-profile", "/usr/local/libexec/security-profile"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
      if (!entry.is_symlink() && (mode(entry.path()) & 022) != 0) {
        found.push_back(entry.path());
      }
    }
  }
  return found;
}

// Modes

TEST_F(Security, FilesOfTheLibraryHaveTheModeThatTheUmaskLeaves) {
  for (const mode_t mask : {0u, 022u, 077u}) {
    remove_all(kDataStore);
    remove_all(descriptor_path("web"));
    remove_all(rendered_path("web"));
    ::umask(mask);

    join_by_the_library();
    EXPECT_EQ(mode(kDataStore), 0666u & ~mask);
    EXPECT_EQ(mode(descriptor_path("web")), 0666u & ~mask);

    write_file(kDataStore, data_store_text(2, {{"web", "0"}}));
    ASSERT_EQ(APIProvider().render_service_template(), 0);
    EXPECT_EQ(mode(rendered_path("web")), 0600u) << "whatever the umask";
  }
}

TEST_F(Security, ASaveGivesNobodyMoreThanBefore) {
  ASSERT_EQ(::chmod(kDataStore, 0640), 0);
  ::umask(0);

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_OLD);

  EXPECT_EQ(mode(kDataStore), 0640u);
}

TEST_F(Security, NothingThatTheCommandMakesCanBeWrittenByOthers) {
  remove_all("/usr/kelo/etc/security-profile");
  remove_all(kSystemReloaders);
  ::umask(0);

  ASSERT_EQ(run({"init"}).status, 0);
  ASSERT_EQ(run({"join", "-"}, web_registration()).status, 0);
  ASSERT_EQ(run({"set", "web", "old", "--apply"}).status, 0);
  ASSERT_EQ(run({"backup", "/usr/kelo/backup"}).status, 0);
  write_file(kDataStore, "broken");
  ASSERT_EQ(run({"recover", "--from", "/usr/kelo/backup"}).status, 0);

  EXPECT_EQ(writable_by_others(), Lines());
  EXPECT_EQ(mode("/usr/kelo/backup"), 0600u);
  EXPECT_EQ(mode(kDataStore), 0644u);
  EXPECT_EQ(mode(kStamp), 0644u);
}

TEST_F(Security, ServicesCanReadWhatACarefulAdministratorMakes) {
  remove_all("/usr/kelo/etc/security-profile");
  ::umask(077);

  ASSERT_EQ(run({"init"}).status, 0);
  ASSERT_EQ(run({"join", "-"}, web_registration()).status, 0);
  ASSERT_EQ(run({"apply"}).status, 0);

  EXPECT_EQ(mode(kDataStore), 0644u);
  EXPECT_EQ(mode(kStamp), 0644u);
  EXPECT_EQ(mode(std::filesystem::path(kDataStore).parent_path()), 0755u);
}

TEST_F(Security, AFailedJoinPutsADescriptorBackWithItsMode) {
  join_web();
  ASSERT_EQ(::chmod(descriptor_path("web").c_str(), 0600), 0);
  make_directories(
      link_path("new"));  // a directory where the link should go: the second service fails
  std::string both = web_registration();
  both.insert(both.size() - 2,
              R"(, {"service": "new", "display-name": "", "reloader-path": "/x"})");

  EXPECT_EQ(run({"join", "-"}, both).status, 1);

  EXPECT_EQ(mode(descriptor_path("web")), 0600u);
}

// Links planted by a user who can write in a directory

TEST_F(Security, ASavePassesOverLinksPlantedAtItsTemporaries) {
  const std::string temporary = std::string(kDataStore) + "." + std::to_string(::getpid()) + "-";
  make_link(kVictim, temporary + "0");
  make_link(kNowhere, temporary + "1");
  make_link(temporary + "2", temporary + "2");

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_OLD);

  expect_victims_untouched();
  EXPECT_EQ(read_json(kDataStore)["default-level"], 3);
  EXPECT_FALSE(std::filesystem::is_symlink(kDataStore));
}

TEST_F(Security, ALinkAtTheDataStoreIsFollowed) {
  std::filesystem::rename(kDataStore, "/usr/kelo/moved.json");
  make_link("/usr/kelo/moved.json", kDataStore);

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_OLD);

  EXPECT_EQ(link_target(kDataStore), "/usr/kelo/moved.json");
  EXPECT_EQ(read_json("/usr/kelo/moved.json")["default-level"], 3);
}

TEST_F(Security, ALinkAtADescriptorIsFollowed) {
  for (const char* target : {kVictim, kNowhere}) {
    remove_all(descriptor_path("web"));
    make_link(target, descriptor_path("web"));

    join_by_the_library();

    EXPECT_EQ(link_target(descriptor_path("web")), target);
    EXPECT_EQ(read_json(target)["service"], "web");
  }
}

TEST_F(Security, ALinkToItselfAtADescriptorMakesJoiningFail) {
  make_link("web.conf", descriptor_path("web"));
  const Lines before = tree();

  EXPECT_EQ(APIProvider().join_framework(json(web_registration())), -1);

  EXPECT_EQ(tree(), before);
}

TEST_F(Security, LinksAtRenderedFilesAndReloaderLinksAreReplaced) {
  for (const char* target : {kVictim, kNowhere}) {
    remove_all(rendered_path("web"));
    make_link(target, rendered_path("web"));
    remove_all(link_path("web"));
    make_link(target, link_path("web"));

    join_by_the_library();
    EXPECT_EQ(APIProvider().render_service_template(), 0);

    expect_victims_untouched();
    EXPECT_EQ(read_file(rendered_path("web")), "level intermediate\n");
    EXPECT_FALSE(std::filesystem::is_symlink(rendered_path("web")));
    EXPECT_EQ(link_target(link_path("web")), kReloader);
  }
}

TEST_F(Security, TheCommandsOwnFilesReplaceLinksOrAreRefused) {
  join_web();
  for (const char* target : {kVictim, kNowhere}) {
    remove_all(kStamp);
    make_link(target, kStamp);
    EXPECT_EQ(run({"reload"}).status, 0);
    EXPECT_FALSE(std::filesystem::is_symlink(kStamp));

    remove_all("/tmp/backup");
    make_link(target, "/tmp/backup");
    EXPECT_EQ(run({"backup", "/tmp/backup"}).status, 1);

    remove_all(kDataStore);
    make_link(target, kDataStore);
    EXPECT_EQ(run({"init"}).status, 1);
    EXPECT_EQ(run({"recover"}).status, 0);  // what is there is no data store
    EXPECT_FALSE(std::filesystem::is_symlink(kDataStore));
    expect_victims_untouched();
  }
}

// Names

const std::vector<std::string>& names_of_intruders() {
  static const std::vector<std::string> names = {"../up",      "/usr/kelo/victim",
                                                 "sub/in",     ".",
                                                 "..",         "../../../victim",
                                                 "two\nlines", "kelotlsctl: error: \r\x1b[2J",
                                                 "bell\x07",   "\x7f"};
  return names;
}

TEST_F(Security, TheCommandKnowsNoServiceOfSuchAName) {
  const Lines before = tree();
  for (const std::string& name : names_of_intruders()) {
    const std::vector<Arguments> commands = {{"show", name},
                                             {"get", name},
                                             {"explain", name},
                                             {"probe", name},
                                             {"set", name, "old"},
                                             {"set", name, "old", "--apply"},
                                             {"set", name, "old", "--dry-run"}};
    for (const Arguments& command : commands) {
      const Outcome outcome = run(command);
      EXPECT_EQ(outcome.status, 10) << command[0] << ' ' << name;
      EXPECT_EQ(outcome.out, "");
      EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 2) << outcome.err;
      EXPECT_EQ(outcome.err.find_first_of("\r\x1b\x07\x7f"), std::string::npos) << outcome.err;
    }
  }
  EXPECT_EQ(tree(), before);
}

/// The command's own text may colour and lay out, but no part of a name may do so.
TEST_F(Security, NoNameReachesTheTerminalRaw) {
  const std::string name = "forged\n\x1b[2J\x07 error";
  Json::Value registration = json(web_registration());
  registration["services"][0]["service"] = name;
  registration["services"][0]["display-name"] = name;
  ASSERT_EQ(APIProvider().join_framework(registration), 0);
  write_file("/tmp/saved", read_file(kDataStore));

  const std::vector<Arguments> commands = {{"list"},
                                           {"show", name},
                                           {"get", name},
                                           {"explain", name},
                                           {"set", name, "old"},
                                           {"check"},
                                           {"render", "--check"},
                                           {"render"},
                                           {"reload"},
                                           {"regen"},
                                           {"apply"},
                                           {"set", name, "old", "--apply"},
                                           {"backup", "/tmp/" + name},
                                           {"restore", "/tmp/saved"}};
  for (const Arguments& command : commands) {
    const Outcome outcome = run(command);
    EXPECT_EQ((outcome.out + outcome.err).find_first_of("\x1b\x07"), std::string::npos)
        << command[0] << outcome.out << outcome.err;
  }
}

// Reloaders

/// Reports what it has inherited from the library's or the command's process.
constexpr char kCuriousReloader[] =
    "#!/bin/sh\n"
    "ls /proc/self/fd > /tmp/inherited\n"
    "grep SigBlk /proc/self/status >> /tmp/inherited\n"
    "kill -HUP $$\n"
    "echo SIGHUP was ignored >> /tmp/inherited\n"
    "kill -PIPE $$\n"
    "echo SIGPIPE was ignored >> /tmp/inherited\n";

class Inheritance : public Security {
 protected:
  void SetUp() override {
    Security::SetUp();
    write_program(kReloader, kCuriousReloader);
    join_web();
    inheritable_ = ::open("/usr/kelo", O_RDONLY);  // without O_CLOEXEC
    ASSERT_EQ(::dup2(inheritable_, 100), 100);
    sigset_t signals;
    ::sigfillset(&signals);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
    ASSERT_NE(::signal(SIGPIPE, SIG_IGN), SIG_ERR);
    ASSERT_NE(::signal(SIGHUP, SIG_IGN), SIG_ERR);
  }

  void TearDown() override {
    ::close(100);
    ::close(inheritable_);
    Security::TearDown();
  }

  static void expect_nothing_inherited() {
    // 3 is the listing's own.
    EXPECT_EQ(read_file("/tmp/inherited"), "0\n1\n2\n3\nSigBlk:\t0000000000000000\n");
    remove_all("/tmp/inherited");
  }

 private:
  int inheritable_ = -1;
};

TEST_F(Inheritance, IsNothingFromACallerOfTheLibrary) {
  EXPECT_EQ(APIProvider().execute_service_reloader(), 0);

  expect_nothing_inherited();
}

TEST_F(Inheritance, IsNothingFromTheCommandOrItsCaller) {
  for (const Arguments& command : {Arguments{"reload"}, Arguments{"apply"}}) {
    EXPECT_EQ(run(command).status, 5);  // SIGHUP has ended it
    expect_nothing_inherited();
  }
}

}  // namespace
}  // namespace kelotls::test
