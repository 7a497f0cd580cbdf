// kelotlsctl set, default.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <thread>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

constexpr char kMailRuns[] = "/tmp/mail-runs";

class KelotlsctlLevels : public Kelotlsctl {
 protected:
  /// A second service with files of its own.
  static void join_mail() {
    write_program("/tmp/reload-mail", std::string("#!/bin/sh\necho run >> ") + kMailRuns + "\n");
    ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "mail", "display-name": "",
                     "mustache-path": "/tmp/web.mustache", "reloader-path": "/tmp/reload-mail"}]})")
                  .status,
              0);
  }
};

TEST_F(KelotlsctlLevels, SetsALevelUnderEveryNameThatItHas) {
  join_both();
  const std::vector<std::pair<std::string, int>> names = {{"modern", 1},
                                                          {"INTERMEDIATE", 2},
                                                          {"Old", 3},
                                                          {"default", 0},
                                                          {"mozilla_modern", 1},
                                                          {"Mozilla_Intermediate", 2},
                                                          {"MOZILLA_OLD", 3},
                                                          {"0", 0},
                                                          {"1", 1},
                                                          {"2", 2},
                                                          {"3", 3}};
  for (const auto& [name, level] : names) {
    ASSERT_EQ(run({"set", "ssh", name}).status, 0) << name;
    EXPECT_EQ(stored_level("ssh"), level) << name;
  }
}

TEST_F(KelotlsctlLevels, RefusesWhatIsNoLevel) {
  join_both();
  const Lines before = tree();
  for (const char* level :
       {"4", "-1", "", "mod", "modern ", "mozilla_default", "mozilla_0", "00", "1.0", "mozilla"}) {
    const Outcome set = run({"set", "--", "ssh", level});
    EXPECT_EQ(set.status, 2) << level;
    EXPECT_TRUE(contains(set.err, "is not a level")) << level;
  }
  for (const Arguments& command :
       {Arguments{"default", "6"}, Arguments{"default", ""}, Arguments{"init", "--default", ""}}) {
    EXPECT_EQ(run(command).status, 2);
  }
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlLevels, SaysWhatBecameOfALevel) {
  join_both();
  const Outcome changed = run({"set", "web", "modern"});
  EXPECT_EQ(changed.out, "web: default became modern\n");
  EXPECT_EQ(changed.err, "Not in force yet: kelotlsctl apply\n");
  EXPECT_EQ(run({"set", "web", "modern"}).out, "web: already modern\n");
  EXPECT_EQ(run({"set", "web", "default"}).out, "web: modern became default → intermediate\n");
}

TEST_F(KelotlsctlLevels, ReportsAChangeByTheSchema) {
  join_both();
  const Json::Value document = run_json("set", {"web", "old"}).document;
  const Json::Value& web = document["services"][0];
  EXPECT_EQ(web["former-level"]["value"], 0);
  EXPECT_EQ(web["stored-level"]["value"], 3);
  EXPECT_EQ(web["written"], true);
  EXPECT_TRUE(document["apply"].isNull());
  EXPECT_EQ(run_json("set", {"web", "old"}).document["services"][0]["written"], false);
}

