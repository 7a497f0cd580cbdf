// kelotlsctl status: one screen with what is in force, pending, at fault, and what failed last.
#include <filesystem>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

class KelotlsctlStatus : public Kelotlsctl {
 protected:
  /// The line that begins with the label, without it.
  static std::string line(const std::string& label) {
    const std::string text = run({"status"}).out;
    const std::size_t at = text.find(label);
    return at == std::string::npos ? "absent" : text.substr(at + 15, text.find('\n', at) - at - 15);
  }

  /// Services "s1" and so on, which have a template and have not been rendered.
  static void join_many(int count) {
    std::string services;
    for (int number = 1; number <= count; ++number) {
      services += (number == 1 ? "" : ",") + std::string(R"({"service": "s)") +
                  std::to_string(number) + R"(", "display-name": "", "mustache-path": ")" +
                  kTemplate + "\"}";
    }
    ASSERT_EQ(run({"join", "-"}, "{\"services\": [" + services + "]}").status, 0);
  }
};

TEST_F(KelotlsctlStatus, CountsServicesByLevelAndByState) {
  join_both();
  ASSERT_EQ(run({"set", "ssh", "old"}).status, 0);

  const Outcome outcome = run({"status"});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "default level  intermediate (1 follow it)\n"
            "services       2\n"
            "by level       1 intermediate, 1 old\n"
            "by state       1 in force, 1 in force from its next context\n"
            "pending        none\n"
            "last failure   none on record\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(KelotlsctlStatus, ShowsAnApplianceWithoutServices) {
  EXPECT_EQ(run({"status"}).status, 0);
  EXPECT_EQ(line("by level"), "none");
  EXPECT_EQ(line("by state"), "none");
}

TEST_F(KelotlsctlStatus, NamesAtMostTenThatArePendingInNaturalOrder) {
  join_many(10);
  EXPECT_EQ(line("pending  "), "s1, s2, s3, s4, s5, s6, s7, s8, s9, s10");
  join_many(13);
  EXPECT_EQ(line("pending  "), "s1, s2, s3, s4, s5, s6, s7, s8, s9, s10 and 3 more");
  EXPECT_EQ(run_json("status").document["pending"].size(), 13u);
}

TEST_F(KelotlsctlStatus, NamesWhatIsAtFault) {
  join_both();
  write_file(kDataStore, data_store_text(2, {{"lost", "0"}, {"none", "-1"}}));
  EXPECT_EQ(line("at fault"), "lost, none");
  EXPECT_EQ(line("pending  "), "none");
  EXPECT_EQ(line("by level"), "1 intermediate, 1 unusable");
}

TEST_F(KelotlsctlStatus, SaysWhatFailedLastAndWhy) {
  join_both();
  write_file(kReloaderStatus, "3");
  ASSERT_EQ(run({"set", "web", "old", "--apply"}).status, 5);
  write_file(kReloaderStatus, "0");
  ASSERT_EQ(run({"set", "ssh", "modern"}).status, 0);

  const Json::Value changes = run_json("history").document["changes"];
  const Json::Value failure = run_json("status").document["last-failure"];

  const Json::Value& failed = changes[changes.size() - 2];
  EXPECT_EQ(failure["time"], failed["time"]);
  EXPECT_EQ(failure["command"], "set");
  EXPECT_EQ(failure["services"], json(R"(["web"])"));
  EXPECT_EQ(line("last failure"), failed["time"].asString() + " set of web: " +
                                      failed["result"].asString() + ", a reloader failed");
}

TEST_F(KelotlsctlStatus, NamesTheLastOfSeveralFailures) {
  join_both();
  write_file(kReloaderStatus, "3");
  ASSERT_EQ(run({"set", "web", "old", "--apply"}).status, 5);
  ASSERT_EQ(run({"reload", "web"}).status, 5);
  EXPECT_EQ(run_json("status").document["last-failure"]["command"], "reload");
}

TEST_F(KelotlsctlStatus, NamesOnlyTheServicesThatFailed) {
  write_file(kHistory,
             R"({"id": "1", "time": "2026-01-02T03:04:05Z", "command": "apply", "who": {"user": )"
             R"("root"}, "terminal": null, "reason": null, "changes": [{"service": "a"}, )"
             R"({"service": "b"}]})"
             "\n"
             R"({"id": "1", "result": "failed", "ended": "2026-01-02T03:04:06Z", "code": 3, )"
             R"("services": [{"service": "a", "result": "done"}, )"
             R"({"service": "b", "result": "failed"}]})"
             "\n");
  EXPECT_EQ(line("last failure"), "2026-01-02T03:04:05Z apply of b: failed, a probe did not agree");
}

TEST_F(KelotlsctlStatus, TellsAChangeThatWasCutShort) {
  const std::string begin =
      R"({"id": "1", "time": "2026-01-02T03:04:05Z", "command": "regen", "who": {"user": )"
      R"("root"}, "terminal": null, "reason": null, "changes": []})";
  write_file(kHistory, begin + "\n");
  EXPECT_EQ(line("last failure"),
            "2026-01-02T03:04:05Z regen: interrupted, it did not come to its end");
  write_file(kHistory,
             begin + "\n" + R"({"id": "1", "result": "interrupted", "code": 143})" + "\n");
  EXPECT_EQ(line("last failure"), "2026-01-02T03:04:05Z regen: interrupted, SIGTERM");
  write_file(kHistory, begin + "\n" + R"({"id": "1", "result": "failed", "code": 1})" + "\n");
  EXPECT_EQ(line("last failure"), "2026-01-02T03:04:05Z regen: failed, exit status 1");
}

