// kelotlsctl set, default.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <thread>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

class KelotlsctlLevels : public Kelotlsctl {};

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
  EXPECT_EQ(document["former-level"]["value"], 0);
  EXPECT_EQ(document["stored-level"]["value"], 3);
  EXPECT_EQ(document["written"], true);
  EXPECT_TRUE(document["apply"].isNull());
  EXPECT_EQ(run_json("set", {"web", "old"}).document["written"], false);
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

TEST_F(KelotlsctlLevels, WarnsOfADefaultThatFollowsItself) {
  const Outcome outcome = run({"default", "default"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err, "0 counts as intermediate"));
  EXPECT_EQ(run({"default"}).out, "default → intermediate\n");
}

TEST_F(KelotlsctlLevels, FailsWhenTheDataStoreIsNotWritten) {
  join_both();
  make_data_store_read_only();
  for (const Arguments& command : {Arguments{"set", "web", "old"}, Arguments{"default", "old"}}) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_TRUE(contains(outcome.err, "was not written"));
    EXPECT_TRUE(contains(outcome.err, "kelotlsctl: log: framework_config.cpp:55 Write json data"));
  }
  EXPECT_EQ(stored_level("web"), 0);
}

TEST_F(KelotlsctlLevels, AppliesALevel) {
  join_both();
  const Outcome outcome = run({"set", "web", "old", "--apply"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "SERVICE  LEVEL  RENDER    RELOAD    PROBE\n"
            "web      old    rendered  reloaded  agrees\n"
            "web: default became old\n");
  EXPECT_EQ(read_file(rendered_path("web")), "level old\n");
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  EXPECT_EQ(run_json("get", {"web"}).document["stored-level"]["value"], 3);
}

TEST_F(KelotlsctlLevels, ReportsAnApplicationByTheSchema) {
  join_both();
  const JsonOutcome outcome = run_json("set", {"web", "modern", "--apply"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["undone"], false);
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
  EXPECT_TRUE(contains(outcome.out, "web      old    rendered  FAILED  agrees"));
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
  EXPECT_EQ(outcome.document["undone"], true);
  EXPECT_EQ(outcome.document["written"], false);
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

TEST_F(KelotlsctlLevels, WaitsForTheHolderOfTheLock) {
  join_both();
  const std::string directory =
      std::string(kDataStore).substr(0, std::string(kDataStore).rfind('/'));
  const int lock = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);

  write_file("/tmp/said", "");
  Outcome outcome;
  std::thread waiting([&] {
    outcome = run_program({"sh", "-c", "exec " KELOTLSCTL " set web old 2>> /tmp/said"});
  });
  while (read_file("/tmp/said") != "waiting for another kelotlsctl to finish\n") {
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
}

}  // namespace
}  // namespace kelotls::test
