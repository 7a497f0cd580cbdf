// kelotlsctl regen, render, reload, apply.
#include <sys/stat.h>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

class KelotlsctlApply : public Kelotlsctl {
 protected:
  void write_system_reloader(const std::string& name, int status) {
    write_program(kSystemReloaders + name, "#!/bin/sh\nexit " + std::to_string(status) + "\n");
  }
};

TEST_F(KelotlsctlApply, RendersAndSaysWhatChanged) {
  join_web();
  EXPECT_EQ(run({"render"}).out, "web: " + rendered_path("web") + " made\n");
  EXPECT_EQ(read_file(rendered_path("web")), "level intermediate\n");
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  EXPECT_EQ(run({"render"}).out, "web: " + rendered_path("web") + " changed\n");
  EXPECT_EQ(run({"render"}).out, "web: " + rendered_path("web") + " unchanged\n");
}

TEST_F(KelotlsctlApply, RendersByTheSchema) {
  join_web();
  const JsonOutcome outcome = run_json("render");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["written"], true);
  EXPECT_EQ(outcome.document["services"][0]["change"], "new");
}

TEST_F(KelotlsctlApply, ChecksRenderedFilesWithADifference) {
  join_both();
  EXPECT_EQ(run({"render", "--check"}).status, 0);
  EXPECT_EQ(run({"render", "--check"}).out, "");
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  const Lines before = tree();

  const Outcome outcome = run({"render", "--check"});

  const std::string path = rendered_path("web");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out,
            "--- " + path + "\n+++ " + path + "\n@@ -1 +1 @@\n-level intermediate\n+level old\n");
  EXPECT_EQ(tree(), before);
  const JsonOutcome as_json = run_json("render", {"--check"});
  EXPECT_EQ(as_json.status, 3);
  EXPECT_EQ(as_json.document["services"][0]["diff"], outcome.out);
}

TEST_F(KelotlsctlApply, ShowsDifferencesAsDiffDoes) {
  join_both();
  const std::string path = rendered_path("web");
  const std::vector<std::pair<std::string, std::string>> texts = {
      {"a\nb\nc\nd\ne\nf\ng\nh\ni\nj\nk\nl\nm\nn\no\np\n",
       "a\nb\nX\nd\ne\nf\ng\nh\ni\nj\nk\nl\nm\nY\nZ\np\n"},
      {"1\n2\n3\n4\n5\n6\n7\n8\n9\n", "1\n2\n3\n4\n5\n6\n7\n8\n9\nnew\n"},
      {"old\n1\n2\n3\n4\n5\n6\n7\n", "1\n2\n3\n4\n5\n6\n7\n"},
      {"no end", "no end\n"},
      {"", "text\n"},
      {"text\n", ""},
      {"a\nb\nc\nd\ne\nf\ng\nh\n", "x\nb\nc\nd\ne\nf\ng\ny\n"},
      {"a\nb\nc\nd\ne\nf\ng\nh\ni\n", "x\nb\nc\nd\ne\nf\ng\nh\ny\n"}};
  for (const auto& [now, wanted] : texts) {
    write_file(path, now);
    write_file(kTemplate, wanted);
    write_file("/tmp/wanted", wanted);
    const Outcome expected =
        run_program({"diff", "-u", "--label", path, "--label", path, path, "/tmp/wanted"});
    EXPECT_EQ(run({"render", "--check"}).out, expected.out) << now << "→" << wanted;
  }
}

TEST_F(KelotlsctlApply, NamesATemplateThatCannotBeRenderedAndRendersTheOthers) {
  join_both();
  const std::string other = std::string(R"({"services": [{"service": "aaa", "display-name": "",)") +
                            R"( "mustache-path": "/tmp/broken.mustache"}]})";
  ASSERT_EQ(run({"join", "-"}, other).status, 0);
  write_file("/tmp/broken.mustache", "{{#open}}");
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);

  EXPECT_EQ(run({"render", "--check"}).status, 1);
  const Outcome outcome = run({"render"});

  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "aaa: template /tmp/broken.mustache cannot be rendered"));
  EXPECT_TRUE(contains(outcome.out, "aaa: " + rendered_path("aaa") + " FAILED\n"));
  EXPECT_TRUE(contains(outcome.out, "web: " + rendered_path("web") + " changed\n"));
  EXPECT_EQ(read_file(rendered_path("web")), "level old\n");
}

