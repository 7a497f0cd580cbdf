// The trace that changes leave: kelotlsctl history, the file behind it, the line in the system log.
#include <sys/stat.h>

#include <regex>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

class KelotlsctlHistory : public Kelotlsctl {
 protected:
  static Json::Value changes(const Arguments& arguments = {}) {
    const JsonOutcome outcome = run_json("history", arguments);
    EXPECT_EQ(outcome.status, 0);
    return outcome.document["changes"];
  }

  /// "COMMAND: SERVICE FROM TO, ...: RESULT", of each change on record.
  static Lines summaries(const Arguments& arguments = {}) {
    Lines lines;
    for (const Json::Value& change : changes(arguments)) {
      std::string line = change["command"].asString() + ":";
      for (const Json::Value& entry : change["changes"]) {
        line += " " + entry["service"].asString();
        if (entry.isMember("to")) {
          line += " " + entry["from"].asString() + " " + entry["to"].asString();
        }
      }
      lines.push_back(line + ": " + change["result"].asString());
    }
    return lines;
  }

  Lines audit_lines() {
    Lines lines;
    for (const std::string& line : log()) {
      if (line.rfind("<85>", 0) == 0) {  // LOG_AUTHPRIV | LOG_NOTICE
        lines.push_back(line.substr(4));
      }
    }
    return lines;
  }
};

TEST_F(KelotlsctlHistory, IsEmptyAtFirst) {
  const Outcome outcome = run({"history"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "No change is on record.\n");
}

TEST_F(KelotlsctlHistory, RecordsEveryKindOfChange) {
  join_web();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  ASSERT_EQ(run({"default", "modern"}).status, 0);
  ASSERT_EQ(run({"backup", "/tmp/backup"}).status, 0);
  ASSERT_EQ(run({"apply"}).status, 0);
  ASSERT_EQ(run({"render"}).status, 0);
  ASSERT_EQ(run({"reload"}).status, 0);
  ASSERT_EQ(run({"regen"}).status, 0);
  ASSERT_EQ(run({"set", "web", "modern"}).status, 0);
  ASSERT_EQ(run({"restore", "/tmp/backup"}).status, 0);
  ASSERT_EQ(run({"leave", "-"}, web_registration()).status, 0);
  write_file(kDataStore, "{");
  ASSERT_EQ(run({"recover", "--default", "old"}).status, 0);
  remove_all(kDataStore);
  ASSERT_EQ(run({"init"}).status, 0);

  EXPECT_EQ(summaries(),
            (Lines{"join: web: done", "set: web default old: done",
                   "default: default level intermediate modern: done", "apply: web: done",
                   "render: web: done", "reload: web: done", "regen:: done",
                   "set: web old modern: done", "restore: web modern old: done", "leave: web: done",
                   "outside:: done", "recover: default level none old: done", "outside:: done",
                   "init: default level none intermediate: done"}));
}

TEST_F(KelotlsctlHistory, RecordsNothingWhereNothingIsWritten) {
  join_both();
  const Lines before = summaries();
  for (const Arguments& command :
       {Arguments{"set", "web", "old", "--dry-run"}, Arguments{"list"}, Arguments{"check"},
        Arguments{"render", "--check"}, Arguments{"default"}, Arguments{"apply", "--dry-run"},
        Arguments{"set", "missing", "old"}, Arguments{"backup", "/tmp/backup"}}) {
    run(command);
    EXPECT_EQ(summaries(), before) << command[0];
  }
}

TEST_F(KelotlsctlHistory, ShowsWhatConcernsOneService) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  ASSERT_EQ(run({"set", "ssh", "modern"}).status, 0);
  ASSERT_EQ(run({"set", "ssh", "web", "intermediate"}).status, 0);
  const Lines shown = summaries({"ssh"});
  EXPECT_EQ(shown.back(), "set: ssh modern intermediate: done");
  EXPECT_EQ(shown[shown.size() - 2], "set: ssh default modern: done");
  for (const std::string& line : shown) {
    EXPECT_TRUE(contains(line, "ssh"));
    EXPECT_FALSE(contains(line, "web"));
  }
}

