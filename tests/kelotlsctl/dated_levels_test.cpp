// Levels that end at a date: --until, --then, and their return.

#include <ctime>

#include "background.h"
#include "kelotlsctl.h"
#include "process.h"

namespace kelotls::test {
namespace {

constexpr char kDated[] = "/usr/kelo/etc/security-profile/tls-profile/dated.json";

std::string in_seconds(int seconds) {
  const std::time_t time = std::time(nullptr) + seconds;
  char text[32];
  std::tm utc = {};
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", ::gmtime_r(&time, &utc));
  return text;
}

class KelotlsctlDated : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    join_both();
    ASSERT_EQ(run({"set", "web", "modern", "--apply"}).status, 0);
    write_file(kReloaderRuns, "");
  }

  /// Whoever looks at dates has nothing more to look at.
  void TearDown() override { remove_all(kDated); }

  static Outcome set_until(const std::string& date, const Arguments& more = {}) {
    Arguments words = {"set", "web", "old", "--until", date, "--reason", "a printer"};
    words.insert(words.end(), more.begin(), more.end());
    return run(words);
  }

  /// As if the date had come by the wall's clock, and nobody had looked yet.
  static void let_date_come(const Arguments& services = {"web"}) {
    Json::Value dated = read_json(kDated);
    remove_all(kDated);
    // All of them: one that was started later, or waits for its turn, would see what is written
    // next.
    EXPECT_TRUE(eventually([] { return processes_of(KELOTLSCTL).empty(); }));
    for (const std::string& service : services) {
      dated["services"][service]["until"] = "2020-01-01T00:00:00Z";
    }
    write_file(kDated, dated.toStyledString());
  }

  static Json::Value last_record() {
    const Json::Value changes = run_json("history").document["changes"];
    return changes[changes.size() - 1];
  }
};

TEST_F(KelotlsctlDated, IsShown) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z", {"--apply"}).status, 0);
  EXPECT_TRUE(contains(run({"list"}).out, "old until 2037-01-01T00:00:00Z"));
  EXPECT_TRUE(contains(run({"show", "web"}).out, "old until 2037-01-01T00:00:00Z"));
  EXPECT_TRUE(contains(run({"status"}).out, "web until 2037-01-01T00:00:00Z, then modern"));
  const Json::Value dated = run_json("list").document["services"][1]["dated"];
  EXPECT_EQ(dated["then"]["name"], "modern");
  EXPECT_EQ(dated["reason"], "a printer");
  EXPECT_EQ(run_json("show", {"web"}).document["dated"], dated);
  EXPECT_EQ(run_json("status").document["dated"][0]["service"], "web");
  EXPECT_EQ(last_record()["changes"][0]["until"], "2037-01-01T00:00:00Z");
  EXPECT_EQ(last_record()["changes"][0]["then"], "modern");
  EXPECT_EQ(mode(kDated), 0600u);
}

TEST_F(KelotlsctlDated, ReturnsToTheFormerLevelAndAppliesIt) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z", {"--apply"}).status, 0);
  EXPECT_EQ(run({"settle"}).err, "Nothing is due.\n");
  EXPECT_EQ(stored_level("web"), 3);
  let_date_come();
  write_file(kReloaderRuns, "");
  const Outcome settle = run({"settle"});
  EXPECT_EQ(settle.status, 0) << settle.err;
  EXPECT_EQ(settle.out, "web: returned to modern\n");
  EXPECT_EQ(stored_level("web"), 1);
  EXPECT_TRUE(contains(read_file(rendered_path("web")), "modern"));
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  EXPECT_EQ(last_record()["command"], "settle");
  EXPECT_EQ(last_record()["result"], "done");
  EXPECT_EQ(last_record()["reason"], "until 2020-01-01T00:00:00Z: a printer");
  EXPECT_TRUE(run_json("list").document["services"][1]["dated"].isNull());
}

TEST_F(KelotlsctlDated, ReturnsByItself) {
  const Outcome set = set_until(in_seconds(5), {"--apply"});
  ASSERT_EQ(set.status, 0) << set.err;
  EXPECT_TRUE(contains(set.out, "web: modern became old\n"));
  // Whoever looks at dates does so once a minute; a change in the directory makes it look at once.
  EXPECT_TRUE(eventually([] {
    write_file("/usr/kelo/etc/security-profile/tls-profile/wake", "");
    return stored_level("web") == 1 && contains(read_file(rendered_path("web")), "modern");
  }));
  EXPECT_TRUE(eventually([] { return last_record()["result"] == "done"; }));
}

TEST_F(KelotlsctlDated, ReturnsToTheLevelThatIsNamed) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z", {"--then", "default"}).status, 0);
  let_date_come();
  ASSERT_EQ(run({"settle"}).status, 0);
  EXPECT_EQ(stored_level("web"), 0);
}

