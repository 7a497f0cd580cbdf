// Changes that take themselves back: --confirm, kelotlsctl confirm, revert and settle.
#include <sys/stat.h>

#include <cstdlib>
#include <sstream>

#include "background.h"
#include "kelotlsctl.h"
#include "process.h"

namespace kelotls::test {
namespace {

constexpr char kPending[] = "/usr/kelo/etc/security-profile/tls-profile/pending.json";
constexpr char kLong[] = "10m";  // longer than any test takes

class KelotlsctlConfirm : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    join_both();
    ASSERT_EQ(run({"set", "web", "intermediate", "--apply"}).status, 0);
    before_ = tree_of_services();
  }

  /// Whoever waits for the change's end has nothing more to wait for.
  void TearDown() override { remove_all(kPending); }

  /// The data store, the descriptors and links, and the rendered files.
  static Lines tree_of_services() {
    Lines lines = {read_file(kDataStore)};
    for (const char* const directory : {kServices, kConfig, kPackageReloaders}) {
      for (const std::string& name : names_in(directory)) {
        lines.push_back(directory + name + " " + read_file(directory + name));
      }
    }
    return lines;
  }

  static Json::Value last_record() {
    const Json::Value changes = run_json("history").document["changes"];
    return changes[changes.size() - 1];
  }

  /// The machine was restarted since: nobody watches any more, and the boot clock is another.
  static void restart() {
    Json::Value pending = read_json(kPending);
    remove_all(kPending);
    // All of them: one that was started later, or waits for its turn, would see what is written
    // next.
    EXPECT_TRUE(eventually([] { return processes_of(KELOTLSCTL).empty(); }));
    pending["boot"] = "another start of the machine";
    write_file(kPending, pending.toStyledString());
  }

  const Lines& before() const { return before_; }

 private:
  Lines before_;
};

TEST_F(KelotlsctlConfirm, AppliesAndKeepsWhatIsConfirmed) {
  const Outcome set = run({"set", "web", "modern", "--confirm", kLong});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_TRUE(contains(set.err, "Taken back in 10 min, unless confirmed: kelotlsctl confirm\n"));
  EXPECT_TRUE(contains(read_file(rendered_path("web")), "modern"));
  EXPECT_EQ(last_record()["result"], "waiting");

  const Outcome confirm = run({"confirm"});
  EXPECT_EQ(confirm.status, 0) << confirm.err;
  EXPECT_EQ(confirm.out, "web: confirmed\n");
  EXPECT_EQ(stored_level("web"), 1);
  EXPECT_FALSE(exists(kPending));
  EXPECT_EQ(last_record()["command"], "set");
  EXPECT_EQ(last_record()["result"], "confirmed");
  EXPECT_EQ(last_record()["settled"]["command"], "confirm");
  EXPECT_EQ(run({"confirm"}).status, 1);
}

TEST_F(KelotlsctlConfirm, RevertsAtOnce) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  write_file(kReloaderRuns, "");
  const Outcome revert = run({"revert"});
  EXPECT_EQ(revert.status, 0) << revert.err;
  EXPECT_EQ(revert.out, "web: taken back\n");
  EXPECT_EQ(tree_of_services(), before());
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  EXPECT_EQ(last_record()["result"], "taken-back");
  EXPECT_EQ(run({"list", "--terse"}).out,
            "ssh\tdefault\tintermediate\tnext-context\n"
            "web\tintermediate\tintermediate\tin-force\n");
}

TEST_F(KelotlsctlConfirm, GoesBackByItselfOnceTheTimeIsOver) {
  const Outcome set = run({"set", "web", "modern", "--confirm", "1"});
  ASSERT_EQ(set.status, 0) << set.err;
  EXPECT_TRUE(contains(set.out, "web: intermediate became modern\n"));
  EXPECT_TRUE(eventually([] { return !exists(kPending); }));
  EXPECT_EQ(tree_of_services(), before());
  EXPECT_EQ(last_record()["result"], "taken-back");
  EXPECT_EQ(last_record()["settled"]["command"], "settle");
  const Outcome late = run({"confirm"});
  EXPECT_EQ(late.status, 1);
  EXPECT_TRUE(
      contains(late.err, "no change waits to be confirmed: the last one was taken back at"));
}