TEST_F(KelotlsctlHistory, SaysWhoFromWhereAndWhy) {
  join_web();
  ASSERT_EQ(run({"set", "web", "old", "--reason", "an old printer"}, {}, {"SUDO_USER=ann"}).status,
            0);
  const Json::Value record = changes()[1];
  EXPECT_EQ(record["reason"], "an old printer");
  EXPECT_EQ(record["who"]["user"], "root");
  EXPECT_EQ(record["who"]["sudo"], "ann");
  const std::string person = record["who"].get("login", "ann").asString();
  EXPECT_TRUE(contains(run({"history"}).out, "root (" + person + ")"));
  EXPECT_EQ(record["code"], 0);
  EXPECT_TRUE(record["terminal"].isNull());
  ASSERT_EQ(run_on_terminal({"--reason", "x", "set", "web", "modern"}).status, 0);
  EXPECT_TRUE(std::regex_match(changes()[2]["terminal"].asString(), std::regex("/dev/pts/[0-9]+")));
}

TEST_F(KelotlsctlHistory, LeavesOneLineInTheSystemLog) {
  join_web();
  log();
  ASSERT_EQ(run({"set", "web", "old", "--reason", "a\nprinter"}, {}, {"SUDO_USER=ann"}).status, 0);
  const Lines lines = audit_lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex(R"(kelotlsctl set: web default -> old; by root(, login [^,;]+)?, )"
                           R"(sudo ann; reason: a\\x0aprinter; done)")))
      << lines[0];
}

TEST_F(KelotlsctlHistory, RecordsAFailure) {
  join_web();
  make_data_store_irreplaceable();
  ASSERT_EQ(run({"set", "web", "old"}).status, 1);
  EXPECT_EQ(summaries().back(), "set: web default old: failed");
  EXPECT_EQ(changes()[1]["code"], 1);
}

TEST_F(KelotlsctlHistory, RecordsThatAChangeWasUndone) {
  join_both();
  write_file(kReloaderStatus, "1");
  ASSERT_EQ(run({"set", "web", "old", "--apply"}).status, 5);
  EXPECT_EQ(summaries().back(), "set: web default old: undone");
}

TEST_F(KelotlsctlHistory, SaysWhatCameOfEachService) {
  join_both();
  write_program("/tmp/reload-other", "#!/bin/sh\n");
  write_file("/tmp/other.mustache", "other\n");
  ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "other", "display-name": "",
                  "mustache-path": "/tmp/other.mustache", "reloader-path": "/tmp/reload-other"}]})")
                .status,
            0);
  const auto last_of = [](const std::string& service) {
    const std::string text = run({"history", service}).out;
    return text.substr(text.rfind('\n', text.size() - 2) + 1);
  };
  write_file(kReloaderStatus, "1");
  for (const char* const command : {"reload", "apply"}) {
    ASSERT_EQ(run({command}).status, 5);
    EXPECT_TRUE(contains(last_of("web"), "failed")) << command;
    EXPECT_TRUE(contains(last_of("other"), "done")) << command;
  }
  write_file(kReloaderStatus, "0");
  remove_all(kTemplate);
  for (const char* const command : {"render", "apply"}) {
    ASSERT_EQ(run({command}).status, 1);
    EXPECT_TRUE(contains(last_of("web"), "failed")) << command;
    EXPECT_TRUE(contains(last_of("other"), "done")) << command;
  }
  write_program("/tmp/reload-other", "#!/bin/sh\nkill -TERM $PPID\n");  // runs before web's
  ASSERT_EQ(run({"reload"}).status, 143);
  EXPECT_TRUE(contains(last_of("web"), "interrupted"));
  EXPECT_TRUE(contains(last_of("other"), "done"));
}

