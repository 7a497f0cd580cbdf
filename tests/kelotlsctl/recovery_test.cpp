// kelotlsctl backup, restore, init, recover, and what happens while the data store is unreadable.
#include <filesystem>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

constexpr char kBackup[] = "/tmp/levels.json";
constexpr char kFramework[] = "/usr/kelo/etc/security-profile/tls-profile/";

class KelotlsctlRecovery : public Kelotlsctl {
 protected:
  void back_up_with_web_at_old() {
    join_both();
    ASSERT_EQ(run({"set", "web", "old"}).status, 0);
    ASSERT_EQ(run({"default", "modern"}).status, 0);
    ASSERT_EQ(run({"backup", kBackup}).status, 0);
  }

  std::string quarantined_file() {
    for (const std::string& name : names_in(kFramework)) {
      if (name.find(".broken-") != std::string::npos) {
        return kFramework + name;
      }
    }
    return {};
  }
};

TEST_F(KelotlsctlRecovery, BacksUpIntoANewPrivateFile) {
  join_both();
  const Outcome outcome = run({"backup", kBackup});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "/tmp/levels.json: holds the levels of 2 services\n");
  EXPECT_EQ(mode(kBackup), 0600u);
  EXPECT_EQ(read_json(kBackup), read_json(kDataStore));
}

TEST_F(KelotlsctlRecovery, NeverReplacesAFileByABackup) {
  write_file(kBackup, "precious");
  make_link("/tmp/nowhere", "/tmp/link");
  for (const char* path : {kBackup, "/tmp/link"}) {
    const Outcome outcome = run({"backup", path});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.err, "exists already"));
  }
  EXPECT_EQ(read_file(kBackup), "precious");
  EXPECT_FALSE(exists("/tmp/nowhere"));
  EXPECT_EQ(run({"backup", "/tmp/absent/levels.json"}).status, 1);
}

TEST_F(KelotlsctlRecovery, NamesABackupAfterItsDate) {
  make_directories("/tmp/here");
  const Outcome outcome = run_program({"env", "-C", "/tmp/here", KELOTLSCTL, "backup"});
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(names_in("/tmp/here").size(), 1u);
  const std::string name = names_in("/tmp/here")[0];
  EXPECT_EQ(name.size(), std::string("kelotls-levels-20270131-235959.json").size());
  EXPECT_EQ(name.compare(0, 17, "kelotls-levels-20"), 0);
  EXPECT_EQ(outcome.out, name + ": holds the levels of 0 services\n");
}

TEST_F(KelotlsctlRecovery, BacksUpAndRestoresByTheSchemas) {
  join_both();
  EXPECT_EQ(run_json("backup", {kBackup}).document["services"], 2);
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  const JsonOutcome outcome = run_json("restore", {kBackup});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["changes"][0]["service"], "web");
  EXPECT_EQ(outcome.document["changes"][0]["from"]["name"], "old");
  EXPECT_EQ(outcome.document["changes"][0]["to"]["name"], "default");
}

TEST_F(KelotlsctlRecovery, BacksUpToTheStandardOutputAndRestoresFromTheStandardInput) {
  back_up_with_web_at_old();
  const Lines before = names_in(".");
  const Outcome backup = run({"backup", "-"});
  EXPECT_EQ(backup.out, read_file(kBackup));
  EXPECT_EQ(names_in("."), before);
  const JsonOutcome as_json = run_json("backup", {"-"});
  EXPECT_EQ(as_json.document["backup"], read_json(kBackup));
  EXPECT_FALSE(run_json("backup", {"-", "--dry-run"}).document.isMember("backup"));
  EXPECT_EQ(run({"backup", "-", "--dry-run"}).out, "-: would hold the levels of 2 services\n");

  ASSERT_EQ(run({"set", "web", "modern"}).status, 0);
  EXPECT_EQ(run({"restore", "-"}, backup.out).out, "web: modern became old\n");
  EXPECT_EQ(stored_level("web"), 3);
  write_file(kDataStore, "broken");
  EXPECT_EQ(run({"recover", "--from", "-"}, backup.out).status, 0);
  EXPECT_EQ(stored_level("web"), 3);
  const Outcome refused = run({"restore", "-"}, "{");
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(contains(refused.err, "error: the standard input cannot be restored from: not a "));
}