TEST_F(KelotlsctlLevels, SetsNothingForAServiceThatHasNotJoined) {
  join_both();
  const Lines before = tree();
  EXPECT_EQ(run({"set", "nix", "old"}).status, 10);
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(KelotlsctlLevels, ShowsAndSetsTheDefault) {
  EXPECT_EQ(run({"default"}).out, "intermediate\n");
  const Outcome changed = run({"default", "modern"});
  EXPECT_EQ(changed.status, 0);
  EXPECT_EQ(changed.out, "default level: intermediate became modern\n");
  EXPECT_EQ(read_json(kDataStore)["default-level"], 1);
  EXPECT_EQ(run({"default", "1"}).out, "default level: already modern\n");
  EXPECT_EQ(run_json("default").document["default-level"]["name"], "modern");
  EXPECT_EQ(run_json("default", {"old"}).document["former-level"]["name"], "modern");
}

TEST_F(KelotlsctlLevels, RefusesADefaultThatFollowsItself) {
  const Lines before = tree();
  for (const char* const level : {"default", "0"}) {
    const Outcome outcome = run({"default", level});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_TRUE(contains(outcome.err, "the default level cannot follow itself"));
  }
  EXPECT_EQ(tree(), before);
  write_file(kDataStore, data_store_text(0, {}));
  EXPECT_EQ(run({"default"}).out, "default → intermediate\n");
}

TEST_F(KelotlsctlLevels, FailsWhenTheDataStoreIsNotWritten) {
  join_both();
  make_data_store_irreplaceable();
  for (const Arguments& command : {Arguments{"set", "web", "old"}, Arguments{"default", "old"}}) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_TRUE(contains(outcome.err, "was not written"));
    EXPECT_TRUE(contains(outcome.err, "kelotlsctl: log: framework_config.cpp:55 Write json data"));
  }
  EXPECT_EQ(stored_level("web"), 0);
}

TEST_F(KelotlsctlLevels, ChangesNothingOnAFileSystemThatIsReadOnly) {
  join_both();
  make_data_store_read_only();
  const Outcome outcome = run({"set", "web", "old"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, std::string("kelotlsctl: error: ") + kLock +
                             ": Read-only file system\n  Nothing was changed.\n");
}

TEST_F(KelotlsctlLevels, AppliesALevel) {
  join_both();
  const Outcome outcome = run({"set", "web", "old", "--apply"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "SERVICE  LEVEL  RENDER    RELOAD    PROBE\n"
            "web      old    rendered  reloaded  library only\n"
            "web: default became old\n");
  EXPECT_EQ(read_file(rendered_path("web")), "level old\n");
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  EXPECT_EQ(run_json("get", {"web"}).document["stored-level"]["value"], 3);
}

TEST_F(KelotlsctlLevels, SetsSeveralServicesByNameAndPattern) {
  write_file(
      kDataStore,
      data_store_text(
          2, {{"mail-in", "0"}, {"mail-out", "0"}, {"web", "0"}, {"a*b", "0"}, {"axb", "0"}}));
  EXPECT_EQ(run({"set", "mail-*", "web", "old"}).out,
            "mail-in: default became old\nmail-out: default became old\nweb: default became old\n");
  EXPECT_EQ(stored_level("mail-in"), 3);
  EXPECT_EQ(stored_level("axb"), 0);
  EXPECT_EQ(run({"set", "a*b", "modern"}).out, "a*b: default became modern\n");
  EXPECT_EQ(stored_level("axb"), 0);
  EXPECT_EQ(run({"set", "ftp*", "old"}).status, 10);
  EXPECT_EQ(run({"set", "web", "missing", "modern"}).status, 10);
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_EQ(run({"set", "--all", "intermediate"}).status, 0);
  EXPECT_EQ(stored_level("axb"), 2);
}

TEST_F(KelotlsctlLevels, SaysWhatIsMissingOrSwapped) {
  join_both();
  const Lines before = tree();
  const std::vector<std::pair<Arguments, std::string>> commands = {
      {{"set", "old"}, "a service and a level are needed"},
      {{"set", "--all", "web", "old"}, "--all and services exclude each other"},
      {{"set", "web", "old", "more"}, "\"more\" is not a level"},
      {{"set", "old", "web"}, "The service comes first: kelotlsctl set web old"}};
  for (const auto& [command, reason] : commands) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_TRUE(contains(outcome.err, reason));
  }
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlLevels, BringsNothingIntoForceThatWasNotNamed) {
  join_both();
  join_mail();
  ASSERT_EQ(run({"apply"}).status, 0);
  ASSERT_EQ(run({"set", "mail", "old"}).status, 0);  // pending
  write_file(kReloaderRuns, "");
  write_file(kMailRuns, "");

  ASSERT_EQ(run({"set", "web", "modern", "--apply"}).status, 0);

  EXPECT_EQ(read_file(rendered_path("web")), "level modern\n");
  EXPECT_EQ(read_file(rendered_path("mail")), "level intermediate\n");
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  EXPECT_EQ(read_file(kMailRuns), "");
  EXPECT_TRUE(contains(run({"list"}).out, "mail     old                     pending render"));
}

TEST_F(KelotlsctlLevels, TakesBackTheServiceThatFailedAndNoOther) {
  join_both();
  join_mail();
  ASSERT_EQ(run({"apply"}).status, 0);
  write_file(kReloaderStatus, "1");  // web's

  const Outcome outcome = run({"set", "web", "mail", "old", "--apply"});

  EXPECT_EQ(outcome.status, 5);
  EXPECT_EQ(stored_level("web"), 0);
  EXPECT_EQ(stored_level("mail"), 3);
  EXPECT_EQ(read_file(rendered_path("web")), "level intermediate\n");
  EXPECT_EQ(read_file(rendered_path("mail")), "level old\n");
  EXPECT_TRUE(contains(outcome.out, "mail: default became old\n"));
  EXPECT_TRUE(contains(outcome.err, "web is back at default"));
  const Json::Value record = run_json("history").document["changes"];
  EXPECT_EQ(record[record.size() - 1]["services"][0]["service"], "web");
  EXPECT_EQ(record[record.size() - 1]["services"][0]["result"], "undone");
}

TEST_F(KelotlsctlLevels, TakesBackTheServiceThatIsNotRenderedAndNoOther) {
  join_both();
  join_mail();
  write_file("/tmp/other.mustache", "{{#mozilla_old}}{{>broken}}{{/mozilla_old}}");
  write_file("/tmp/broken.mustache", "{{");
  ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "other", "display-name": "",
                                   "mustache-path": "/tmp/other.mustache"}]})")
                .status,
            0);
  ASSERT_EQ(run({"apply"}).status, 0);

  const Outcome outcome = run({"set", "--all", "old", "--apply"});

  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.out,
                       "mail     old    rendered  reloaded  library only\n"
                       "other    old    FAILED    -         library only\n"));
  EXPECT_EQ(stored_level("other"), 0);
  EXPECT_EQ(read_file(rendered_path("other")), "");
  for (const char* const service : {"web", "mail", "ssh"}) {
    EXPECT_EQ(stored_level(service), 3) << service;
  }
  EXPECT_EQ(read_file(rendered_path("web")), "level old\n");
  EXPECT_TRUE(contains(outcome.err, "other is back at default, rendered and reloaded"));
}

