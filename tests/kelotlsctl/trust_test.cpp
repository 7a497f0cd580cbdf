// What kelotlsctl refuses to trust: every path that a command is about to write to, render, link or
// run is walked before it does anything; check names each place.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

constexpr char kForOthers[] = "others than its owner may change it";
constexpr char kFramework[] = "/usr/kelo/etc/security-profile";

class KelotlsctlTrust : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    make_directories("/usr/kelo/web/bin");
    write_file("/usr/kelo/web/tls.mustache", "{{> part}}{{#mozilla_old}}old{{/mozilla_old}}\n");
    write_file("/usr/kelo/web/part.mustache", "{{>deeper }}\n");
    write_file("/usr/kelo/web/deeper.mustache", "a part\n");
    write_file("/usr/kelo/web/unused.mustache", "");
    write_program("/usr/kelo/web/bin/reload",
                  std::string("#!/bin/sh\necho run >> ") + kReloaderRuns);
    make_link("bin/reload", "/usr/kelo/web/reload");
    ASSERT_EQ(run({"join", "-"}, kRegistration).status, 0);
    ASSERT_EQ(run({"apply"}).status, 0);
    ASSERT_EQ(run({"set", "web", "old"}).status, 0);
    write_file("/tmp/web.json", kRegistration);
    write_file("/tmp/levels.json", data_store_text(1, {{"web", "1"}}));
    write_file(kReloaderRuns, "");
    log();
  }

  static constexpr char kRegistration[] =
      R"({"services": [{"service": "web", "display-name": "Web server",
          "mustache-path": "/usr/kelo/web/tls.mustache",
          "reloader-path": "/usr/kelo/web/reload"}]})";
};

const std::vector<Arguments>& changes() {
  static const std::vector<Arguments> commands = {{"set", "web", "modern"},
                                                  {"set", "web", "modern", "--apply"},
                                                  {"default", "old"},
                                                  {"join", "/tmp/web.json"},
                                                  {"leave", "/tmp/web.json"},
                                                  {"regen"},
                                                  {"render"},
                                                  {"render", "--check"},
                                                  {"reload"},
                                                  {"apply"},
                                                  {"backup", "/tmp/backup.json"},
                                                  {"restore", "/tmp/levels.json"},
                                                  {"init"},
                                                  {"recover"},
                                                  {"dh", "--force"},
                                                  {"address", "web", "localhost:443"}};
  return commands;
}

std::string told(const Arguments& command) {
  std::string text;
  for (const std::string& word : command) {
    text += word + ' ';
  }
  return text;
}

/// Every change is refused for the component, and nothing is done; the same with --dry-run.
void expect_all_refuse(const std::string& component, const std::string& reason) {
  const Lines before = tree();
  for (Arguments command : changes()) {
    for (const bool is_dry : {false, true}) {
      command.insert(command.end(), is_dry ? 1 : 0, "--dry-run");
      const Outcome outcome = run(command);
      EXPECT_EQ(outcome.status, 1) << told(command);
      EXPECT_EQ(outcome.out, "") << told(command);
      EXPECT_TRUE(contains(outcome.err, "kelotlsctl: error: " + component + ": " + reason + "\n"))
          << told(command);
    }
  }
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(read_file(kReloaderRuns), "");
  EXPECT_FALSE(exists("/tmp/backup.json"));
}

/// The commands that refuse, by their first word, and "set --apply" as "--apply".
Lines that_refuse() {
  Lines refusing;
  for (Arguments command : changes()) {
    command.emplace_back("--dry-run");
    if (contains(run(command).err, kForOthers)) {
      const bool applies = std::count(command.begin(), command.end(), "--apply") != 0;
      refusing.push_back(applies ? "--apply" : command[0]);
    }
  }
  refusing.erase(std::unique(refusing.begin(), refusing.end()), refusing.end());
  return refusing;
}

TEST_F(KelotlsctlTrust, RefusesADirectoryAboveEverythingThatOthersMayChange) {
  ASSERT_EQ(::chmod("/usr/kelo", 0775), 0);
  expect_all_refuse("/usr/kelo", kForOthers);
}

TEST_F(KelotlsctlTrust, RefusesADirectoryAboveEverythingThatBelongsToAnotherUser) {
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  ASSERT_EQ(::chown("/usr/kelo", 1, 0), 0);
  expect_all_refuse("/usr/kelo", "belongs to the user 1, not to root");
}

