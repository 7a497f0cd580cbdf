// kelotlsctl check: each thing that can be wrong, made so, is found; and nothing else is.
#include <sys/stat.h>

#include <algorithm>
#include <functional>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

constexpr char kFramework[] = "/usr/kelo/etc/security-profile/tls-profile";

/// What is found besides where a service's level or files changed.
std::string web_not_reloaded() {
  return "note: " + descriptor_path("web") + ": web has not been reloaded since its level changed";
}

/// One thing put wrong, and what is to be said of it.
struct Fault {
  std::string name;
  std::function<void()> make;
  std::string severity;
  std::string path;
  std::string text;
  Lines also = {};  ///< what follows from it: severity, path and text of each other finding
};

void PrintTo(const Fault& value, std::ostream* out) { *out << value.name; }

class KelotlsctlCheck : public Kelotlsctl, public ::testing::WithParamInterface<Fault> {};

void set_mode(const std::string& path, mode_t mode) { ASSERT_EQ(::chmod(path.c_str(), mode), 0); }

void change_store(const std::function<void(Json::Value&)>& change) {
  Json::Value store = read_json(kDataStore);
  change(store);
  write_file(kDataStore, store.toStyledString());
}

TEST_F(KelotlsctlCheck, FindsNothingWrongWithAHealthyAppliance) {
  join_both();
  const Outcome outcome = run({"check"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "Nothing is wrong.\n");
  const JsonOutcome as_json = run_json("check");
  EXPECT_EQ(as_json.document["healthy"], true);
  EXPECT_EQ(as_json.document["findings"].size(), 0u);
}

TEST_F(KelotlsctlCheck, FindsNothingWrongWithAReloadOfNoService) {
  write_file(kDataStore, data_store_text(2, {}));
  ASSERT_EQ(run({"reload"}).status, 0);
  ASSERT_TRUE(exists(kStamp));

  EXPECT_FALSE(contains(run({"check"}).out, kStamp));
}

TEST_F(KelotlsctlCheck, OnlyNotesLevelsThatAreNotInForce) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  const JsonOutcome outcome = run_json("check");
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.document["findings"].size(), 1u);
  EXPECT_EQ(outcome.document["findings"][0]["severity"], "note");
  EXPECT_EQ(outcome.document["findings"][0]["path"], rendered_path("web"));
}

TEST_F(KelotlsctlCheck, DoesNotSayThatNothingIsWrongBelowAFinding) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  const Outcome noted = run({"check"});
  EXPECT_EQ(noted.status, 0);
  EXPECT_EQ(noted.err, "Nothing is wrong beyond what is noted above.\n");
  remove_all(kTemplate);
  const Outcome wrong = run({"check"});
  EXPECT_EQ(wrong.status, 3);
  EXPECT_EQ(wrong.err, "");
}

TEST_F(KelotlsctlCheck, LooksAtNamedServicesAlone) {
  join_both();
  remove_all(descriptor_path("ssh"));
  remove_all(std::string(kSslDir) + "dh2048.pem");
  make_link("/usr/bin/true", link_path("gone"));
  write_file(rendered_path("gone"), "");
  write_file(rendered_path("ssh") + ".a1B2c3", "");
  const Outcome web = run({"check", "web"});
  EXPECT_EQ(web.status, 0);
  EXPECT_EQ(web.out + web.err, "Nothing is wrong.\n");
  for (const char* const request : {"ssh", "s*"}) {
    const JsonOutcome ssh = run_json("check", {request});
    EXPECT_EQ(ssh.status, 3);
    ASSERT_EQ(ssh.document["findings"].size(), 2u) << ssh.document.toStyledString();
    EXPECT_EQ(ssh.document["findings"][0]["path"], descriptor_path("ssh"));
    EXPECT_EQ(ssh.document["findings"][1]["path"], rendered_path("ssh") + ".a1B2c3");
  }
  EXPECT_EQ(run_json("check").document["findings"].size(), 5u);
}