TEST_F(KelotlsctlConfirm, GoesBackAtTheFirstCommandAfterARestart) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  restart();
  const Outcome address = run({"address", "ssh", "localhost:22"});
  EXPECT_EQ(address.status, 0);
  EXPECT_TRUE(contains(address.err, "web was not confirmed in time, and is taken back"));
  EXPECT_EQ(tree_of_services(), before());
  EXPECT_FALSE(exists(kPending));
}

TEST_F(KelotlsctlConfirm, CannotBeConfirmedAfterARestart) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  restart();
  const Outcome confirm = run({"confirm"});
  EXPECT_EQ(confirm.status, 1);
  EXPECT_TRUE(contains(confirm.err, "too late: the change is taken back"));
  EXPECT_EQ(tree_of_services(), before());
}

TEST_F(KelotlsctlConfirm, RunsNoReloaderBeforeTheServersHaveStarted) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  restart();
  write_file(kReloaderRuns, "");
  const Outcome settle = run({"settle", "--before-services"});
  EXPECT_EQ(settle.status, 0) << settle.err;
  EXPECT_EQ(settle.out, "web: taken back\n");
  EXPECT_EQ(tree_of_services(), before());
  EXPECT_EQ(read_file(kReloaderRuns), "");
  EXPECT_TRUE(
      contains(run({"list", "--terse"}).out, "web\tintermediate\tintermediate\tin-force\n"));
}

TEST_F(KelotlsctlConfirm, RefusesOtherChangesWhileOneWaits) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  const Lines waiting = tree_of_services();
  write_file("/tmp/registration", web_registration());
  ASSERT_EQ(run({"backup", "/tmp/backup"}).status, 0);
  for (const Arguments& command :
       {Arguments{"set", "web", "old"}, Arguments{"set", "ssh", "old", "--dry-run"},
        Arguments{"default", "old"}, Arguments{"apply"}, Arguments{"render"}, Arguments{"reload"},
        Arguments{"regen"}, Arguments{"restore", "/tmp/backup"},
        Arguments{"join", "/tmp/registration"}, Arguments{"leave", "/tmp/registration"},
        Arguments{"address", "web", "localhost:1"}, Arguments{"dh", "--force"}, Arguments{"undo"},
        Arguments{"redo"}, Arguments{"recover", "--default", "old"}}) {
    const Outcome refused = run(command);
    EXPECT_EQ(refused.status, 1) << command[0];
    EXPECT_TRUE(contains(refused.err, "a change of web waits to be confirmed, for ")) << command[0];
    EXPECT_FALSE(contains(refused.err, "Looking for a prime")) << "refused after the search";
    EXPECT_EQ(tree_of_services(), waiting) << command[0];
  }
  EXPECT_EQ(run({"confirm"}).status, 0);
  EXPECT_EQ(tree_of_services(), waiting);
}

TEST_F(KelotlsctlConfirm, IsJoinedByAnotherChangeThatIsToBeConfirmed) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  ASSERT_EQ(run({"set", "ssh", "web", "old", "--confirm", kLong}).status, 0);
  const Outcome revert = run({"revert"});
  EXPECT_EQ(revert.out, "ssh: taken back\nweb: taken back\n");
  EXPECT_EQ(tree_of_services(), before());
  const Json::Value changes = run_json("history").document["changes"];
  EXPECT_EQ(changes[changes.size() - 1]["result"], "taken-back");
  EXPECT_EQ(changes[changes.size() - 2]["result"], "taken-back");
}

