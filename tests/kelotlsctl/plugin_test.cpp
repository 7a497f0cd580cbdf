// kelotlsctl check --plugin: one line and an exit status as monitoring plugins have them.
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "kelotlsctl.h"
#include "loopback_server.h"

namespace kelotls::test {
namespace {

class KelotlsctlPlugin : public Kelotlsctl {
 protected:
  /// One line on the standard output and nothing else.
  static Outcome plugin(const Arguments& more = {}) {
    Arguments arguments = {"check", "--plugin"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Outcome outcome = run(arguments);
    expect_one_line(outcome);
    return outcome;
  }

  static void expect_one_line(const Outcome& outcome) {
    EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 1) << outcome.out;
    EXPECT_EQ(outcome.out.rfind("KELOTLS ", 0), 0u) << outcome.out;
    EXPECT_LE(std::count(outcome.out.begin(), outcome.out.end(), '|'), 1) << outcome.out;
    EXPECT_EQ(outcome.err, "");
  }
};

TEST_F(KelotlsctlPlugin, SaysOkWhereNothingIsWrong) {
  join_both();
  const Outcome outcome = plugin();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "KELOTLS OK - nothing is wrong | 'services'=2;;;0 'errors'=0;;0;0 'warnings'=0;0;;0 "
            "'not_known'=0;;;0 'notes'=0;;;0\n");
}

TEST_F(KelotlsctlPlugin, SaysOkWhereALevelIsPending) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  const Outcome outcome = plugin();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out.rfind("KELOTLS OK - nothing is wrong, 1 note | ", 0), 0u) << outcome.out;
  EXPECT_TRUE(contains(outcome.out, " 'notes'=1;;;0\n"));
}

TEST_F(KelotlsctlPlugin, WarnsAndNamesTheFirstWarning) {
  join_both();
  write_file(std::string(kConfig) + "stranger.conf", "");
  write_file(std::string(kConfig) + "stranger2.conf", "");
  const Outcome outcome = plugin();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out.rfind("KELOTLS WARNING - 2 warnings: " + std::string(kConfig) +
                                  "stranger.conf: belongs to no service that has joined | ",
                              0),
            0u)
      << outcome.out;
  EXPECT_TRUE(contains(outcome.out, "'warnings'=2;0;;0"));
}

TEST_F(KelotlsctlPlugin, IsCriticalWhereThereIsAnErrorWhateverElseThereIs) {
  join_both();
  write_file(std::string(kConfig) + "stranger.conf", "");
  remove_all(descriptor_path("ssh"));
  const Outcome outcome = plugin();
  EXPECT_EQ(outcome.status, 2);
  EXPECT_TRUE(contains(outcome.out, "1 warning: " + descriptor_path("ssh") + ": is missing"));
  EXPECT_TRUE(contains(outcome.out, "'errors'="));
  EXPECT_EQ(outcome.out.find("'errors'=0"), std::string::npos);
}

TEST_F(KelotlsctlPlugin, KnowsNothingWithoutAUsableDataStore) {
  join_both();
  for (const char* const text : {"{", "", R"({"default-level": 2, "services": {"a": 5}})"}) {
    write_file(kDataStore, text);
    const Outcome outcome = plugin();
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.out,
              "KELOTLS UNKNOWN - the data store " + std::string(kDataStore) + " cannot be used\n");
  }
  remove_all(kDataStore);
  EXPECT_EQ(plugin().status, 3);
}