TEST_F(KelotlsctlApply, SaysThatRenderedFilesCannotBeWritten) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  mount_read_only(kConfig);
  const Outcome outcome = run({"render"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "web: " + rendered_path("web") + " was not written"));
  EXPECT_TRUE(contains(outcome.err, "kelotlsctl: log: api_provider.cpp:213 "));
}

TEST_F(KelotlsctlApply, RunsTheReloadersOfBothDirectories) {
  join_web();
  write_system_reloader("base", 0);
  EXPECT_EQ(run({"reload"}).out,
            std::string(kSystemReloaders) + "base: done\n" + link_path("web") + ": done\n");
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
  EXPECT_EQ(run_json("reload").document["reloaders"].size(), 2u);
}

TEST_F(KelotlsctlApply, SaysWhichReloaderFailedAndHow) {
  join_web();
  write_file(kReloaderStatus, "9");
  make_link("/tmp/absent", link_path("zzz"));

  const Outcome outcome = run({"reload"});

  EXPECT_EQ(outcome.status, 5);
  EXPECT_EQ(outcome.out, link_path("web") + ": ended with status 9\n" + link_path("zzz") +
                             ": cannot be run: No such file or directory\n");
  const JsonOutcome as_json = run_json("reload");
  EXPECT_EQ(as_json.status, 5);
  EXPECT_EQ(as_json.document["reloaders"][0]["fault"], "ended with status 9");
}

TEST_F(KelotlsctlApply, AFailedReloaderOfTheBaseSystemLeavesItsServicesPending) {
  join_both();
  std::string text = R"({"system-service": true, "services": [{"service": "base",)"
                     R"( "display-name": "", "reloader-path": "/usr/bin/true"}]})";
  ASSERT_EQ(run({"join", "-"}, text).status, 0);
  write_system_reloader("whichever", 1);
  EXPECT_EQ(run({"reload"}).status, 5);
  EXPECT_EQ(run_json("show", {"base"}).document["state"], "pending-reload");
  EXPECT_EQ(run_json("show", {"web"}).document["state"], "in-force");
}