TEST_F(KelotlsctlTrust, SaysWhatToDo) {
  ASSERT_EQ(::chmod("/usr/kelo", 0777), 0);
  ASSERT_EQ(::chmod(kServices, 0777), 0);
  EXPECT_EQ(
      run({"set", "web", "modern"}).err,
      "kelotlsctl: error: /usr/kelo: others than its owner may change it\n"
      "  /usr/kelo/etc/security-profile/tls-profile/services: others than its owner may change "
      "it\n"
      "  Nothing was done. chmod go-w /usr/kelo; kelotlsctl check names each such place. "
      "--trust-anyway goes on in spite of it.\n");
}

TEST_F(KelotlsctlTrust, GoesOnWhereItIsToldToAndLogsThat) {
  ASSERT_EQ(::chmod(kFramework, 0777), 0);
  const Outcome outcome = run({"--trust-anyway", "set", "web", "modern", "--apply"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(stored_level("web"), 1);
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  const std::string text = std::string("trusted anyway: ") + kFramework + ": " + kForOthers;
  EXPECT_EQ(outcome.err, "kelotlsctl: warning: " + text + "\n");
  EXPECT_EQ(log(), (Lines{"<84>kelotlsctl set: " + text,
                          "<85>kelotlsctl set: web old -> modern; by root; done"}));
}

TEST_F(KelotlsctlTrust, LogsNothingWhereThereIsNothingToDistrust) {
  EXPECT_EQ(run({"set", "web", "modern", "--trust-anyway"}).status, 0);
  EXPECT_EQ(log(), Lines{"<85>kelotlsctl set: web old -> modern; by root; done"});
}

TEST_F(KelotlsctlTrust, ReadsWhateverIsThere) {
  ASSERT_EQ(::chmod("/usr/kelo", 0777), 0);
  for (const Arguments& command :
       {Arguments{"list"}, Arguments{"show", "web"}, Arguments{"get", "web"}, Arguments{"levels"},
        Arguments{"explain", "web"}, Arguments{"probe", "web"}, Arguments{"default"},
        Arguments{"history"}, Arguments{"status"}}) {
    EXPECT_EQ(run(command).status, 0) << told(command);
  }
}

// What is trusted by whom

const Lines kAll = {"set",    "--apply", "default", "join",    "leave", "regen",   "render",
                    "reload", "apply",   "backup",  "restore", "init",  "recover", "address"};
const Lines kRendering = {"--apply", "render", "apply"};
const Lines kReloading = {"--apply", "reload", "apply"};

TEST_F(KelotlsctlTrust, OfTheFrameworksDirectoriesAndStoreIsEveryChanges) {
  for (const std::string path : {kServices, kConfig, kSystemReloaders, kPackageReloaders,
                                 kDataStore, "/usr/libexec/security-profile"}) {
    const mode_t before = mode(path);
    ASSERT_EQ(::chmod(path.c_str(), before | 0020), 0);
    EXPECT_EQ(that_refuse(), kAll) << path;
    ASSERT_EQ(::chmod(path.c_str(), before), 0);
  }
}

TEST_F(KelotlsctlTrust, OfADescriptorIsThatOfWhoReadsIt) {
  ASSERT_EQ(::chmod(descriptor_path("web").c_str(), 0666), 0);
  EXPECT_EQ(that_refuse(), (Lines{"--apply", "join", "regen", "render", "apply", "recover"}));
}

TEST_F(KelotlsctlTrust, OfATemplateAndItsPartialsIsThatOfWhoRenders) {
  for (const char* name : {"tls", "part", "deeper"}) {
    const std::string path = std::string("/usr/kelo/web/") + name + ".mustache";
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    Lines expected = kRendering;
    expected.insert(expected.begin() + 1, "join");
    EXPECT_EQ(that_refuse(), expected) << path;
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  }
  ASSERT_EQ(::chmod("/usr/kelo/web/unused.mustache", 0666), 0);
  EXPECT_EQ(that_refuse(), Lines());
}

TEST_F(KelotlsctlTrust, OfAReloaderAndWhereItsLinksLeadIsThatOfWhoRunsIt) {
  for (const char* path : {"/usr/kelo/web/bin", "/usr/kelo/web/bin/reload"}) {
    ASSERT_EQ(::chmod(path, 0777), 0);
    Lines expected = kReloading;
    expected.insert(expected.begin() + 1, "join");
    EXPECT_EQ(that_refuse(), expected) << path;
    ASSERT_EQ(::chmod(path, 0755), 0);
  }
}

TEST_F(KelotlsctlTrust, OfTheDhFilesIsThatOfWhoUsesThem) {
  for (const std::string& path : {std::string(kSslDir), kSslDir + std::string("dh1024.pem")}) {
    const mode_t before = mode(path);
    ASSERT_EQ(::chmod(path.c_str(), before | 0002), 0);
    EXPECT_EQ(that_refuse(), (Lines{"--apply", "apply", "dh"})) << path;
    ASSERT_EQ(::chmod(path.c_str(), before), 0);
  }
}

/// A second service, whose template, descriptor and reloader others may change.
void join_distrusted() {
  write_file("/usr/kelo/web/other.mustache", "other\n");
  write_program("/usr/kelo/web/bin/other", "#!/bin/sh\necho other >> /tmp/others");
  ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "other", "display-name": "",
                "mustache-path": "/usr/kelo/web/other.mustache",
                "reloader-path": "/usr/kelo/web/bin/other"}]})")
                .status,
            0);
  ASSERT_EQ(run({"apply", "other"}).status, 0);
  for (const std::string& path :
       {std::string("/usr/kelo/web/other.mustache"), std::string("/usr/kelo/web/bin/other"),
        descriptor_path("other")}) {
    ASSERT_EQ(::chmod(path.c_str(), 0777), 0);
  }
  write_file("/tmp/others", "");
}