TEST_F(KelotlsctlDated, ReturnsBeforeAnythingElseIsChanged) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z").status, 0);
  let_date_come();
  ASSERT_EQ(run({"set", "ssh", "old"}).status, 0);
  EXPECT_EQ(stored_level("web"), 1);
}

TEST_F(KelotlsctlDated, EndsWithAnotherLevel) {
  for (const Arguments& words :
       {Arguments{"set", "web", "intermediate"}, Arguments{"set", "web", "default"},
        Arguments{"set", "--all", "old"}}) {
    ASSERT_EQ(set_until("2037-01-01T00:00Z", {"--then", "intermediate"}).status, 0);
    ASSERT_EQ(run(words).status, 0);
    EXPECT_TRUE(run_json("list").document["services"][1]["dated"].isNull()) << words[2];
    EXPECT_EQ(last_record()["changes"].size(), words[1] == "--all" ? 2u : 1u);
  }
}

TEST_F(KelotlsctlDated, IsKeptWhereTheNewLevelWasUndone) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z", {"--apply"}).status, 0);
  write_file(kReloaderStatus, "9");
  EXPECT_EQ(run({"set", "web", "modern", "--apply"}).status, 5);
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_FALSE(run_json("list").document["services"][1]["dated"].isNull());
}

TEST_F(KelotlsctlDated, IsNotBegunWhereTheLevelWasUndone) {
  write_file(kReloaderStatus, "9");
  EXPECT_EQ(set_until("2037-01-01T00:00Z", {"--apply"}).status, 5);
  EXPECT_EQ(stored_level("web"), 1);
  EXPECT_TRUE(run_json("list").document["services"][1]["dated"].isNull());
}

TEST_F(KelotlsctlDated, KeepsWhereToReturnWhenItIsProlonged) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z").status, 0);
  ASSERT_EQ(set_until("2037-06-01T00:00Z").status, 0);
  EXPECT_EQ(run_json("list").document["services"][1]["dated"]["then"]["name"], "modern");
}

TEST_F(KelotlsctlDated, IsTriedAgainWhereTheReturnFails) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z", {"--apply"}).status, 0);
  let_date_come();
  write_file(kReloaderStatus, "9");
  const JsonOutcome settle = run_json("settle");
  EXPECT_EQ(settle.status, 5);
  EXPECT_TRUE(settle.document["returned"][0].isMember("fault"));
  EXPECT_EQ(stored_level("web"), 1) << "a reloader that fails keeps nobody at the weaker level";
  EXPECT_TRUE(contains(read_file(rendered_path("web")), "modern"));
  EXPECT_EQ(last_record()["result"], "failed");
  EXPECT_TRUE(contains(run({"status"}).out, "the return fails: "));
  const Outcome check = run({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_TRUE(
      contains(check.out, "web was to return to modern at 2020-01-01T00:00:00Z, which fails: "));
  const std::string metrics = run({"metrics"}).out;
  EXPECT_TRUE(contains(metrics, "kelotls_findings{kind=\"change\",severity=\"error\"} 1\n"));
  EXPECT_TRUE(
      contains(metrics, "kelotls_last_change_result{command=\"settle\",result=\"failed\"} 1\n"))
      << metrics;

  const Outcome other = run({"set", "ssh", "old"});
  EXPECT_EQ(other.status, 0);
  EXPECT_EQ(other.err.find("web"), std::string::npos) << "it is not tried again: " << other.err;
  write_file(kReloaderStatus, "0");
  const Json::ArrayIndex records = run_json("history").document["changes"].size();
  EXPECT_EQ(run({"settle"}).status, 0);
  EXPECT_EQ(run_json("history").document["changes"].size(), records) << "one return, one record";
  EXPECT_TRUE(run_json("list").document["services"][1]["dated"].isNull());
}

TEST_F(KelotlsctlDated, KeepsOnRecordWhoReturnedBeforeALaterTry) {
  ASSERT_EQ(run({"set", "--all", "old", "--until", "2037-01-01T00:00Z", "--reason", "two"}).status,
            0);
  let_date_come({"ssh", "web"});
  write_file(kReloaderStatus, "9");
  ASSERT_EQ(run({"settle"}).status, 5);
  ASSERT_EQ(run_json("list").document["services"][0]["dated"], Json::Value()) << "ssh returned";
  write_file(kReloaderStatus, "0");
  ASSERT_EQ(run({"settle"}).status, 0);
  const Json::Value record = last_record();
  EXPECT_EQ(record["command"], "settle");
  EXPECT_EQ(record["changes"].size(), 2u) << record.toStyledString();
  EXPECT_EQ(record["result"], "done");
  EXPECT_EQ(record["services"].size(), 0u) << "what had failed is done";
}

TEST_F(KelotlsctlDated, StaysWhereTheLevelWasChangedSince) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z").status, 0);
  Json::Value store = read_json(kDataStore);
  store["services"]["web"]["current-level"] = 2;
  write_file(kDataStore, store.toStyledString());
  let_date_come();
  const Outcome settle = run({"settle"});
  EXPECT_TRUE(
      contains(settle.err, "web: its date has come, but its level was changed since; it stays"));
  EXPECT_EQ(stored_level("web"), 2);
  EXPECT_TRUE(run_json("list").document["services"][1]["dated"].isNull());
}