TEST_F(KelotlsctlRecovery, RestoresLevelsAndNamesServicesThatDiffer) {
  join_both();
  write_file(kBackup, data_store_text(3, {{"web", "1"}, {"other", "2"}}));
  const Outcome outcome = run({"restore", kBackup});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "default level: intermediate became old\n"
            "web: default became modern\n"
            "other: in the backup, but has not joined; passed over\n"
            "ssh: not in the backup; keeps its level\n");
  EXPECT_EQ(stored_level("web"), 1);
  EXPECT_EQ(read_json(kDataStore)["default-level"], 3);
  EXPECT_TRUE(contains(outcome.err, "kelotlsctl: log: service entry not found. other"));
}

TEST_F(KelotlsctlRecovery, ShowsWhatARestoreWouldChange) {
  join_both();
  write_file(kBackup, data_store_text(2, {{"web", "1"}}));
  const Lines before = tree();
  const Outcome outcome = run({"restore", "--dry-run", kBackup});
  EXPECT_EQ(outcome.out,
            "web: default would become modern\n"
            "ssh: not in the backup; keeps its level\n");
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlRecovery, RefusesABackupThatTheLibraryWouldTakeForLevelZero) {
  join_both();
  const Lines before = tree();
  const std::vector<std::string> texts = {
      "",
      "{",
      "null",
      "[]",
      "{}",
      R"({"services": {}})",
      R"({"default-level": 2})",
      R"({"default-level": "2", "services": {}})",
      R"({"default-level": 2, "services": []})",
      R"({"default-level": 2, "services": {"web": 3}})",
      R"({"default-level": 2, "services": {"web": {}}})",
      R"({"default-level": 2, "services": {"web": {"display-name": "", "current-level": "1"}}})",
      R"({"default-level": 99999999999, "services": {}})",
      R"({"default-level": 2, "services": {}} x)"};
  for (const std::string& text : texts) {
    write_file(kBackup, text);
    const Outcome outcome = run({"restore", kBackup});
    EXPECT_EQ(outcome.status, 1) << text;
    EXPECT_TRUE(contains(outcome.err, "cannot be restored from")) << text;
  }
  EXPECT_EQ(run({"restore", "/tmp/absent"}).status, 1);
  EXPECT_EQ(run({"restore", "/tmp"}).status, 1);
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlRecovery, SaysThatLevelsWereNotRestored) {
  back_up_with_web_at_old();
  ASSERT_EQ(run({"set", "web", "modern"}).status, 0);
  make_data_store_irreplaceable();
  const Outcome outcome = run({"restore", kBackup});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "was not written"));
}

TEST_F(KelotlsctlRecovery, MakesTheFirstDataStoreWithItsDirectories) {
  for (const char* directory :
       {"/usr/kelo/etc", "/usr/libexec/security-profile", "/usr/local/libexec/security-profile"}) {
    remove_all(directory);
  }
  const Outcome outcome = run_program({"sh", "-c", "umask 077; exec \"$0\" init", KELOTLSCTL});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 2, "services": {}})"));
  EXPECT_EQ(mode(kDataStore), 0644u);
  for (const char* directory :
       {kServices, kConfig, kSystemReloaders, kPackageReloaders, kFramework, "/usr/kelo/etc"}) {
    EXPECT_EQ(mode(std::string(directory) + "/."), 0755u) << directory;
  }
  EXPECT_TRUE(contains(outcome.out,
                       std::string(kDataStore) + ": made with the default level intermediate\n"));
  EXPECT_EQ(run({"list"}).status, 0);
}