TEST_F(KelotlsctlTrust, OfAServiceIsThatOfWhoNamesIt) {
  join_distrusted();
  for (const Arguments& command :
       {Arguments{"set", "web", "modern", "--apply"}, Arguments{"render", "web"},
        Arguments{"render", "w*", "--check"}, Arguments{"reload", "web"}, Arguments{"apply", "w*"},
        Arguments{"check", "web"}}) {
    EXPECT_EQ(run(command).status, 0) << told(command) << run(command).err;
    Arguments of_other = command;
    of_other[1] = "other";
    EXPECT_TRUE(contains(run(of_other).out + run(of_other).err, kForOthers)) << told(of_other);
    of_other[1] = "*";
    EXPECT_TRUE(contains(run(of_other).out + run(of_other).err, kForOthers)) << told(of_other);
  }
  EXPECT_EQ(read_file("/tmp/others"), "");
}

TEST_F(KelotlsctlTrust, OfADefaultLevelIsThatOfThoseThatFollowIt) {
  join_distrusted();
  ASSERT_EQ(run({"set", "web", "default"}).status, 0);
  const Outcome refused = run({"default", "old", "--apply"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(contains(refused.err, "/usr/kelo/web/other.mustache: " + std::string(kForOthers)));
  EXPECT_EQ(read_json(kDataStore)["default-level"], 2);
  ASSERT_EQ(run({"set", "other", "intermediate"}).status, 0);
  EXPECT_EQ(run({"default", "old", "--apply"}).status, 0);
}

TEST_F(KelotlsctlTrust, OfTheBaseSystemsReloadersIsThatOfServicesWithoutOne) {
  const std::string base = std::string(kSystemReloaders) + "base";
  write_program(base, "#!/bin/sh\n");
  ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "ssh", "display-name": ""}]})").status,
            0);
  ASSERT_EQ(::chmod(base.c_str(), 0777), 0);
  EXPECT_EQ(run({"reload", "web"}).status, 0);
  const Outcome refused = run({"reload", "ssh"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(contains(refused.err, base + ": " + kForOthers));
}

TEST_F(KelotlsctlTrust, IsSaidOnceToBeGivenAnyway) {
  ASSERT_EQ(::chmod("/usr/kelo", 0777), 0);
  for (const Arguments& command : {Arguments{"apply"}, Arguments{"join", "/tmp/web.json"}}) {
    Arguments anyway = command;
    anyway.emplace_back("--trust-anyway");
    log();
    const Outcome outcome = run(anyway);
    EXPECT_EQ(outcome.status, 0) << told(anyway);
    const std::string text = std::string("trusted anyway: /usr/kelo: ") + kForOthers;
    EXPECT_EQ(outcome.err.find(text), outcome.err.rfind(text)) << outcome.err;
    const Lines lines = log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "<84>kelotlsctl " + command[0] + ": " + text),
              1);
  }
}

TEST_F(KelotlsctlTrust, OfATemplateAndItsPartialsIsThatOfAPreview) {
  for (const char* const subject : {"/usr/kelo/web/tls.mustache", "web", "/tmp/web.json"}) {
    for (const char* const name : {"tls", "deeper"}) {
      const std::string path = std::string("/usr/kelo/web/") + name + ".mustache";
      ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
      const Outcome refused = run({"render", "--preview", subject, "--level", "old"});
      EXPECT_EQ(refused.status, 1) << subject;
      EXPECT_EQ(refused.out, "") << subject;
      EXPECT_TRUE(contains(refused.err, path + ": " + kForOthers)) << subject;
      EXPECT_EQ(run({"render", "--preview", subject, "--trust-anyway"}).status, 0) << subject;
      ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    }
    EXPECT_EQ(run({"render", "--preview", subject}).status, 0) << subject;
  }
}