TEST_F(KelotlsctlCheck, FindsInANamedServiceWhatItFindsInAll) {
  join_both();
  set_mode(kReloader, 0777);
  write_file(kTemplate, "{{#a}}");
  write_file(descriptor_path("ssh"), "{");
  const JsonOutcome all = run_json("check");
  const JsonOutcome named = run_json("check", {"web", "ssh"});
  EXPECT_EQ(named.status, 3);
  EXPECT_EQ(named.document, all.document);
}

TEST_F(KelotlsctlCheck, LooksAtTheDataStoreWhateverIsNamed) {
  join_both();
  set_mode(kDataStore, 0666);
  EXPECT_EQ(run_json("check", {"web"}).document["findings"][0]["path"], kDataStore);
  write_file(kDataStore, "{");
  const JsonOutcome outcome = run_json("check", {"web"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(contains(outcome.document["findings"][0]["text"].asString(), "cannot be used"));
}

TEST_F(KelotlsctlCheck, RefusesToLookAtAServiceThatHasNotJoined) {
  join_both();
  EXPECT_EQ(run({"check", "wbe"}).status, 10);
  EXPECT_EQ(run({"check", "x*"}).status, 10);
}

TEST_F(KelotlsctlCheck, SumsUpAThousandPendingServices) {
  std::string services;
  for (int number = 1000; number < 2000; ++number) {
    const std::string name = "s" + std::to_string(number);
    services += (services.empty() ? "" : ",") + ("{\"service\": \"" + name) +
                R"(", "display-name": "", "reloader-path": "/usr/bin/true"})";
  }
  ASSERT_EQ(run({"join", "-"}, "{\"services\": [" + services + "]}").status, 0);
  const auto lines = [](const Outcome& outcome) {
    const std::string text = outcome.out + outcome.err;
    return std::count(text.begin(), text.end(), '\n');
  };

  const Outcome summary = run({"check"});
  EXPECT_EQ(summary.status, 0);
  EXPECT_LE(lines(summary), 50);
  EXPECT_TRUE(contains(summary.out, "s1000 has not been reloaded since its level changed\n"));
  EXPECT_TRUE(
      contains(summary.out, "and 976 more services that are pending: kelotlsctl check --all\n"));

  const Outcome all = run({"check", "--all"});
  EXPECT_EQ(lines(all), 2001);
  EXPECT_TRUE(contains(all.out, "s1999 has not been reloaded since its level changed\n"));
  EXPECT_EQ(run_json("check").document["findings"].size(), 1000u);
}

TEST_F(KelotlsctlCheck, KeepsWhatIsWrongOutOfTheSum) {
  std::string services;
  for (int number = 0; number < 60; ++number) {
    services += (services.empty() ? "" : ",") + ("{\"service\": \"s" + std::to_string(number)) +
                R"(", "display-name": "", "reloader-path": "/usr/bin/true"})";
  }
  ASSERT_EQ(run({"join", "-"}, "{\"services\": [" + services + "]}").status, 0);
  remove_all(descriptor_path("s9"));
  const Outcome outcome = run({"check"});
  EXPECT_TRUE(contains(outcome.out, "error: " + descriptor_path("s9") + ": is missing"));
}

