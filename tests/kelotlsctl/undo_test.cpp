// kelotlsctl undo and redo, and changes that no command has made.
#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

constexpr char kDated[] = "/usr/kelo/etc/security-profile/tls-profile/dated.json";

class KelotlsctlUndo : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    join_both();
    ASSERT_EQ(run({"set", "web", "modern", "--apply"}).status, 0);
    ASSERT_EQ(run({"set", "web", "ssh", "old", "--apply"}).status, 0);
  }

  void TearDown() override { remove_all(kDated); }

  static Json::Value records() { return run_json("history").document["changes"]; }

  static Json::Value last_record() {
    const Json::Value all = records();
    return all[all.size() - 1];
  }

  static std::string levels() {
    return std::to_string(stored_level("web")) + std::to_string(stored_level("ssh"));
  }

  static void change_outside(const char* service, int level) {
    Json::Value store = read_json(kDataStore);
    store["services"][service]["current-level"] = level;
    write_file(kDataStore, store.toStyledString());
  }
};

TEST_F(KelotlsctlUndo, TakesTheLastChangeBackAndAppliesIt) {
  write_file(kReloaderRuns, "");
  const Outcome undo = run({"undo"});
  EXPECT_EQ(undo.status, 0) << undo.err;
  EXPECT_TRUE(contains(undo.out, "ssh: old became default\nweb: old became modern\n"));
  EXPECT_EQ(levels(), "10");
  EXPECT_TRUE(contains(read_file(rendered_path("web")), "modern"));
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  const Json::Value all = records();
  EXPECT_EQ(all[all.size() - 1]["command"], "undo");
  EXPECT_EQ(all[all.size() - 1]["undoes"], all[all.size() - 2]["id"]);
  EXPECT_EQ(all[all.size() - 1]["result"], "done");
}

TEST_F(KelotlsctlUndo, TakesSeveralBackWithARecordEach) {
  const Json::ArrayIndex before = records().size();
  ASSERT_EQ(run({"undo", "2"}).status, 0);
  EXPECT_EQ(levels(), "00");
  EXPECT_EQ(records().size(), before + 2);
}

TEST_F(KelotlsctlUndo, GoesBackStepByStepAndForthAgain) {
  ASSERT_EQ(run({"undo"}).status, 0);
  EXPECT_EQ(levels(), "10");
  ASSERT_EQ(run({"undo"}).status, 0);
  EXPECT_EQ(levels(), "00");
  EXPECT_EQ(run({"undo"}).status, 1) << "there is only the join";
  ASSERT_EQ(run({"redo"}).status, 0);
  EXPECT_EQ(levels(), "10");
  ASSERT_EQ(run({"redo"}).status, 0);
  EXPECT_EQ(levels(), "33");
  EXPECT_EQ(run({"redo"}).status, 1);
  ASSERT_EQ(run({"undo", "2"}).status, 0);
  ASSERT_EQ(run({"redo", "2"}).status, 0);
  EXPECT_EQ(levels(), "33");
}

TEST_F(KelotlsctlUndo, TakesTheDefaultLevelBack) {
  ASSERT_EQ(run({"set", "ssh", "default"}).status, 0);
  ASSERT_EQ(run({"default", "modern"}).status, 0);
  ASSERT_EQ(run({"undo"}).status, 0);
  EXPECT_EQ(read_json(kDataStore)["default-level"], 2);
  ASSERT_EQ(run({"redo"}).status, 0);
  EXPECT_EQ(read_json(kDataStore)["default-level"], 1);
}

TEST_F(KelotlsctlUndo, PassesOverWhatChangedNoLevel) {
  ASSERT_EQ(run({"apply"}).status, 0);
  ASSERT_EQ(run({"render"}).status, 0);
  ASSERT_EQ(run({"address", "web", "localhost:1"}).status, 0);
  ASSERT_EQ(run({"address", "web", "--remove"}).status, 0);
  ASSERT_EQ(run({"undo"}).status, 0);
  EXPECT_EQ(levels(), "10");
}

TEST_F(KelotlsctlUndo, RefusesWhereTheServiceWasChangedOutside) {
  change_outside("web", 2);
  const std::string before = read_file(kDataStore);
  const Outcome undo = run({"undo"});
  EXPECT_EQ(undo.status, 1);
  EXPECT_TRUE(contains(undo.err, "web was changed since, to intermediate, outside kelotlsctl"));
  EXPECT_EQ(read_file(kDataStore), before);
}