TEST_F(KelotlsctlConfirm, WaitsForAsLongAsTheLastOneThatJoinedSays) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  ASSERT_EQ(run({"set", "ssh", "old", "--confirm", "1"}).status, 0);
  EXPECT_TRUE(eventually([] { return !exists(kPending); }));
  EXPECT_EQ(tree_of_services(), before());
}

TEST_F(KelotlsctlConfirm, TakesEachKindOfChangeBack) {
  ASSERT_EQ(run({"backup", "/tmp/backup"}).status, 0);
  ASSERT_EQ(run({"set", "web", "old", "--apply"}).status, 0);
  ASSERT_EQ(run({"set", "ssh", "modern"}).status, 0);
  write_file("/tmp/new", R"({"services": [{"service": "ftp", "display-name": "",
      "mustache-path": "/tmp/web.mustache", "probe": {"address": "localhost:1"}}]})");
  write_file("/tmp/registration", web_registration());
  const Lines start = tree_of_services();
  const std::string stamp = read_file(kStamp);
  for (const Arguments& command :
       {Arguments{"default", "old"}, Arguments{"restore", "/tmp/backup"},
        Arguments{"leave", "/tmp/registration"}, Arguments{"join", "/tmp/new"}}) {
    Arguments words = command;
    words.insert(words.end(), {"--confirm", kLong});
    const Outcome outcome = run(words);
    EXPECT_TRUE(contains(outcome.err, "Taken back in 10 min")) << command[0];
    EXPECT_NE(tree_of_services(), start) << command[0];
    EXPECT_EQ(run({"revert"}).status, 0) << command[0];
    EXPECT_EQ(tree_of_services(), start) << command[0];
  }
  EXPECT_FALSE(exists(kAddresses) && contains(read_file(kAddresses), "ftp"));
}

TEST_F(KelotlsctlConfirm, GivesARenderedFileBackAsItWas) {
  write_file(rendered_path("web"), std::string("edited by hand \xff\0\n", 18));
  ASSERT_EQ(::chmod(rendered_path("web").c_str(), 0640), 0);
  const Lines start = tree_of_services();
  ASSERT_EQ(run({"apply", "--confirm", kLong}).status, 0);
  EXPECT_NE(tree_of_services(), start);
  ASSERT_EQ(run({"revert"}).status, 0);
  EXPECT_EQ(tree_of_services(), start);
  EXPECT_EQ(mode(rendered_path("web")), 0640u);
}

TEST_F(KelotlsctlConfirm, LeavesOthersAlone) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  // Another program, through the library.
  Json::Value store = read_json(kDataStore);
  store["services"]["ssh"]["current-level"] = 3;
  write_file(kDataStore, store.toStyledString());
  ASSERT_EQ(run({"revert"}).status, 0);
  EXPECT_EQ(stored_level("web"), 2);
  EXPECT_EQ(stored_level("ssh"), 3);
}

TEST_F(KelotlsctlConfirm, WaitsForNothingWhereEverythingWasUndone) {
  write_file(kReloaderStatus, "9");
  const Outcome set = run({"set", "web", "modern", "--confirm", kLong});
  EXPECT_NE(set.status, 0);
  EXPECT_FALSE(exists(kPending));
  EXPECT_EQ(stored_level("web"), 2);
  EXPECT_EQ(last_record()["result"], "undone");
}

// What waits is to be there after a power cut: a level that failed in between may have come to the
// disk, and has to be replaced there, too.
TEST_F(KelotlsctlConfirm, BringsToTheDiskWhatAnUndoneChangeLeaves) {
  if (std::getenv("KELOTLS_EMULATED") != nullptr) {
    GTEST_SKIP() << "an emulated process cannot be traced";
  }
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  write_file(kReloaderStatus, "9");
  run_program(
      {"/usr/bin/strace", "-o", "/tmp/trace", "-e", "trace=rename,renameat,renameat2,syncfs",
       KELOTLSCTL, "set", "web", "old", "--confirm", kLong},
      {}, {"ASAN_OPTIONS=detect_leaks=0"});  // which looks for leaks by tracing itself
  std::istringstream trace(read_file("/tmp/trace"));
  std::string order;
  for (std::string call; std::getline(trace, call);) {
    order += contains(call, "config/web.conf") ? "rendered "
             : contains(call, "pending.json")  ? "pending "
             : contains(call, "syncfs")        ? "disk "
                                               : "";
  }
  EXPECT_EQ(order, "pending rendered rendered disk disk pending ");
  EXPECT_EQ(stored_level("web"), 1);
}