TEST_F(KelotlsctlCheck, AdvisesAgainstNoFileOfAServiceThatHasADescriptor) {
  join_both();
  for (const auto& text : {std::string(), data_store_text(2, {})}) {
    remove_all(kDataStore);
    if (!text.empty()) {
      write_file(kDataStore, text);
    }
    const Outcome outcome = run({"check"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_FALSE(contains(outcome.out, "\n  remove it\n"));
    EXPECT_FALSE(contains(outcome.out, "belongs to no service"));
    EXPECT_TRUE(contains(outcome.out, text.empty() ? "kelotlsctl recover" : "kelotlsctl regen"));
  }
}

TEST_P(KelotlsctlCheck, FindsWhatIsWrong) {
  join_both();
  GetParam().make();
  const Lines before = tree();

  const JsonOutcome outcome = run_json("check");

  EXPECT_EQ(outcome.status, GetParam().severity == "note" ? 0 : 3);
  Lines others;
  int count = 0;
  for (const Json::Value& finding : outcome.document["findings"]) {
    EXPECT_NE(finding["action"], "") << finding.toStyledString();
    const std::string text = finding["text"].asString();
    if (finding["severity"] == GetParam().severity && finding["path"] == GetParam().path &&
        text.find(GetParam().text) != std::string::npos) {
      ++count;
    } else {
      others.push_back(finding["severity"].asString() + ": " + finding["path"].asString() + ": " +
                       text);
    }
  }
  EXPECT_EQ(count, 1) << outcome.document.toStyledString();
  EXPECT_EQ(others, GetParam().also);
  const Outcome text = run({"check"});
  EXPECT_EQ(text.status, outcome.status);
  EXPECT_TRUE(contains(text.out, GetParam().severity + ": " + GetParam().path + ": "));
  EXPECT_EQ(tree(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Kelotlsctl, KelotlsctlCheck,
    ::testing::Values(
        Fault{"StoreMissing", [] { remove_all(kDataStore); }, "error", kDataStore, "is missing"},
        Fault{"StoreCutShort", [] { write_file(kDataStore, "{"); }, "error", kDataStore,
              "cannot be used: not a JSON text"},
        Fault{"EntryIsNoObject",
              [] { write_file(kDataStore, R"({"default-level": 2, "services": {"a": 5}})"); },
              "error", kDataStore, "cannot be used: $.services.a is a number, must be an object"},
        Fault{"DefaultLevelZero",
              [] { change_store([](Json::Value& store) { store["default-level"] = 0; }); },
              "warning",
              kDataStore,
              "the default level is 0",
              {web_not_reloaded()}},
        Fault{"LevelWithoutAName",
              [] {
                change_store(
                    [](Json::Value& store) { store["services"]["web"]["current-level"] = 9; });
              },
              "warning",
              kDataStore,
              "the level of web is 9: it counts as intermediate",
              {web_not_reloaded()}},
        Fault{"NegativeLevel",
              [] {
                change_store(
                    [](Json::Value& store) { store["services"]["web"]["current-level"] = -4; });
              },
              "error", kDataStore, "the level of web is -4: it gives no context"},
        Fault{"NameThatEscapes",
              [] {
                change_store([](Json::Value& store) {
                  store["services"]["../config/x"]["display-name"] = "";
                });
              },
              "error", kDataStore, "the service name \"../config/x\" holds a \"/\""},
        Fault{"DescriptorMissing", [] { remove_all(descriptor_path("web")); }, "error",
              descriptor_path("web"), "is missing"},
        Fault{"DescriptorCutShort", [] { write_file(descriptor_path("web"), "{"); }, "error",
              descriptor_path("web"), "is no descriptor"},
        Fault{"DescriptorIsNoObject", [] { write_file(descriptor_path("web"), "[]"); }, "error",
              descriptor_path("web"), "it is no JSON object"},
        Fault{"DescriptorWithAFault",
              [] { write_file(descriptor_path("web"), R"({"service": "web"})"); },
              "error",
              descriptor_path("web"),
              "lacks \"display-name\"",
              {"warning: " + descriptor_path("web") + ": the display name is not the data store's",
               web_not_reloaded()}},
        Fault{"DescriptorOfAnother",
              [] {
                write_file(descriptor_path("alias"), R"({"service": "web", "display-name": ""})");
              },
              "error", descriptor_path("alias"),
              "is not the descriptor of the service that it names, web"},
        Fault{
            "DescriptorWithoutEntry",
            [] { write_file(descriptor_path("new"), R"({"service": "new", "display-name": ""})"); },
            "error", descriptor_path("new"), "has no entry in the data store"},
        Fault{"DisplayNameDiffers",
              [] {
                change_store(
                    [](Json::Value& store) { store["services"]["web"]["display-name"] = "x"; });
              },
              "warning", descriptor_path("web"), "the display name is not the data store's"},
        Fault{"DirectoryAmongDescriptors", [] { make_directories(std::string(kServices) + "old"); },
              "warning", std::string(kServices) + "old", "is a directory"},
        Fault{"TemplateMissing", [] { remove_all(kTemplate); }, "error", kTemplate, "is missing"},
        Fault{"TemplateBroken", [] { write_file(kTemplate, "{{#a}}"); }, "error", kTemplate,
              "cannot be rendered"},
        Fault{"LinkElsewhere",
              [] {
                remove_all(link_path("web"));
                make_link("/usr/bin/true", link_path("web"));
              },
              "warning", link_path("web"), "leads to /usr/bin/true"},
        Fault{"LinkMissing", [] { remove_all(link_path("web")); }, "note", link_path("web"),
              "a reloader that is not linked"},
        Fault{"FileInThePlaceOfALink",
              [] {
                remove_all(link_path("web"));
                write_program(link_path("web"), "#!/bin/sh\n");
              },
              "warning", link_path("web"), "is no link"},
        Fault{"LinkOfNobody", [] { make_link("/usr/bin/true", link_path("gone")); }, "warning",
              link_path("gone"), "belongs to no service"},
        Fault{"ReloaderMissing", [] { remove_all(kReloader); }, "error", link_path("web"),
              "the reloader cannot be run: No such file"},
        Fault{"ReloaderNotExecutable", [] { set_mode(kReloader, 0644); }, "error", link_path("web"),
              "is not executable"},
        Fault{"ReloaderForAllToChange", [] { set_mode(kReloader, 0777); }, "error",
              link_path("web"), "others may change it"},
        Fault{"SystemReloaderNotExecutable",
              [] { write_file(std::string(kSystemReloaders) + "base", ""); }, "error",
              std::string(kSystemReloaders) + "base", "is not executable"},
        Fault{"DhFileMissing", [] { remove_all(std::string(kSslDir) + "dh2048.pem"); }, "warning",
              std::string(kSslDir) + "dh2048.pem", "level intermediate offers no DHE suite"},
        Fault{"DhFileBroken", [] { write_file(std::string(kSslDir) + "dh1024.pem", "x"); },
              "warning", std::string(kSslDir) + "dh1024.pem", "holds no DH parameters"},
        Fault{"DhFileOfAnotherSize",
              [] {
                write_file(std::string(kSslDir) + "dh1024.pem", test_data("bed/data/dh2048.pem"));
              },
              "warning", std::string(kSslDir) + "dh1024.pem", "of 2048 bits, not 1024"},
        Fault{"DirectoryMissing", [] { remove_all(kSystemReloaders); }, "error", kSystemReloaders,
              "No such file or directory"},
        Fault{"DirectoryForAllToChange", [] { set_mode(kServices, 0777); }, "error", kServices,
              "others than its owner may change it"},
        Fault{"DirectoryClosed", [] { set_mode(kConfig, 0700); }, "warning", kConfig,
              "services that are not root cannot read it"},
        Fault{"StoreForAllToChange", [] { set_mode(kDataStore, 0666); }, "error", kDataStore,
              "others than its owner may change it"},
        Fault{"StoreClosed", [] { set_mode(kDataStore, 0600); }, "warning", kDataStore,
              "services that are not root cannot read it"},
        Fault{"TemporaryRenderedFile", [] { write_file(rendered_path("web") + ".a1B2c3", ""); },
              "warning", rendered_path("web") + ".a1B2c3", "was left behind"},
        Fault{"TemporaryDataStore", [] { write_file(std::string(kDataStore) + ".123-0", ""); },
              "warning", std::string(kDataStore) + ".123-0", "was left behind"},
        Fault{"RenderedFileOfNobody", [] { write_file(rendered_path("gone"), ""); }, "warning",
              rendered_path("gone"), "belongs to no service"},
        Fault{"StampBroken",
              [] { write_file(kStamp, "x"); },
              "warning",
              kStamp,
              "cannot be used",
              {web_not_reloaded()}}),
    [](const auto& suite) { return suite.param.name; });

TEST_F(KelotlsctlCheck, ReportsEverythingAtOnce) {
  remove_all(kFramework);
  remove_all(kSslDir);
  const JsonOutcome outcome = run_json("check");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_GE(outcome.document["findings"].size(), 6u);
}

}  // namespace
}  // namespace kelotls::test