TEST_F(KelotlsctlLevels, RunsNoFurtherReloaderOnceItIsInterrupted) {
  join_both();
  join_mail();
  write_program("/tmp/reload-mail", "#!/bin/sh\nkill -INT $PPID\n");  // runs before web's
  write_file(kReloaderRuns, "");
  const JsonOutcome outcome = run_json("apply");
  EXPECT_EQ(outcome.status, 130);
  EXPECT_EQ(read_file(kReloaderRuns), "");
  EXPECT_EQ(outcome.document["probed"][0]["result"], "in-force");  // mail's step ended
  EXPECT_EQ(outcome.document["probed"][2]["result"], "not-run");
  EXPECT_EQ(outcome.document["reloaders"][1]["not-run"], "interrupted by SIGINT");
  const Outcome text = run({"apply"});
  EXPECT_TRUE(contains(text.out, "unchanged  not run   library only"));
  EXPECT_TRUE(contains(text.err, "interrupted by SIGINT"));
  const Json::Value record = run_json("history").document["changes"];
  EXPECT_EQ(record[record.size() - 1]["result"], "interrupted");
  EXPECT_EQ(record[record.size() - 1]["code"], 130);
}

TEST_F(KelotlsctlLevels, GoesOnAtASignalThatItWasStartedToIgnore) {
  join_both();
  join_mail();
  write_program("/tmp/reload-mail", "#!/bin/sh\nkill -HUP $PPID\nkill -INT $PPID\n");
  write_file(kReloaderRuns, "");
  const Outcome outcome =
      run_program({"sh", "-c", "trap '' HUP INT && exec \"$0\" apply", KELOTLSCTL});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  const Json::Value record = run_json("history").document["changes"];
  EXPECT_EQ(record[record.size() - 1]["result"], "done");
}