TEST_F(KelotlsctlApply, RunsNoReloaderWhenADirectoryCannotBeListed) {
  join_web();
  write_system_reloader("base", 0);
  remove_all(kPackageReloaders);
  const Outcome outcome = run({"reload"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_TRUE(contains(outcome.err, std::string("no reloader has run: ") + kPackageReloaders));
  EXPECT_EQ(run_json("reload").document["run"], false);
  EXPECT_FALSE(exists(kStamp));
}

TEST_F(KelotlsctlApply, KeepsWhatReloadersSayOutOfItsData) {
  join_web();
  write_program(kReloader, "#!/bin/sh\necho chatter\n");
  const Outcome outcome = run({"reload"});
  EXPECT_EQ(outcome.out, link_path("web") + ": done\n");
  EXPECT_EQ(outcome.err, "chatter\n");
}

TEST_F(KelotlsctlApply, AppliesWithOneLineForEachService) {
  join_web();
  ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "ssh", "display-name": ""}]})").status,
            0);
  const Outcome outcome = run({"apply"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "SERVICE  LEVEL                   RENDER    RELOAD    PROBE\n"
            "ssh      default → intermediate  -         -         library only\n"
            "web      default → intermediate  rendered  reloaded  library only\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(run_json("apply").document["applied"], true);
}

TEST_F(KelotlsctlApply, GoesOnAfterAFailureAndReportsTheFirst) {
  join_both();
  write_file(kReloaderStatus, "2");
  EXPECT_EQ(run({"apply"}).status, 5);
  remove_all(kTemplate);
  write_file(kReloaderRuns, "");
  EXPECT_EQ(run({"apply"}).status, 1);
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
}

TEST_F(KelotlsctlApply, DoesNotForeseeSuccessWhereAStepIsBoundToFail) {
  join_both();
  const Arguments dry = {"apply", "--dry-run"};
  ASSERT_EQ(run(dry).status, 0);
  const std::string gone = link_path("web") + ": cannot be run: No such file or directory\n";
  remove_all(kReloader);
  EXPECT_EQ(run(dry).status, 5);
  EXPECT_TRUE(contains(run(dry).out, gone));
  EXPECT_EQ(run({"reload", "--dry-run"}).status, 5);
  EXPECT_EQ(run({"reload", "--dry-run"}).out, gone);
  EXPECT_EQ(run({"set", "web", "old", "--apply", "--dry-run"}).status, 5);
  write_file(kReloader, "");
  ASSERT_EQ(::chmod(kReloader, 0644), 0);
  EXPECT_TRUE(contains(run(dry).out, ": cannot be run: Permission denied\n"));
  write_file(kTemplate, "{{#a}}");
  const JsonOutcome outcome = run_json("apply", {"--dry-run"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.document["applied"], false);
  EXPECT_TRUE(contains(outcome.document["rendered"][0]["fault"].asString(), "line 1"));
}

TEST_F(KelotlsctlApply, SaysThatAServiceGetsNoContext) {
  join_both();
  write_file(kDataStore, data_store_text(2, {{"ssh", "-1"}}));
  const Outcome outcome = run({"apply"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(contains(outcome.err, "ssh: probe: it gets no context"));
  EXPECT_EQ(run_json("apply").document["probed"][0]["agrees"], false);
}

TEST_F(KelotlsctlApply, AMissingDhFileKeepsNoServiceFromItsLevel) {
  join_both();
  remove_all(std::string(kSslDir) + "dh2048.pem");
  EXPECT_EQ(run({"apply"}).status, 0);
  EXPECT_EQ(run({"probe", "web"}).status, 3);
}

TEST_F(KelotlsctlApply, RegeneratesFromTheDescriptors) {
  join_both();
  write_file(kDataStore, R"({"default-level": 2, "services": {)"
                         R"("web": {"display-name": "wrong", "current-level": 3},)"
                         R"("gone": {"display-name": "", "current-level": 1}}})");
  const Outcome outcome = run({"regen"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "ssh: added\nweb: changed\n");
  EXPECT_TRUE(contains(outcome.err, "gone has an entry but no descriptor"));
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_EQ(read_json(kDataStore)["services"]["web"]["display-name"], "Web server");
  EXPECT_EQ(run_json("regen").document["added"].size(), 0u);
}

TEST_F(KelotlsctlApply, RegeneratesEntriesWithoutALevel) {
  join_both();
  write_file(kDataStore, R"({"default-level": 2, "services": {"web": {"display-name": ""}}})");
  EXPECT_EQ(run({"regen"}).status, 0);
  EXPECT_EQ(run({"list"}).status, 0);
  EXPECT_EQ(stored_level("web"), 0);
}

TEST_F(KelotlsctlApply, NamesDescriptorsThatItPassesOver) {
  join_both();
  write_file(descriptor_path("bad"), "{");
  const JsonOutcome outcome = run_json("regen");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.document["unreadable"][0], descriptor_path("bad"));
}

TEST_F(KelotlsctlApply, StopsBeforeADescriptorThatTheLibraryCannotTake) {
  join_both();
  write_file(descriptor_path("bad"), R"({"service": {}, "display-name": ""})");
  const Lines before = tree();
  const Outcome outcome = run({"regen"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, descriptor_path("bad") + " holds a value that is no text"));
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlApply, FailsOnATemplatePathThatIsNoText) {
  join_both();
  write_file(descriptor_path("web"), R"({"service": "web", "mustache-path": {}})");
  EXPECT_EQ(run({"render"}).status, 1);
}

TEST_F(KelotlsctlApply, CannotRegenerateWithoutTheDirectory) {
  remove_all(kServices);
  const Outcome outcome = run({"regen"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, kServices));
}

TEST_F(KelotlsctlApply, SaysThatTheDataStoreWasNotRegenerated) {
  join_both();
  write_file(descriptor_path("new"), R"({"service": "new", "display-name": ""})");
  make_data_store_irreplaceable();
  const Outcome outcome = run({"regen"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "was not written"));
}

}  // namespace
}  // namespace kelotls::test