TEST_F(KelotlsctlDated, EndsByTheTimeThatHasPassedWhereTheWallsClockIsBehind) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z").status, 0);
  Json::Value dated = read_json(kDated);
  Json::Value& web = dated["services"]["web"];
  web["length"] = web["ran"].asInt() + 1;  // a second of running time is left
  write_file(kDated, dated.toStyledString());
  EXPECT_TRUE(eventually([] {
    run({"settle"});
    return stored_level("web") == 1;
  }));
}

TEST_F(KelotlsctlDated, IsNotTriedOverAndOverWhereTheDataStoreCannotBeUsed) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z").status, 0);
  write_file(kDataStore, "oops");
  log();
  Json::Value dated = read_json(kDated);
  dated["services"]["web"]["until"] = "2020-01-01T00:00:00Z";
  write_file(kDated, dated.toStyledString());
  EXPECT_TRUE(eventually([this] { return !log().empty(); })) << "nobody has tried";
  constexpr std::size_t kCommands = 50;
  for (std::size_t count = 0; count < kCommands; ++count) {
    EXPECT_EQ(run({"list"}).status, 4);
  }
  EXPECT_LE(log().size(), 2 * kCommands);
}

TEST_F(KelotlsctlDated, LeavesWithItsService) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z").status, 0);
  ASSERT_EQ(run({"leave", "-"}, web_registration()).status, 0);
  EXPECT_TRUE(run_json("status").document["dated"].empty());
}

TEST_F(KelotlsctlDated, IsTakenBackWithTheChange) {
  ASSERT_EQ(set_until("2037-01-01T00:00Z", {"--confirm", "10m"}).status, 0);
  ASSERT_EQ(run({"revert"}).status, 0);
  EXPECT_EQ(stored_level("web"), 1);
  EXPECT_TRUE(run_json("list").document["services"][1]["dated"].isNull());

  ASSERT_EQ(set_until("2037-01-01T00:00Z", {"--apply"}).status, 0);
  ASSERT_EQ(run({"set", "web", "intermediate", "--confirm", "10m"}).status, 0);
  ASSERT_EQ(run({"revert"}).status, 0);
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_FALSE(run_json("list").document["services"][1]["dated"].isNull());
}

TEST_F(KelotlsctlDated, NeedsADateToComeAReasonAndAnotherLevel) {
  const std::string before = read_file(kDataStore);
  for (const char* const date :
       {"", "tomorrow", "2027-02-30", "2027-13-01", "2020-01-01", "2027-03", "2037-01-01T25:00",
        "2037-01-01 12:00", "2037-01-01x"}) {
    EXPECT_EQ(run({"set", "web", "old", std::string("--until=") + date, "--reason", "x"}).status, 2)
        << date;
  }
  EXPECT_EQ(run({"set", "web", "old", "--until", "2037-01-01"}).status, 2) << "no reason";
  EXPECT_EQ(run({"set", "web", "old", "--then", "modern"}).status, 2) << "no date";
  EXPECT_EQ(run({"set", "web", "modern", "--until", "2037-01-01", "--reason", "x"}).status, 2)
      << "no end";
  EXPECT_EQ(
      run({"set", "web", "old", "--until", "2037-01-01", "--then", "odd", "--reason", "x"}).status,
      2);
  EXPECT_EQ(read_file(kDataStore), before);
  EXPECT_FALSE(exists(kDated));
}

TEST_F(KelotlsctlDated, EndsWithTheDayThatIsNamedWhereTheMachineIs) {
  ASSERT_EQ(
      run({"set", "web", "old", "--until", "2037-03-01", "--reason", "x"}, {}, {"TZ=UTC-2"}).status,
      0);
  EXPECT_EQ(read_json(kDated)["services"]["web"]["until"], "2037-03-01T22:00:00Z");
}

TEST_F(KelotlsctlDated, SaysSoWhereTheFileCannotBeUsed) {
  const std::string good =
      R"("then": 1, "until": "2037-01-01T00:00:00Z", "reason": "x", "length": 1,
      "ran": 0, "boot": "x", "since-boot": 0)";
  for (const std::string& text :
       {std::string("{"), std::string("[]"), R"({"services": {"web": {"level": 9, )" + good + "}}}",
        R"({"services": {"web": {"level": "3", )" + good + "}}}",
        R"({"services": {"web": {)" + good + "}}}"}) {
    write_file(kDated, text);
    EXPECT_EQ(run({"set", "ssh", "old"}).status, 1) << text;
    EXPECT_TRUE(contains(run({"check"}).out, "dated.json: cannot be used: ")) << text;
    EXPECT_EQ(run({"list"}).status, 0) << text;
  }
}

}  // namespace
}  // namespace kelotls::test