TEST_F(KelotlsctlStatus, GivesTheSameInJsonByTheSchema) {
  join_both();
  const JsonOutcome outcome = run_json("status");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["default-level"]["name"], "intermediate");
  EXPECT_EQ(outcome.document["services"], 2);
  EXPECT_EQ(outcome.document["following-default"], 2);
  EXPECT_EQ(outcome.document["levels"]["intermediate"], 2);
  EXPECT_EQ(outcome.document["levels"]["modern"], 0);
  EXPECT_EQ(outcome.document["states"]["in-force"], 1);
  EXPECT_EQ(outcome.document["states"]["pending-render"], 0);
  EXPECT_TRUE(outcome.document["last-failure"].isNull());
}

TEST_F(KelotlsctlStatus, EndsWithFourWithoutAUsableDataStore) {
  remove_all(kDataStore);
  EXPECT_EQ(run({"status"}).status, 4);
  write_file(kDataStore, "{");
  const Outcome outcome = run({"status"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(outcome.out, "");
}

TEST_F(KelotlsctlStatus, ShowsAThousandServicesInAFractionOfASecond) {
  join_many(1000);
  EXPECT_LT(seconds_of("status", "/tmp/status"), seconds_for_a_thousand_services());
  EXPECT_TRUE(contains(read_file("/tmp/status"), "s10 and 990 more\n"));
}

TEST_F(KelotlsctlWithoutRoot, IsToldThatTheRenderedFileNeedsRoot) {
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0600));
  const Outcome list = run_as_user({"list", "--terse"});
  EXPECT_EQ(list.out,
            "ssh\tdefault\tintermediate\tnext-context\n"
            "web\tdefault\tintermediate\tneeds-root\n")
      << list.err;
  const Outcome show = run_as_user({"show", "web"});
  EXPECT_TRUE(contains(show.out, "state         not known: needs root\n"));
  EXPECT_TRUE(contains(show.out, rendered_path("web") + ": Permission denied\n"));
}

TEST_F(KelotlsctlWithoutRoot, IsToldThatDescriptorAndTemplateNeedRoot) {
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0644));
  EXPECT_EQ(run_as_user({"list", "--names", "--state", "in-force"}).out, "web\n");
  for (const std::string& path : {descriptor_path("web"), std::string(kTemplate)}) {
    std::filesystem::permissions(path, std::filesystem::perms(0600));
    EXPECT_EQ(run_as_user({"list", "--names", "--state", "needs-root"}).out, "web\n") << path;
    std::filesystem::permissions(path, std::filesystem::perms(0644));
  }
  EXPECT_EQ(run({"list", "--names", "--state", "needs-root"}).out, "");
}

TEST_F(KelotlsctlStatus, TellsRootOfAFileThatNobodyMayRead) {
  join_both();
  std::filesystem::permissions(kTemplate, std::filesystem::perms::none);
  const Outcome outcome = run_program({"setpriv", "--inh-caps", "-dac_override,-dac_read_search",
                                       "--bounding-set", "-dac_override,-dac_read_search",
                                       KELOTLSCTL, "list", "--names", "--state", "cannot-render"});
  EXPECT_EQ(outcome.out, "web\n") << outcome.err;
}

TEST_F(KelotlsctlWithoutRoot, IsToldThatOnlyRootKnowsWhereServersAreAsked) {
  ASSERT_EQ(run({"address", "web", "localhost:1"}).status, 0);
  const Outcome outcome = run_as_user({"probe", "web"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "kelotlsctl: error: where running servers are asked is not known: needs root\n");
}

TEST_F(KelotlsctlWithoutRoot, IsStillToldOfAMissingTemplate) {
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0644));
  remove_all(kTemplate);
  EXPECT_EQ(run_as_user({"list", "--names", "--state", "cannot-render"}).out, "web\n");
}

TEST_F(KelotlsctlWithoutRoot, IsNotToldThatNothingIsPendingOrHasFailed) {
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0600));
  const Outcome outcome = run_as_user({"status"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.out, "1 not known: needs root\n"));
  EXPECT_TRUE(contains(outcome.out, "pending        not known: needs root\n"));
  EXPECT_TRUE(contains(outcome.out, "last failure   not known: needs root\n"));
  // A build that counts its lines complains there, of files that this user may not write.
  EXPECT_FALSE(contains(outcome.err, "kelotlsctl: "));
  const Json::Value document = json(run_as_user({"status", "--json"}).out);
  EXPECT_EQ(faults_against(std::string(KELOTLS_SCHEMAS) + "/output/status.schema.json", document),
            "");
  EXPECT_EQ(document["history-known"], false);
  EXPECT_EQ(document["states"]["needs-root"], 1);
}

TEST_F(KelotlsctlWithoutRoot, IsToldByTheCheckToo) {
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0600));
  const Outcome outcome = run_as_user({"check"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(
      contains(outcome.out, "whether the level of web is in force is not known: needs root"));
}

TEST_F(KelotlsctlStatus, WritesNothing) {
  join_both();
  const Lines before = tree();
  EXPECT_EQ(run({"status"}).status, 0);
  EXPECT_EQ(tree(), before);
}

}  // namespace
}  // namespace kelotls::test