TEST_F(KelotlsctlConfirm, IsTriedAgainWhereItCannotBeTakenBack) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  write_file(kReloaderStatus, "9");
  const Outcome revert = run({"revert"});
  EXPECT_EQ(revert.status, 1);
  EXPECT_TRUE(contains(revert.err, "the change of web could not be taken back"));
  EXPECT_EQ(stored_level("web"), 2);
  // Whoever waits for the change's end tries at once, too.
  EXPECT_TRUE(eventually([] { return contains(run({"status"}).out, "could not be taken back"); }));
  const Outcome check = run({"check"});
  EXPECT_EQ(check.status, 3);
  EXPECT_TRUE(contains(check.out, "a change is to be taken back, which fails"));
  EXPECT_TRUE(eventually([] { return last_record()["result"] == "take-back-failed"; }));
  EXPECT_EQ(run({"set", "ssh", "old"}).status, 1);
  EXPECT_EQ(stored_level("ssh"), 0);

  write_file(kReloaderStatus, "0");
  EXPECT_EQ(run({"settle"}).status, 0);
  EXPECT_FALSE(exists(kPending));
  EXPECT_EQ(last_record()["result"], "taken-back");
  EXPECT_EQ(tree_of_services(), before());
}

TEST_F(KelotlsctlConfirm, IsWaitedForAfterASettleThatFailed) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  restart();
  write_file(kReloaderStatus, "9");
  ASSERT_EQ(run({"settle"}).status, 1);
  EXPECT_TRUE(eventually([] { return !processes_of(KELOTLSCTL).empty(); }));
}

TEST_F(KelotlsctlConfirm, ClosesTheRecordOfWhatItGivesUp) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  restart();
  write_file(kReloaderStatus, "9");
  ASSERT_EQ(run({"revert"}).status, 1);
  // As a kill leaves it right after the change's file says that it has failed.
  std::string history = read_file(kHistory);
  ASSERT_TRUE(contains(history, "take-back-failed"));
  history.pop_back();
  write_file(kHistory, history.substr(0, history.rfind('\n') + 1));
  ASSERT_EQ(last_record()["result"], "taking-back");

  EXPECT_EQ(run({"confirm"}).status, 0);
  EXPECT_EQ(last_record()["result"], "take-back-failed");
}

TEST_F(KelotlsctlConfirm, LeavesWhatCannotBeTakenBackWhenAskedTo) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  write_file(kReloaderStatus, "9");
  ASSERT_EQ(run({"revert"}).status, 1);
  const Outcome confirm = run({"confirm"});
  EXPECT_EQ(confirm.status, 0);
  EXPECT_EQ(confirm.out, "web: left as it is, in part taken back\n");
  EXPECT_EQ(last_record()["result"], "take-back-failed");
  EXPECT_EQ(run({"set", "ssh", "old"}).status, 0);
}

TEST_F(KelotlsctlConfirm, TakesBackWhatAnInterruptedCommandHasBegun) {
  // As a kill leaves it, between the effects and the wait.
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  Json::Value pending = read_json(kPending);
  pending["state"] = "prepared";
  write_file(kPending, pending.toStyledString());
  EXPECT_TRUE(eventually([] { return !exists(kPending); })) << "nobody watches";
  EXPECT_EQ(tree_of_services(), before());
}

