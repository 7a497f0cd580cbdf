// Nothing runs, and nothing is kept, for those who neither wait for a confirmation nor set a date.
#include "background.h"
#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

constexpr char kDirectory[] = "/usr/kelo/etc/security-profile/tls-profile/";

Lines left_behind() {
  Lines names;
  for (const char* name : {"pending.json", "dated.json", "watch.lock"}) {
    if (exists(std::string(kDirectory) + name)) {
      names.emplace_back(name);
    }
  }
  return names;
}

using KelotlsctlIdle = Kelotlsctl;

TEST_F(KelotlsctlIdle, LeavesNothingRunningAndNothingBehind) {
  pretend_systemd();
  join_both();
  ASSERT_EQ(run({"backup", "/usr/kelo/levels.json"}).status, 0);

  for (const Arguments& change : {Arguments{"set", "web", "old"},
                                  {"apply"},
                                  {"default", "modern"},
                                  {"default", "old", "--apply"},
                                  {"set", "--all", "old", "--apply"},
                                  {"undo"},
                                  {"redo"},
                                  {"render"},
                                  {"reload"},
                                  {"settle"},
                                  {"restore", "/usr/kelo/levels.json"},
                                  {"leave", "-"}}) {
    const Outcome outcome = run(change, change[0] == "leave" ? web_registration() : "");
    EXPECT_EQ(outcome.status, 0) << change[0] << ": " << outcome.err;
    EXPECT_EQ(processes_of(KELOTLSCTL), std::vector<pid_t>()) << change[0];
    EXPECT_EQ(left_behind(), Lines()) << change[0];
    EXPECT_EQ(told_to_systemd(), "") << change[0];
  }
}

TEST_F(KelotlsctlIdle, LeavesNoProcessWhereThereIsNoSystemd) {
  join_both();

  for (const Arguments& change :
       {Arguments{"set", "web", "old", "--apply"}, {"undo"}, {"settle"}}) {
    EXPECT_EQ(run(change).status, 0);
    EXPECT_EQ(processes_of(KELOTLSCTL), std::vector<pid_t>()) << change[0];
    EXPECT_EQ(left_behind(), Lines()) << change[0];
  }
}

TEST_F(KelotlsctlIdle, HasTheTimerForAsLongAsThereIsADate) {
  pretend_systemd();
  join_both();
  const Arguments dated = {"set",     "web",        "old",      "--apply",
                           "--until", "2037-01-01", "--reason", "printer"};

  EXPECT_EQ(run(dated).status, 0);
  EXPECT_EQ(told_to_systemd(), "systemctl enable --now --quiet kelotls-settle.timer\n");
  EXPECT_EQ(run({"settle"}).status, 0);
  EXPECT_EQ(told_to_systemd(), "");

  EXPECT_EQ(run({"set", "web", "modern", "--apply"}).status, 0);
  EXPECT_EQ(run({"settle"}).status, 0);
  EXPECT_EQ(told_to_systemd(), "systemctl disable --now --quiet kelotls-settle.timer\n");
  EXPECT_EQ(left_behind(), Lines());
  EXPECT_EQ(run({"settle"}).status, 0);
  EXPECT_EQ(told_to_systemd(), "");
}

// The date that it has ended comes back with the change's being taken back.
TEST_F(KelotlsctlIdle, KeepsTheTimerWhileAChangeWaitsThatHasEndedADate) {
  pretend_systemd();
  join_both();
  ASSERT_EQ(
      run({"set", "web", "old", "--apply", "--until", "2037-01-01", "--reason", "printer"}).status,
      0);
  told_to_systemd();

  ASSERT_EQ(run({"set", "web", "modern", "--confirm", "1h"}).status, 0);
  ASSERT_EQ(run({"settle"}).status, 0);
  ASSERT_EQ(run({"revert"}).status, 0);
  ASSERT_EQ(run({"settle"}).status, 0);

  EXPECT_EQ(told_to_systemd().find("disable"), std::string::npos);
  EXPECT_EQ(left_behind(), Lines{"dated.json"});
}

}  // namespace
}  // namespace kelotls::test