TEST_F(KelotlsctlPlugin, KnowsNothingOfACommandLineThatIsWrong) {
  EXPECT_EQ(plugin({"--bogus"}).status, 3);
  EXPECT_EQ(plugin({"--json", "--bogus\nline|pipe"}).status, 3);
  const Outcome outcome = plugin({"missing"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "KELOTLS UNKNOWN - no service \\x22missing\\x22 has joined\n");
  const Outcome misspelt = run({"chek", "--plugin"});
  expect_one_line(misspelt);
  EXPECT_EQ(misspelt.status, 3);
  EXPECT_EQ(run({"check", "--bogus"}).status, 2) << "without --plugin as ever";
}

TEST_F(KelotlsctlPlugin, KnowsNothingWhereItsLineIsLost) {
  join_both();
  const Outcome outcome =
      run_program({"bash", "-c", "\"$0\" check --plugin > /dev/full", KELOTLSCTL});
  EXPECT_EQ(outcome.status, 3);
}

TEST_F(KelotlsctlPlugin, LooksAtNamedServicesAlone) {
  join_both();
  remove_all(descriptor_path("ssh"));
  EXPECT_EQ(plugin({"web"}).status, 0);
  EXPECT_EQ(plugin({"ssh"}).status, 2);
  EXPECT_TRUE(contains(plugin({"web"}).out, "'services'=1;"));
}

TEST_F(KelotlsctlPlugin, EscapesWhatTheConventionGivesAMeaningTo) {
  write_file(kDataStore, data_store_text(2, {{R"(a|b'c\"d\ne\u001b)", "0"}}));
  const Outcome outcome = plugin();
  EXPECT_EQ(outcome.status, 2);
  EXPECT_TRUE(contains(outcome.out, R"(a\x7cb\x27c\x22d\x0ae\x1b)"));
}

TEST_F(KelotlsctlPlugin, KeepsItsLineShort) {
  write_file(kDataStore, data_store_text(2, {{std::string(5000, 'x'), "-1"}}));
  const Outcome outcome = plugin();
  EXPECT_EQ(outcome.status, 2);
  EXPECT_LT(outcome.out.size(), 600u);
  EXPECT_TRUE(contains(outcome.out, " | 'services'=1;;;0 "));
}

TEST_F(KelotlsctlPlugin, HasNoJsonForm) {
  join_both();
  const Outcome outcome = run({"--json", "check", "--plugin"});
  expect_one_line(outcome);
  EXPECT_EQ(outcome.status, 0);
}

TEST_F(KelotlsctlPlugin, DoesNotKnowWhatAServerDoesNotSay) {
  const LoopbackServer closes_at_once(AF_INET, [](int descriptor) {
    char hello[4096];  // read, so that closing is no reset
    static_cast<void>(::recv(descriptor, hello, sizeof hello, 0));
  });
  join_both();
  ASSERT_EQ(run({"address", "web", "127.0.0.1:" + closes_at_once.port()}).status, 0);
  const Outcome outcome = plugin();
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out.rfind("KELOTLS UNKNOWN - 1 thing not known: 127.0.0.1:", 0), 0u)
      << outcome.out;
  write_file(std::string(kConfig) + "stranger.conf", "");
  EXPECT_EQ(plugin().status, 1) << "a warning is known";
}

TEST_F(KelotlsctlPlugin, WarnsOfAServerThatDoesNotAnswer) {
  join_both();
  ASSERT_EQ(run({"address", "web", "127.0.0.1:1"}).status, 0);
  const Outcome outcome = plugin();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.out, "Nothing answers at 127.0.0.1 port 1"));
}

TEST_F(KelotlsctlWithoutRoot, IsNotToldByThePluginThatAllIsWellWhereOnlyRootMayLook) {
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0644));
  EXPECT_EQ(run_as_user({"check", "--plugin"}).status, 0) << run_as_user({"check"}).out;
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0600));
  const Outcome rendered = run_as_user({"check", "--plugin"});
  EXPECT_EQ(rendered.status, 3);
  EXPECT_TRUE(contains(rendered.out, "KELOTLS UNKNOWN - 1 thing not known: "));
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0644));
  ASSERT_EQ(run({"address", "web", "127.0.0.1:1"}).status, 0);
  const Outcome addresses = run_as_user({"check", "--plugin"});
  EXPECT_EQ(addresses.status, 3);
  EXPECT_TRUE(contains(addresses.out, "which running servers there are is not known: needs root"));
  EXPECT_TRUE(contains(run_as_user({"check"}).out, "needs root"));
}

}  // namespace
}  // namespace kelotls::test