TEST_F(KelotlsctlLevels, TakesBackWhatItDidNotGetToWhenItIsInterrupted) {
  join_both();
  join_mail();
  ASSERT_EQ(run({"apply"}).status, 0);
  for (const auto& [signal, status] : std::map<std::string, int>{{"TERM", 143}, {"HUP", 129}}) {
    write_program("/tmp/reload-mail", "#!/bin/sh\nkill -" + signal + " $PPID\n");
    const Outcome outcome = run({"set", "web", "mail", "old", "--apply"});
    EXPECT_EQ(outcome.status, status);
    EXPECT_EQ(stored_level("mail"), 3);
    EXPECT_EQ(stored_level("web"), 0);
    EXPECT_EQ(read_file(rendered_path("web")), "level intermediate\n");
    EXPECT_TRUE(contains(outcome.err, "web is back at default, rendered and reloaded"));
    EXPECT_TRUE(contains(run({"list"}).out, "web      default → intermediate  in force"));
  }
}

TEST_F(KelotlsctlLevels, EndsAReloaderThatTakesTooLong) {
  join_web();
  write_program(kReloader, "#!/bin/sh\nsleep 1000\n");
  const Outcome outcome = run({"reload", "--reload-timeout", "1"});
  EXPECT_EQ(outcome.status, 5);
  EXPECT_TRUE(contains(outcome.out, "was ended after 1 s"));
  for (const char* const wrong : {"0", "-1", "1s", "86401", "x"}) {
    EXPECT_EQ(run({"reload", "--reload-timeout", wrong}).status, 2) << wrong;
  }
}

TEST_F(KelotlsctlLevels, ReloadsAndRendersOnlyWhatIsNamed) {
  join_both();
  join_mail();
  write_program(std::string(kSystemReloaders) + "base", "#!/bin/sh\necho run >> /tmp/base-runs\n");
  write_file("/tmp/base-runs", "");
  write_file(kReloaderRuns, "");
  ASSERT_EQ(run({"reload", "mail"}).status, 0);
  EXPECT_EQ(read_file(kMailRuns), "run\n");
  EXPECT_EQ(read_file(kReloaderRuns) + read_file("/tmp/base-runs"), "");
  ASSERT_EQ(run({"reload", "ssh"}).status, 0);  // has none of its own
  EXPECT_EQ(read_file("/tmp/base-runs"), "run\n");
  EXPECT_EQ(read_file(kReloaderRuns), "");
  EXPECT_EQ(run({"render", "mail"}).out, "mail: " + rendered_path("mail") + " made\n");
  EXPECT_EQ(run({"apply", "nobody"}).status, 10);
}