TEST_F(KelotlsctlConfirm, ShowsHowLongItWaits) {
  EXPECT_TRUE(run_json("status").document["waiting"].isNull());
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  EXPECT_TRUE(contains(run({"status"}).out, " left, else taken back"));
  const Json::Value waiting = run_json("status").document["waiting"];
  EXPECT_EQ(waiting["state"], "waiting");
  EXPECT_EQ(waiting["services"], json(R"(["web"])"));
  EXPECT_LE(waiting["seconds-left"].asInt(), 600);
  EXPECT_GE(waiting["seconds-left"].asInt(), 300);
  EXPECT_TRUE(contains(run({"check"}).out, "a change waits to be confirmed, for "));
}

TEST_F(KelotlsctlConfirm, IsForRootAlone) {
  ASSERT_EQ(run({"set", "web", "modern", "--confirm", kLong}).status, 0);
  EXPECT_EQ(mode(kPending), 0600u);
  obey_file_permissions();
  EXPECT_EQ(mode(kPending), 0600u);
}

TEST_F(KelotlsctlConfirm, RefusesWhatIsNoDuration) {
  for (const char* const text :
       {"0", "-1", "5 m", "5x", "1.5h", "31d", "m", "99999999999999999999", "+5"}) {
    const Outcome outcome = run({"set", "web", "modern", std::string("--confirm=") + text});
    EXPECT_EQ(outcome.status, 2) << text;
    EXPECT_TRUE(contains(outcome.err, "is no duration")) << text;
  }
  EXPECT_EQ(tree_of_services(), before());
}

TEST_F(KelotlsctlConfirm, ChangesNothingInADryRun) {
  const Lines start = tree();
  EXPECT_EQ(run({"set", "web", "modern", "--confirm", kLong, "--dry-run"}).status, 0);
  EXPECT_EQ(tree(), start);
}

TEST_F(KelotlsctlConfirm, SaysSoWhereTheFileCannotBeUsed) {
  for (const char* const text :
       {"{", "[]", R"({"state": "odd", "records": [], "former": {}})",
        R"({"state": "waiting", "records": [], "former": {}, "extra": 1})"}) {
    write_file(kPending, text);
    const Outcome set = run({"set", "web", "modern"});
    EXPECT_EQ(set.status, 1) << text;
    EXPECT_TRUE(contains(set.err, "pending.json cannot be used: ")) << text;
    EXPECT_TRUE(contains(run({"check"}).out, "pending.json: cannot be used: ")) << text;
    EXPECT_EQ(tree_of_services(), before()) << text;
  }
}

TEST_F(KelotlsctlConfirm, ReportsByTheSchemas) {
  EXPECT_EQ(run_json("set", {"web", "modern", "--confirm", kLong}).document["confirm"]["seconds"],
            600);
  EXPECT_EQ(run_json("confirm").document["result"], "confirmed");
  EXPECT_EQ(run_json("default", {"old", "--confirm", kLong}).status, 0);
  EXPECT_EQ(run_json("revert").document["result"], "taken-back");
  EXPECT_EQ(run_json("apply", {"--confirm", kLong}).document["confirm"]["seconds"], 600);
  EXPECT_EQ(run_json("confirm").status, 0);
  write_file("/tmp/registration", web_registration());
  EXPECT_EQ(run_json("join", {"/tmp/registration", "--confirm", kLong}).status, 0);
  EXPECT_EQ(run_json("confirm").status, 0);
  ASSERT_EQ(run({"backup", "/tmp/backup"}).status, 0);
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  EXPECT_EQ(run_json("restore", {"/tmp/backup", "--confirm", kLong}).document["confirm"]["seconds"],
            600);
  EXPECT_EQ(run_json("confirm").status, 0);
  EXPECT_EQ(run_json("leave", {"/tmp/registration", "--confirm", kLong}).status, 0);
  restart();
  EXPECT_EQ(run_json("settle").document["taken-back"], json(R"(["web"])"));
  EXPECT_EQ(run_json("status").status, 0);
  EXPECT_EQ(run_json("history").status, 0);
}

}  // namespace
}  // namespace kelotls::test