TEST_F(KelotlsctlRecovery, MakesTheFirstDataStoreAtTheLevelAskedFor) {
  remove_all(kDataStore);
  EXPECT_EQ(run({"init", "--default", "bogus"}).status, 2);
  const JsonOutcome outcome = run_json("init", {"--default", "Modern"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["default-level"]["value"], 1);
  EXPECT_EQ(read_json(kDataStore)["default-level"], 1);
}

TEST_F(KelotlsctlRecovery, NeverMakesADataStoreOverAnotherOne) {
  for (const std::string& text : {data_store_text(1, {{"a", "3"}}), std::string("broken")}) {
    write_file(kDataStore, text);
    const Outcome outcome = run({"init"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.err, "there is a data store already"));
    EXPECT_EQ(read_file(kDataStore), text);
  }
  remove_all(kDataStore);
  make_link("/tmp/elsewhere", kDataStore);
  EXPECT_EQ(run({"init"}).status, 1);
}

TEST_F(KelotlsctlRecovery, BringsServicesThatJoinedBeforeIntoTheFirstDataStore) {
  join_both();
  const std::string rendered = read_file(rendered_path("web"));
  remove_all(kDataStore);
  const Outcome dry = run({"init", "--dry-run"});
  EXPECT_EQ(dry.status, 0);
  EXPECT_TRUE(contains(dry.out, "web: would be taken from its descriptor\n"));
  EXPECT_FALSE(exists(kDataStore));

  const Outcome outcome = run({"init"});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(
      contains(outcome.out, "ssh: taken from its descriptor\nweb: taken from its descriptor\n"));
  EXPECT_TRUE(contains(outcome.err, "the services joined before, and their levels are lost"));
  EXPECT_TRUE(contains(outcome.err, "kelotlsctl restore"));
  EXPECT_EQ(stored_level("web"), 0);
  EXPECT_EQ(run({"list", "--names"}).out, "ssh\nweb\n");
  EXPECT_EQ(run({"check"}).out, "");
  EXPECT_EQ(read_file(rendered_path("web")), rendered);
  EXPECT_EQ(read_file(kReloaderRuns), "");
}

TEST_F(KelotlsctlRecovery, NamesDescriptorsThatTheFirstDataStorePassesOver) {
  join_both();
  write_file(descriptor_path("bad"), "{");
  remove_all(kDataStore);
  const JsonOutcome outcome = run_json("init");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.document["unreadable"][0], descriptor_path("bad"));
  EXPECT_EQ(outcome.document["services"].size(), 2u);
  EXPECT_EQ(run({"list", "--names"}).out, "ssh\nweb\n");
}

TEST_F(KelotlsctlRecovery, WritesNoFirstDataStoreThatADescriptorWouldBreak) {
  write_file(descriptor_path("bad"), R"({"service": "bad", "display-name": ["a", {}]})");
  remove_all(kDataStore);
  EXPECT_EQ(run({"init"}).status, 1);
  EXPECT_FALSE(exists(kDataStore));
}

TEST_F(KelotlsctlRecovery, LeadsBackFromADataStoreWithoutTheServices) {
  join_both();
  write_file(kDataStore, data_store_text(2, {}));
  const Outcome outcome = run({"list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err,
                       "No service has an entry in the data store, but there are "
                       "descriptors: kelotlsctl regen"));
}

TEST_F(KelotlsctlRecovery, LeadsBackFromAMissingDataStoreToTheServices) {
  const std::string way_back =
      "Services have joined before. The way back: kelotlsctl recover [--from BACKUP]";
  for (const char* const command : {"recover", "init"}) {
    join_both();
    remove_all(kDataStore);

    const Outcome list = run({"list"});
    EXPECT_EQ(list.status, 4);
    EXPECT_TRUE(contains(list.err, way_back));
    const JsonOutcome check = run_json("check");
    EXPECT_EQ(check.status, 3);
    ASSERT_EQ(check.document["findings"].size(), 1u) << check.document.toStyledString();
    EXPECT_EQ(check.document["findings"][0]["action"], way_back);

    EXPECT_EQ(run({command}).status, 0);
    EXPECT_EQ(run({"list", "--names"}).out, "ssh\nweb\n");
    EXPECT_EQ(run({"apply"}).status, 0);
    EXPECT_EQ(run({"check"}).err, "Nothing is wrong.\n");
  }
}

TEST_F(KelotlsctlRecovery, LetsOnlyOneOfManyMakeTheFirstDataStore) {
  remove_all(kDataStore);
  // All of them look, find no data store and wait for the lock.
  const Outcome outcome = run_program(
      {"bash", "-c",
       "exec 9< \"$1\"; flock 9; "
       "for i in 1 2 3 4 5 6; do (\"$0\" init > /dev/null 2> /tmp/init$i; echo $?) 9<&- & done; "
       "for i in 1 2 3 4 5 6; do until grep -q waiting /tmp/init$i; do sleep 0.02; done; done; "
       "exec 9<&-; wait",
       KELOTLSCTL, kLock});
  std::size_t done = 0;
  for (const char status : outcome.out) {
    done += status == '0' ? 1 : 0;
  }
  EXPECT_EQ(outcome.out.size(), 12u);
  EXPECT_EQ(done, 1u) << outcome.out << outcome.err;
}