TEST_F(KelotlsctlUndo, RefusesAllWhereOneIsRefused) {
  ASSERT_EQ(run({"set", "ssh", "modern"}).status, 0);
  change_outside("web", 2);
  const std::string before = read_file(kDataStore);
  EXPECT_EQ(run({"undo", "2"}).status, 1);
  EXPECT_EQ(read_file(kDataStore), before);
  EXPECT_EQ(run({"undo"}).status, 0) << "that is about ssh alone";
  EXPECT_EQ(levels(), "23");
}

TEST_F(KelotlsctlUndo, RefusesWhereAMembershipHasChangedSince) {
  ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "ftp", "display-name": ""}]})").status,
            0);
  const Outcome undo = run({"undo"});
  EXPECT_EQ(undo.status, 1);
  EXPECT_TRUE(contains(undo.err, "it changed more than levels, and cannot be undone"));
  EXPECT_EQ(levels(), "33");
}

TEST_F(KelotlsctlUndo, RedoesNothingOverAnotherChange) {
  ASSERT_EQ(run({"undo"}).status, 0);
  ASSERT_EQ(run({"set", "web", "intermediate"}).status, 0);
  const Outcome redo = run({"redo"});
  EXPECT_EQ(redo.status, 1);
  EXPECT_TRUE(contains(redo.err, "web was changed since, to intermediate, by set at "));
}

TEST_F(KelotlsctlUndo, BringsADateBackAndNoDateThatIsPast) {
  ASSERT_EQ(
      run({"set", "ssh", "intermediate", "--until", "2037-01-01T00:00Z", "--reason", "x"}).status,
      0);
  ASSERT_EQ(run({"set", "ssh", "modern"}).status, 0);
  ASSERT_EQ(run({"undo"}).status, 0);
  EXPECT_EQ(stored_level("ssh"), 2);
  EXPECT_EQ(read_json(kDated)["services"]["ssh"]["until"], "2037-01-01T00:00:00Z");
  ASSERT_EQ(run({"undo"}).status, 0);
  EXPECT_EQ(stored_level("ssh"), 3);
  EXPECT_TRUE(run_json("show", {"ssh"}).document["dated"].isNull());

  // What has ended is not to begin again, and for ever.
  ASSERT_EQ(run({"redo"}).status, 0);
  Json::Value dated = read_json(kDated);
  dated["services"]["ssh"]["until"] = "2020-01-01T00:00:00Z";
  write_file(kDated, dated.toStyledString());
  ASSERT_EQ(run({"settle"}).status, 0);
  EXPECT_EQ(stored_level("ssh"), 3);
  const Outcome undo = run({"undo"});
  EXPECT_EQ(undo.status, 1);
  EXPECT_TRUE(
      contains(undo.err, "ssh would be at intermediate again, which was to end at 2020-01-01"));
}

TEST_F(KelotlsctlUndo, SaysWhatItWouldDo) {
  const Lines before = tree();
  const Outcome undo = run({"undo", "--dry-run"});
  EXPECT_EQ(undo.status, 0);
  EXPECT_TRUE(contains(undo.out, "web: old would become modern\n"));
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(run_json("undo", {"--dry-run"}).document["changes"][0]["written"], false);
  EXPECT_EQ(run_json("undo").document["changes"][0]["written"], true);
  EXPECT_EQ(run_json("redo").document["changes"][0]["written"], true);
}

TEST_F(KelotlsctlUndo, StaysUndoneWhereAStepFails) {
  write_file(kReloaderStatus, "9");
  EXPECT_EQ(run({"undo"}).status, 5);
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_EQ(last_record()["command"], "undo");
  write_file(kReloaderStatus, "0");
  EXPECT_EQ(run({"undo"}).status, 0) << "what was not undone still can be";
  EXPECT_EQ(stored_level("web"), 1);
}

TEST_F(KelotlsctlUndo, RefusesWhatIsNoNumber) {
  for (const char* const count : {"0", "x", "101", "1.5", "99999999999999999999"}) {
    EXPECT_EQ(run({"undo", count}).status, 2) << count;
  }
  EXPECT_EQ(levels(), "33");
}

TEST_F(KelotlsctlUndo, ShowsChangesThatNoCommandHasMade) {
  change_outside("ssh", 1);
  EXPECT_EQ(last_record()["command"], "outside");
  EXPECT_EQ(last_record()["who"]["user"], "not known");
  const Json::ArrayIndex count = records().size();
  ASSERT_EQ(run({"set", "web", "modern"}).status, 0);
  EXPECT_EQ(records().size(), count + 1) << "it is on record now";
  EXPECT_EQ(records()[count - 1]["command"], "outside");
  EXPECT_EQ(last_record()["command"], "set");
  EXPECT_TRUE(contains(run({"history"}).out, "outside"));
}

}  // namespace
}  // namespace kelotls::test