TEST_F(KelotlsctlLevels, AppliesADefaultLevelToThoseThatFollowIt) {
  join_both();
  join_mail();
  ASSERT_EQ(run({"set", "mail", "intermediate", "--apply"}).status, 0);
  write_file(kMailRuns, "");
  const Outcome outcome = run({"default", "old", "--apply"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(read_file(rendered_path("web")), "level old\n");
  EXPECT_EQ(read_file(rendered_path("mail")), "level intermediate\n");
  EXPECT_EQ(read_file(kMailRuns), "");
  EXPECT_TRUE(contains(outcome.out, "default level: intermediate became old\n"));
  EXPECT_EQ(run_json("default", {"modern", "--apply"}).status, 0);
}

TEST_F(KelotlsctlLevels, TakesADefaultLevelBackFromTheServiceThatFailed) {
  join_both();  // web and ssh
  write_file(kReloaderStatus, "1");
  const Outcome outcome = run({"default", "old", "--apply"});
  EXPECT_EQ(outcome.status, 5);
  EXPECT_EQ(read_json(kDataStore)["default-level"], 3);
  EXPECT_EQ(stored_level("web"), 2);  // its former level, as its own
  EXPECT_EQ(stored_level("ssh"), 0);
  EXPECT_EQ(read_file(rendered_path("web")), "level intermediate\n");
  EXPECT_TRUE(contains(outcome.err, "web is back at intermediate"));
}

TEST_F(KelotlsctlLevels, ForeseesAnApplicationWithItsDifferences) {
  join_both();
  const Lines before = tree();
  const Outcome outcome = run({"set", "web", "old", "--apply", "--dry-run"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.out, "-level intermediate\n+level old\n"));
  EXPECT_TRUE(contains(outcome.out, link_path("web") + ": would be run\n"));
  EXPECT_TRUE(contains(outcome.out, "web: default would become old\n"));
  EXPECT_EQ(tree(), before);
  const Json::Value document = run_json("set", {"web", "old", "--apply", "--dry-run"}).document;
  EXPECT_EQ(document["apply"]["reloaders"][0]["path"], link_path("web"));
  EXPECT_EQ(document["services"][0]["written"], false);
  remove_all(kTemplate);
  EXPECT_EQ(run({"set", "web", "old", "--apply", "--dry-run"}).status, 1);
}

TEST_F(KelotlsctlLevels, SaysNothingOfForceWhereALevelChangesNothing) {
  join_both();
  EXPECT_EQ(run({"set", "web", "intermediate"}).err, "");
  EXPECT_EQ(run({"set", "web", "old"}).err, "Not in force yet: kelotlsctl apply\n");
  EXPECT_EQ(run({"set", "web", "intermediate", "--apply"}).err, "");
  EXPECT_EQ(run({"default", "modern"}).err, "");  // ssh alone follows it
}

TEST_F(KelotlsctlLevels, ReportsAnApplicationByTheSchema) {
  join_both();
  const JsonOutcome outcome = run_json("set", {"web", "modern", "--apply"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["services"][0]["undone"], false);
  EXPECT_EQ(outcome.document["apply"]["rendered"][0]["change"], "changed");
  EXPECT_EQ(outcome.document["apply"]["probed"][0]["agrees"], true);
}

TEST_F(KelotlsctlLevels, UndoesALevelWhoseReloaderFails) {
  join_both();
  write_file(kReloaderStatus, "7");

  const Outcome outcome = run({"set", "web", "old", "--apply"});

  EXPECT_EQ(outcome.status, 5);
  EXPECT_EQ(stored_level("web"), 0);
  EXPECT_EQ(read_file(rendered_path("web")), "level intermediate\n");
  EXPECT_EQ(read_file(kReloaderRuns), "run\nrun\n");
  EXPECT_TRUE(contains(outcome.out, "web      old    rendered  FAILED  library only"));
  EXPECT_TRUE(contains(outcome.err, link_path("web") + " ended with status 7"));
  EXPECT_TRUE(contains(outcome.err, "web is back at default"));
}

TEST_F(KelotlsctlLevels, UndoesALevelThatCannotBeRendered) {
  join_both();
  // Fine at the level that it has, broken at another.
  write_file(kTemplate, "{{#mozilla_old}}{{> broken}}{{/mozilla_old}}");
  write_file("/tmp/broken.mustache", "{{#open}}");
  ASSERT_EQ(run({"apply"}).status, 0);

  const JsonOutcome outcome = run_json("set", {"web", "old", "--apply"});

  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.document["services"][0]["undone"], true);
  EXPECT_EQ(outcome.document["services"][0]["written"], false);
  EXPECT_EQ(outcome.document["apply"]["rendered"][0]["change"], "failed");
  EXPECT_EQ(stored_level("web"), 0);
}

TEST_F(KelotlsctlLevels, UndoesALevelWhenApplyingBreaksOff) {
  join_both();
  remove_all(kStamp);
  make_directories(kStamp);  // what was reloaded cannot be noted
  const Outcome outcome = run({"set", "web", "old", "--apply"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "web is back at default"));
  EXPECT_TRUE(contains(outcome.err, std::string("kelotlsctl: error: ") + kStamp));
  EXPECT_EQ(stored_level("web"), 0);
  EXPECT_EQ(read_file(rendered_path("web")), "level intermediate\n");
}

TEST_F(KelotlsctlLevels, SaysHowALevelGetsToAServiceWithoutFiles) {
  join_both();
  EXPECT_EQ(run({"set", "ssh", "old"}).err, "In force from the service's next context on.\n");
}

TEST_F(KelotlsctlLevels, TwoAdministratorsNeverLoseEachOthersChange) {
  std::vector<std::pair<std::string, std::string>> services;
  for (int number = 0; number < 40; ++number) {
    services.emplace_back("s" + std::to_string(number), "0");
  }
  write_file(kDataStore, data_store_text(2, services));
  const auto set_half = [](const char* first) {
    return run_program({"bash", "-c",
                        "for ((i = $1; i < 40; i += 2)); do \"$0\" --quiet set s$i old || exit 1; "
                        "done",
                        KELOTLSCTL, first});
  };

  Outcome even;
  Outcome odd;
  std::thread other([&] { even = set_half("0"); });
  odd = set_half("1");
  other.join();

  EXPECT_EQ(even.status, 0) << even.err;
  EXPECT_EQ(odd.status, 0) << odd.err;
  for (const auto& service : services) {
    EXPECT_EQ(stored_level(service.first), 3) << service.first;
  }
}

TEST_F(KelotlsctlLevels, WaitsForTheHolderOfTheLockAndNamesIt) {
  constexpr char kWaiting[] =
      "waiting for kelotlsctl apply (process 4711, since 12:00:05) to finish\n";
  join_both();
  const int lock = ::open(kLock, O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  write_file(kLock, R"({"command": "apply", "process": "4711", "since": "12:00:05"})");

  write_file("/tmp/said", "");
  Outcome outcome;
  std::thread waiting([&] {
    outcome = run_program({"sh", "-c", "exec " KELOTLSCTL " set web old 2>> /tmp/said"});
  });
  while (read_file("/tmp/said") != kWaiting) {
    ::usleep(1000);
  }
  EXPECT_EQ(stored_level("web"), 0);
  // Readers do not wait.
  EXPECT_EQ(run_program({"timeout", "20", KELOTLSCTL, "get", "web"}).status, 0);
  EXPECT_EQ(run_program({"timeout", "20", KELOTLSCTL, "set", "web", "old", "--dry-run"}).status, 0);
  ::close(lock);
  waiting.join();

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_EQ(read_file(kLock), "");
}

TEST_F(KelotlsctlLevels, NamesItselfAsTheHolderOfTheLockThatRootAloneCanOpen) {
  join_web();
  remove_all(kLock);
  write_program(kReloader, std::string("#!/bin/sh\nstat -c '%a %u' ") + kLock +
                               " > /tmp/lock\ncat " + kLock + " >> /tmp/lock\n");
  ASSERT_EQ(run({"reload"}).status, 0);
  const std::string seen = read_file("/tmp/lock");
  EXPECT_EQ(seen.substr(0, seen.find('\n')), "600 0");
  EXPECT_TRUE(contains(seen, R"("command": "reload")"));
  EXPECT_TRUE(contains(seen, R"("process": ")"));
}

TEST_F(KelotlsctlLevels, DoesNotFollowALinkInPlaceOfTheLock) {
  join_web();
  remove_all(kLock);
  write_file("/tmp/other", "text");
  std::filesystem::create_symlink("/tmp/other", kLock);
  EXPECT_EQ(run({"set", "web", "old"}).status, 1);
  EXPECT_EQ(read_file("/tmp/other"), "text");
  EXPECT_EQ(stored_level("web"), 0);
}

}  // namespace
}  // namespace kelotls::test