TEST_F(KelotlsctlHistory, IsOnTheDiskBeforeTheFirstEffect) {
  join_web();
  write_program(kReloader, std::string("#!/bin/sh\ncp ") + kHistory + " /tmp/seen\n");
  ASSERT_EQ(run({"reload"}).status, 0);
  const std::string seen = read_file("/tmp/seen");
  EXPECT_EQ(std::count(seen.begin(), seen.end(), '\n'), 3);  // two of the join, one so far
}

TEST_F(KelotlsctlHistory, CallsAChangeWithoutAnEndInterrupted) {
  join_web();
  write_program(kReloader, "#!/bin/sh\nkill -KILL $PPID\n");
  EXPECT_EQ(run({"reload"}).status, 128 + SIGKILL);
  EXPECT_EQ(summaries().back(), "reload: web: interrupted");
  EXPECT_FALSE(changes()[1].isMember("ended"));
}

TEST_F(KelotlsctlHistory, CallsAChangeThatIsBeingMadeRunning) {
  join_web();
  write_program(kReloader, "#!/bin/sh\n" KELOTLSCTL " --json history > /tmp/history\n" KELOTLSCTL
                           " --json status > /tmp/status-of-all\n");
  ASSERT_EQ(run({"reload"}).status, 0);
  EXPECT_EQ(read_json("/tmp/history")["changes"][1]["result"], "running");
  EXPECT_TRUE(read_json("/tmp/status-of-all")["last-failure"].isNull());
  EXPECT_EQ(summaries().back(), "reload: web: done");
}

TEST_F(KelotlsctlHistory, IsForRootAlone) {
  join_web();
  struct stat status = {};
  ASSERT_EQ(::stat(kHistory, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(KelotlsctlHistory, GoesOnBehindALineThatWasCutShort) {
  join_web();
  const std::string before = read_file(kHistory);
  write_file(kHistory, before + "{\"id\": \"cut");
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  EXPECT_EQ(summaries(), (Lines{"join: web: done", "set: web default old: done"}));
  EXPECT_TRUE(contains(run({"history"}).err, std::string(kHistory) + ", line 3: is no record"));
}

TEST_F(KelotlsctlHistory, LeavesOutWhatGoesOnWithARecordThatIsGone) {
  join_web();
  const std::string end = R"({"id": "gone", "ended": "2026-11-23T00:00:00Z", "result": "done"})";
  write_file(kHistory, end + "\n" + read_file(kHistory));

  EXPECT_EQ(summaries(), Lines{"join: web: done"});
  EXPECT_TRUE(contains(run({"history"}).err, std::string(kHistory) + ", line 1: is no record"));
}

TEST_F(KelotlsctlHistory, BeginsANewFileWhenTheOldOneIsFull) {
  join_web();
  const std::string record = read_file(kHistory);
  std::string full;
  while (full.size() <= (1u << 20)) {
    full += record;
  }
  write_file(kHistory, full);
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  EXPECT_EQ(read_file(std::string(kHistory) + ".1"), full);
  EXPECT_LT(read_file(kHistory).size(), 4096u);
  EXPECT_EQ(summaries().back(), "set: web default old: done");
}

TEST_F(KelotlsctlHistory, MustBeWrittenBeforeAnythingIsChanged) {
  join_web();
  remove_all(kHistory);
  make_directories(kHistory);
  const Lines before = tree();
  const Outcome outcome = run({"set", "web", "old"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, std::string(kHistory) + ": Is a directory"));
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlHistory, IsNotWrittenThroughALink) {
  join_web();
  remove_all(kHistory);
  write_file("/tmp/other", "text");
  ASSERT_EQ(::symlink("/tmp/other", kHistory), 0);
  EXPECT_EQ(run({"set", "web", "old"}).status, 1);
  EXPECT_EQ(read_file("/tmp/other"), "text");
}

}  // namespace
}  // namespace kelotls::test