TEST_F(KelotlsctlRecovery, RecoversFromABrokenDataStore) {
  back_up_with_web_at_old();
  write_file(kDataStore, "{\"default-level\"");

  const Outcome outcome = run({"recover", "--from", kBackup});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_EQ(stored_level("ssh"), 0);
  EXPECT_EQ(read_json(kDataStore)["default-level"], 1);
  ASSERT_NE(quarantined_file(), "");
  EXPECT_EQ(read_file(quarantined_file()), "{\"default-level\"");
  EXPECT_EQ(outcome.out, "broken data store: quarantined as " + quarantined_file() +
                             "\ndata store: written with the default level modern\n"
                             "ssh: taken from its descriptor\n"
                             "web: taken from its descriptor\n"
                             "web: old taken from the backup\n");
  EXPECT_EQ(run({"apply"}).status, 0);
}

TEST_F(KelotlsctlRecovery, RecoversAMissingDataStoreAtTheLevelAskedFor) {
  back_up_with_web_at_old();
  remove_all(kDataStore);
  const JsonOutcome outcome = run_json("recover", {"--default", "old", "--from", kBackup});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(outcome.document["quarantined"].isNull());
  EXPECT_EQ(outcome.document["restored"][0]["level"]["name"], "old");
  EXPECT_EQ(read_json(kDataStore)["default-level"], 3);
  EXPECT_EQ(quarantined_file(), "");
}

TEST_F(KelotlsctlRecovery, RecoversWithoutABackup) {
  back_up_with_web_at_old();
  write_file(kDataStore, "null");
  EXPECT_EQ(run({"recover"}).status, 0);
  EXPECT_EQ(stored_level("web"), 0);
  EXPECT_EQ(read_json(kDataStore)["default-level"], 2);
  EXPECT_EQ(read_json(kDataStore)["services"].size(), 2u);
}

TEST_F(KelotlsctlRecovery, KeepsEveryBrokenFile) {
  for (const char* text : {"first", "second", "third"}) {
    write_file(kDataStore, text);
    ASSERT_EQ(run({"recover"}).status, 0);
  }
  std::string kept;
  for (const std::string& name : names_in(kFramework)) {
    if (name.find(".broken-") != std::string::npos) {
      kept += read_file(kFramework + name) + " ";
    }
  }
  EXPECT_TRUE(contains(kept, "first"));
  EXPECT_TRUE(contains(kept, "second"));
  EXPECT_TRUE(contains(kept, "third"));
}

TEST_F(KelotlsctlRecovery, RecoversWithTheModeOfTheBrokenFile) {
  write_file(kDataStore, "broken");
  std::filesystem::permissions(kDataStore, std::filesystem::perms(0640));
  EXPECT_EQ(run({"recover"}).status, 0);
  EXPECT_EQ(mode(kDataStore), 0640u);
}

TEST_F(KelotlsctlRecovery, RecoversFromADirectoryInThePlaceOfTheDataStore) {
  remove_all(kDataStore);
  make_directories(std::string(kDataStore) + "/inside");
  EXPECT_EQ(run({"list"}).status, 4);
  EXPECT_EQ(run({"recover"}).status, 0);
  EXPECT_TRUE(exists(quarantined_file() + "/inside"));
  EXPECT_EQ(run({"list"}).status, 0);
}

TEST_F(KelotlsctlRecovery, RefusesToRecoverWhatIsFine) {
  join_both();
  const Lines before = tree();
  const Outcome outcome = run({"recover"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "is fine"));
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlRecovery, TouchesNothingWhenTheBackupCannotBeUsed) {
  join_both();
  write_file(kDataStore, "broken");
  write_file(kBackup, "broken too");
  const Lines before = tree();
  EXPECT_EQ(run({"recover", "--from", kBackup}).status, 1);
  EXPECT_EQ(run({"recover", "--default", "x"}).status, 2);
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlRecovery, NamesDescriptorsThatCannotBeRecovered) {
  join_both();
  write_file(descriptor_path("bad"), "{");
  write_file(kDataStore, "broken");
  const JsonOutcome outcome = run_json("recover");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.document["unreadable"][0], descriptor_path("bad"));
  EXPECT_EQ(run({"list"}).status, 0);
}

