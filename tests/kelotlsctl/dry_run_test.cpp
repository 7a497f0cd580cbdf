// --dry-run of every command that writes: it says what would be done, and does nothing.
#include <algorithm>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

struct DryRun {
  std::string name;
  Arguments command;
  std::string says;
};

void PrintTo(const DryRun& value, std::ostream* out) { *out << value.name; }

class KelotlsctlDryRun : public Kelotlsctl, public ::testing::WithParamInterface<DryRun> {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    join_both();
    write_file("/tmp/web.json", web_registration());
    write_file("/tmp/new.json", R"({"services": [{"service": "new", "display-name": ""}]})");
    write_file("/tmp/levels.json", data_store_text(1, {{"web", "3"}}));
    ASSERT_EQ(run({"set", "web", "old"}).status, 0);
    write_file(descriptor_path("late"), R"({"service": "late", "display-name": ""})");
    log();
  }
};

TEST_P(KelotlsctlDryRun, SaysWhatWouldBeDoneAndChangesNothing) {
  const std::string first = GetParam().command[0];
  if (first == "recover") {
    write_file(kDataStore, "broken");
  } else if (first == "init") {
    remove_all(kDataStore);
    remove_all(kConfig);
  } else if (first == "dh") {
    remove_all(std::string(kSslDir) + "dh1024.pem");
  }
  const Lines before = tree();
  const Lines temporary_before = names_in("/tmp");
  Arguments command = GetParam().command;
  command.push_back("--dry-run");

  const Outcome outcome = run(command);
  const Arguments rest(command.begin() + 1, command.end());
  const JsonOutcome as_json = run_json(first, rest);

  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, GetParam().says));
  EXPECT_EQ(as_json.status, 0);
  for (const char* key : {"written", "run", "applied"}) {
    EXPECT_FALSE(as_json.document.get(key, false).asBool()) << key;
  }
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(read_file(kReloaderRuns), "");
  for (const std::string& name : names_in("/tmp")) {
    EXPECT_TRUE(name.compare(0, 3, "run") == 0 ||
                std::find(temporary_before.begin(), temporary_before.end(), name) !=
                    temporary_before.end())
        << name;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kelotlsctl, KelotlsctlDryRun,
    ::testing::Values(
        DryRun{"Set", {"set", "web", "modern"}, "web: old would become modern\n"},
        DryRun{"SetApply", {"set", "web", "modern", "--apply"}, "web: old would become modern\n"},
        DryRun{"Default", {"default", "old"}, "default level: intermediate would become old\n"},
        DryRun{"Join", {"join", "/tmp/new.json"}, "new: would join\n"},
        DryRun{"Leave",
               {"leave", "/tmp/web.json"},
               "web: would leave\n  would remove /usr/local/libexec/security-profile/"},
        DryRun{"Regen", {"regen"}, "late: would be added\n"},
        DryRun{"Render", {"render"}, "config/web.conf would change\n"},
        DryRun{"Reload", {"reload"}, "tls-profile/web.conf: would be run\n"},
        DryRun{"Apply", {"apply"}, "config/web.conf would change\n"},
        DryRun{"Backup", {"backup", "/tmp/out.json"}, "would hold the levels of 2 services\n"},
        DryRun{"Restore",
               {"restore", "/tmp/levels.json"},
               "default level: intermediate would become modern\n"},
        DryRun{"Init", {"init"}, "tls-profile/config/: would be made\n"},
        DryRun{"Recover",
               {"recover", "--from", "/tmp/levels.json"},
               "web: old would be taken from the backup\n"},
        DryRun{"Address",
               {"address", "web", "localhost:443"},
               "web: none would become localhost:443\n"},
        DryRun{"Dh",
               {"dh"},
               "dh2048.pem: stays as it is\n"
               "/usr/kelo/etc/ssl/dh1024.pem: would be made with a new prime of 1024 bits\n"}),
    [](const auto& suite) { return suite.param.name; });

}  // namespace
}  // namespace kelotls::test