TEST_F(KelotlsctlTrust, IsNotAskedOfWhoPreviewsTemplatesOfHisOwn) {
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  ASSERT_EQ(::chown("/usr/kelo/web/tls.mustache", 1, 0), 0);
  EXPECT_EQ(run({"render", "--preview", "/usr/kelo/web/tls.mustache"}).status, 1);
  const Outcome own =
      run_program({"setpriv", "--reuid=1", "--regid=1", "--clear-groups", KELOTLSCTL, "render",
                   "--preview", "/usr/kelo/web/tls.mustache", "--level", "old"});
  EXPECT_EQ(own.status, 0) << own.err;
  EXPECT_EQ(own.out, "a part\nold\n");
}

TEST_F(KelotlsctlTrust, IsMissingInARegistrationThatCannotJoin) {
  ASSERT_EQ(::chmod("/usr/kelo/web/deeper.mustache", 0666), 0);
  ASSERT_EQ(::chmod("/usr/kelo/web/bin", 0777), 0);
  const Outcome outcome = run({"validate", "/tmp/web.json"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out,
            std::string("$.services[0].mustache-path: /usr/kelo/web/deeper.mustache: ") +
                kForOthers + "\n$.services[0].reloader-path: /usr/kelo/web/bin: " + kForOthers +
                "\n");
  EXPECT_EQ(run({"join", "/tmp/web.json"}).status, 1);
  EXPECT_EQ(run({"validate", "/tmp/web.json", "--trust-anyway"}).status, 0);
}

TEST_F(KelotlsctlTrust, OfARegistrationsFilesIsThatOfWhoeverJoins) {
  write_program("/usr/kelo/other", "#!/bin/sh\n");
  ASSERT_EQ(::chmod("/usr/kelo/other", 0775), 0);
  for (const char* key : {"mustache-path", "reloader-path"}) {
    const Lines before = tree();
    const Outcome outcome =
        run({"join", "-"}, std::string(R"({"services": [{"service": "new", )") +
                               R"("display-name": "", ")" + key + R"(": "/usr/kelo/other"}]})");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.err, std::string("/usr/kelo/other: ") + kForOthers));
    EXPECT_EQ(tree(), before);
  }
}

// check

struct Place {
  std::string name;
  std::string path;
  std::string named;  ///< where it differs
};

void PrintTo(const Place& value, std::ostream* out) { *out << value.name; }

class KelotlsctlTrustOf : public KelotlsctlTrust, public ::testing::WithParamInterface<Place> {};

TEST_P(KelotlsctlTrustOf, IsWhatCheckTellsOfOnce) {
  const std::string path = GetParam().path;
  const mode_t before = mode(path);
  for (const bool is_given_away : {false, true}) {
    if (is_given_away && !has_many_users()) {
      continue;
    }
    ASSERT_EQ(is_given_away ? ::chown(path.c_str(), 1, 0) : ::chmod(path.c_str(), before | 0022),
              0);

    const JsonOutcome outcome = run_json("check");

    EXPECT_EQ(outcome.status, 3);
    int count = 0;
    for (const Json::Value& finding : outcome.document["findings"]) {
      const bool is_named = finding["path"] == path || finding["path"] == GetParam().named;
      count += is_named && finding["severity"] == "error" ? 1 : 0;
      EXPECT_NE(finding["action"], "");
    }
    EXPECT_EQ(count, 1) << outcome.document.toStyledString();
    ASSERT_EQ(::chmod(path.c_str(), before), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kelotlsctl, KelotlsctlTrustOf,
    ::testing::Values(Place{"ADirectoryAbove", "/usr/kelo", ""},
                      Place{"TheFrameworksDirectory", "/usr/kelo/etc/security-profile/tls-profile",
                            "/usr/kelo/etc/security-profile/tls-profile/"},
                      Place{"TheServicesDirectory", kServices, ""},
                      Place{"TheStore", kDataStore, ""},
                      Place{"ADescriptor", std::string(kServices) + "web.conf", ""},
                      Place{"ATemplate", "/usr/kelo/web/tls.mustache", ""},
                      Place{"APartial", "/usr/kelo/web/deeper.mustache", ""},
                      Place{"APartialsDirectory", "/usr/kelo/web", ""},
                      Place{"AReloader", "/usr/kelo/web/bin/reload",
                            std::string(kPackageReloaders) + "web.conf"},
                      Place{"AReloadersDirectory", "/usr/kelo/web/bin", ""},
                      Place{"TheDirectoryOfReloaders", "/usr/local/libexec/security-profile", ""},
                      Place{"TheDhDirectory", "/usr/kelo/etc/ssl", kSslDir},
                      Place{"ADhFile", std::string(kSslDir) + "dh2048.pem", ""}),
    [](const auto& suite) { return suite.param.name; });

}  // namespace
}  // namespace kelotls::test