// While the data store is unreadable

struct BrokenStore {
  const char* name;
  const char* text;  ///< null: the file is missing
};

void PrintTo(const BrokenStore& value, std::ostream* out) { *out << value.name; }

class UnreadableStore : public KelotlsctlRecovery,
                        public ::testing::WithParamInterface<BrokenStore> {};

TEST_P(UnreadableStore, IsOverwrittenByNoCommand) {
  join_both();
  write_file("/tmp/web.json", web_registration());
  ASSERT_EQ(run({"backup", kBackup}).status, 0);
  remove_all(kDataStore);
  if (GetParam().text != nullptr) {
    write_file(kDataStore, GetParam().text);
  }
  const Lines before = tree();

  const std::vector<Arguments> commands = {{"set", "web", "old"},
                                           {"set", "web", "old", "--apply"},
                                           {"default", "old"},
                                           {"join", "/tmp/web.json"},
                                           {"leave", "/tmp/web.json"},
                                           {"regen"},
                                           {"render"},
                                           {"reload"},
                                           {"apply"},
                                           {"backup", "/tmp/another.json"},
                                           {"restore", kBackup},
                                           {},
                                           {"list"},
                                           {"list", "--names"},
                                           {"show", "web"},
                                           {"get", "web"},
                                           {"default"},
                                           {"explain", "web"},
                                           {"probe", "web"},
                                           {"render", "--check"},
                                           {"set", "web", "old", "--dry-run"},
                                           {"apply", "--dry-run"}};
  for (const Arguments& command : commands) {
    const Outcome outcome = run(command);
    const std::string name = command.empty() ? "(none)" : command[0];
    EXPECT_EQ(outcome.status, 4) << name << outcome.err;
    EXPECT_EQ(outcome.out, "") << name;
    EXPECT_TRUE(contains(outcome.err, "kelotlsctl recover")) << name;
  }

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(read_file(kReloaderRuns), "");
  EXPECT_FALSE(exists("/tmp/another.json"));
}

TEST_P(UnreadableStore, CanBeRecovered) {
  join_both();
  remove_all(kDataStore);
  if (GetParam().text != nullptr) {
    write_file(kDataStore, GetParam().text);
  }
  EXPECT_EQ(run({"check"}).status, 3);
  EXPECT_EQ(run({"recover"}).status, 0);
  EXPECT_EQ(run({"set", "web", "old", "--apply"}).status, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Kelotlsctl, UnreadableStore,
    ::testing::Values(
        BrokenStore{"Missing", nullptr}, BrokenStore{"Empty", ""},
        BrokenStore{"CutShort", "{\"default-level\": 2, \"serv"}, BrokenStore{"Null", "null"},
        BrokenStore{"NoServices", "{\"default-level\": 2}"},
        BrokenStore{"NoDefault", "{\"services\": {}}"},
        BrokenStore{"EntryIsNoObject", "{\"default-level\": 2, \"services\": {\"a\": 5}}"},
        BrokenStore{"DefaultIsText", "{\"default-level\": \"2\", \"services\": {}}"},
        BrokenStore{"DefaultIsTooLarge", "{\"default-level\": 9999999999, \"services\": {}}"},
        BrokenStore{"NullLevel",
                    "{\"default-level\": 2, \"services\": {\"web\": "
                    "{\"display-name\": \"\", \"current-level\": null}}}"}),
    [](const auto& suite) { return suite.param.name; });

TEST_F(KelotlsctlRecovery, NamesRootToThoseWhoMayNotRead) {
  std::filesystem::permissions(kDataStore, std::filesystem::perms::none);
  const Outcome outcome =
      run_program({"setpriv", "--inh-caps", "-dac_override,-dac_read_search", "--bounding-set",
                   "-dac_override,-dac_read_search", KELOTLSCTL, "list"});
  EXPECT_EQ(outcome.status, 4) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "may not be read"));
}

TEST_F(KelotlsctlRecovery, NamesInitOnAFreshAppliance) {
  remove_all(kDataStore);
  const Outcome outcome = run({"list"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_TRUE(contains(outcome.err, "kelotlsctl init"));
  remove_all(kFramework);
  EXPECT_TRUE(contains(run({"set", "a", "old"}).err, "kelotlsctl init"));
}

}  // namespace
}  // namespace kelotls::test
