// kelotlsctl list, show, get, and what the states of services mean.

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

class KelotlsctlLook : public Kelotlsctl {
 protected:
  std::string state_of(const std::string& service) {
    return run_json("show", {service}).document["state"].asString();
  }
};

TEST_F(KelotlsctlLook, ListsServicesWithTheirLevelsStatesAndNames) {
  join_both();
  ASSERT_EQ(run({"set", "ssh", "old"}).status, 0);

  const Outcome outcome = run({"list"});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "SERVICE  LEVEL                   STATE                           NAME\n"
            "ssh      old                     in force from its next context  Shell\n"
            "web      default → intermediate  in force                        Web server\n");
  EXPECT_EQ(outcome.err,
            "In force by their files; no running server was asked of 2: kelotlsctl address gives "
            "one.\n");
}

TEST_F(KelotlsctlLook, ListsWithoutACommand) {
  join_both();
  EXPECT_EQ(run({}).out, run({"list"}).out);
  EXPECT_NE(run({}).out, "");
}

TEST_F(KelotlsctlLook, SaysOnTheStandardErrorThatNoServiceHasJoined) {
  const Outcome outcome = run({"list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "No service has joined.\n");
}

TEST_F(KelotlsctlLook, ListsInJsonByTheSchema) {
  join_both();
  const JsonOutcome outcome = run_json("list");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["default-level"]["name"], "intermediate");
  ASSERT_EQ(outcome.document["services"].size(), 2u);
  EXPECT_EQ(outcome.document["services"][1]["service"], "web");
  EXPECT_EQ(outcome.document["services"][1]["stored-level"]["value"], 0);
  EXPECT_EQ(outcome.document["services"][1]["effective-level"]["name"], "intermediate");
}

TEST_F(KelotlsctlLook, ListsInTheOrderOfTheNumbersInNames) {
  write_file(kDataStore, data_store_text(2, {{"web10", "0"},
                                             {"web2", "0"},
                                             {"web", "0"},
                                             {"web02", "0"},
                                             {"a100b2", "0"},
                                             {"a100b10", "0"},
                                             {"a99", "0"}}));
  const std::string expected = "a99\na100b2\na100b10\nweb\nweb02\nweb2\nweb10\n";
  EXPECT_EQ(run({"list", "--names"}).out, expected);
  std::string listed;
  const Json::Value document = run_json("list").document;
  for (const Json::Value& service : document["services"]) {
    listed += service["service"].asString() + "\n";
  }
  EXPECT_EQ(listed, expected);
}

TEST_F(KelotlsctlLook, ListsServicesAtALevelAlone) {
  write_file(kDataStore,
             data_store_text(1, {{"a", "0"}, {"b", "1"}, {"c", "3"}, {"d", "9"}, {"e", "-1"}}));
  EXPECT_EQ(run({"list", "--names", "--level", "modern"}).out, "a\nb\n");
  EXPECT_EQ(run({"list", "--names", "--level", "MOZILLA_OLD"}).out, "c\n");
  EXPECT_EQ(run({"list", "--names", "--level", "intermediate"}).out, "d\n");
  EXPECT_EQ(run({"list", "--names", "--level", "default"}).out, "a\n");
  EXPECT_EQ(run_json("list", {"--level", "3"}).document["services"].size(), 1u);
  EXPECT_EQ(run({"list", "--level", "bogus"}).status, 2);
}

TEST_F(KelotlsctlLook, ListsServicesInAStateAlone) {
  join_both();
  EXPECT_EQ(run({"list", "--names", "--state", "in-force"}).out, "web\n");
  EXPECT_EQ(run({"list", "--names", "--state", "next-context"}).out, "ssh\n");
  EXPECT_EQ(run_json("list", {"--state", "in-force"}).document["services"].size(), 1u);
  EXPECT_EQ(run({"list", "--names", "--state", "in-force", "--level", "old"}).out, "");
}

TEST_F(KelotlsctlLook, SaysThatNoServiceIsAsTheFiltersAsk) {
  join_both();
  const Outcome outcome = run({"list", "--state", "cannot-render"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "No service that has joined is so.\n");
  EXPECT_EQ(run({"list", "--terse", "--state", "cannot-render"}).err, "");
}

TEST_F(KelotlsctlLook, RefusesWhatIsNoState) {
  const Outcome outcome = run({"list", "--state", "in-farce"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_TRUE(contains(outcome.err,
                       "kelotlsctl: error: \"in-farce\" is not a state; did you mean "
                       "\"in-force\"?\n  A state is in-force, pending-render, "));
}

TEST_F(KelotlsctlLook, ListsTerselyForScripts) {
  join_both();
  ASSERT_EQ(run({"set", "ssh", "old"}).status, 0);
  const Outcome outcome = run({"list", "--terse"});
  EXPECT_EQ(outcome.out,
            "ssh\told\told\tnext-context\n"
            "web\tdefault\tintermediate\tin-force\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(run_on_terminal({"list", "--terse"}, {}, 10).out,
            "ssh\told\told\tnext-context\r\n"
            "web\tdefault\tintermediate\tin-force\r\n");
}

TEST_F(KelotlsctlLook, KeepsALineALineWhenItListsTersely) {
  write_file(kDataStore,
             R"({"default-level": 2, "services": {"a\tb\nc": {"display-name": "", )"
             R"("current-level": 9}, "d": {"display-name": "", "current-level": -1}}})");
  EXPECT_EQ(run({"list", "--terse"}).out,
            "a\\x09b\\x0ac\t9\tintermediate\tcannot-render\n"
            "d\t-1\tunusable\tunusable-level\n");
}

TEST_F(KelotlsctlLook, ListsWithWhatCheckFinds) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  write_file("/usr/kelo/etc/security-profile/tls-profile/services/gone.conf", "{");

  const JsonOutcome all = run_json("list", {"--findings"});

  const Json::Value listed = run_json("list").document;
  const Json::Value checked = run_json("check").document;
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.document["services"], listed["services"]);
  EXPECT_EQ(all.document["default-level"], listed["default-level"]);
  EXPECT_EQ(all.document["findings"], checked["findings"]);
  EXPECT_GE(checked["findings"].size(), 2U);
  EXPECT_FALSE(all.document["healthy"].asBool());
  EXPECT_EQ("kelotlsctl " + all.document["version"].asString() + "\n", run({"--version"}).out);
  EXPECT_EQ(run({"list", "--findings"}).out, run({"list"}).out + run({"check"}).out);
}

TEST_F(KelotlsctlLook, ListsFindingsNeitherTerselyNorByNameNorByFilesAlone) {
  for (const char* const other : {"--terse", "--names", "--files"}) {
    const Outcome outcome = run({"list", "--findings", other});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_TRUE(contains(outcome.err, "--findings excludes --names, --terse and --files"));
  }
}

TEST_F(KelotlsctlLook, ListsNamesAloneForShells) {
  join_both();
  EXPECT_EQ(run({"list", "--names"}).out, "ssh\nweb\n");
}

TEST_F(KelotlsctlLook, AlignsColumnsByWhatATerminalShows) {
  write_file(kDataStore, R"({"default-level": 1, "services": {"ö漢": {"display-name": "x"},)"
                         R"( "abc": {"display-name": "y"}}})");
  EXPECT_EQ(run({}).out,
            "SERVICE  LEVEL             STATE               NAME\n"
            "abc      default → modern  cannot be rendered  y\n"
            "ö漢      default → modern  cannot be rendered  x\n");
}

TEST_F(KelotlsctlLook, LetsNoControlCharacterThrough) {
  write_file(kDataStore, R"({"default-level": 1, "services": {)"
                         R"("\u001b[2Jx": {"display-name": "\u0007bell\u007f"}}})");
  const Outcome outcome = run({"list"});
  EXPECT_TRUE(contains(outcome.out, "\\x1b[2Jx"));
  EXPECT_TRUE(contains(outcome.out, "\\x07bell\\x7f"));
  EXPECT_EQ(outcome.out.find('\033'), std::string::npos);
}

TEST_F(KelotlsctlLook, ShowsOneServiceWithItsFiles) {
  join_both();
  const Outcome outcome = run({"show", "web"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "service       web\n"
            "display name  Web server\n"
            "level         default → intermediate\n"
            "state         in force\n"
            "asked         its files; no running server\n"
            "since         " +
                read_json(kStamp)["services"]["web"]["since"].asString() + "\n" + "descriptor    " +
                descriptor_path("web") + "\n" +
                "template      /tmp/web.mustache\n"
                "rendered      " +
                rendered_path("web") + "\n" +
                "reloader      /tmp/reload-web\n"
                "link          " +
                link_path("web") + " → /tmp/reload-web\n");
}

TEST_F(KelotlsctlLook, ShowsAServiceWithoutFilesByTheSchema) {
  join_both();
  const Json::Value document = run_json("show", {"ssh"}).document;
  EXPECT_TRUE(document["template"].isNull());
  EXPECT_TRUE(document["reloader-link"].isNull());
  EXPECT_EQ(document["descriptor"]["exists"], true);
}

TEST_F(KelotlsctlLook, GetsALevel) {
  join_both();
  EXPECT_EQ(run({"get", "web"}).out, "default → intermediate\n");
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  EXPECT_EQ(run({"get", "web"}).out, "old\n");
  const Json::Value document = run_json("get", {"web"}).document;
  EXPECT_EQ(document["stored-level"]["value"], 3);
  EXPECT_EQ(document["effective-level"]["value"], 3);
}

TEST_F(KelotlsctlLook, NamesLevelsThatHaveNoName) {
  write_file(kDataStore, data_store_text(0, {{"a", "9"}, {"b", "-4"}, {"c", "0"}}));
  EXPECT_EQ(run({"get", "a"}).out, "level 9 → intermediate\n");
  EXPECT_EQ(run({"get", "b"}).out, "level -4 → unusable\n");
  EXPECT_EQ(run({"get", "c"}).out, "default → intermediate\n");
  EXPECT_EQ(run_json("get", {"b"}).document["stored-level"]["name"], "unknown");
  EXPECT_EQ(state_of("b"), "unusable-level");
}

TEST_F(KelotlsctlLook, SaysThatThereIsNoSuchService) {
  for (const Arguments& command : {Arguments{"show", "nix"}, Arguments{"get", "nix"},
                                   Arguments{"explain", "nix"}, Arguments{"probe", "nix"}}) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 10) << command[0];
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err,
              "kelotlsctl: error: no service \"nix\" has joined\n"
              "  kelotlsctl list shows those that have.\n");
  }
}

TEST_F(KelotlsctlLook, AJoinedServiceIsPendingUntilItIsRenderedAndReloaded) {
  join_web();
  EXPECT_EQ(state_of("web"), "pending-render");
  ASSERT_EQ(run({"render"}).status, 0);
  EXPECT_EQ(state_of("web"), "pending-reload");
  ASSERT_EQ(run({"reload"}).status, 0);
  EXPECT_EQ(state_of("web"), "in-force");
}

TEST_F(KelotlsctlLook, ANewLevelOrTemplateMakesAServicePendingAgain) {
  join_both();
  ASSERT_EQ(run({"default", "old"}).status, 0);
  EXPECT_EQ(state_of("web"), "pending-render");
  ASSERT_EQ(run({"render"}).status, 0);
  ASSERT_EQ(run({"reload"}).status, 0);

  write_file(kTemplate, "another text\n");
  EXPECT_EQ(state_of("web"), "pending-render");
  ASSERT_EQ(run({"render"}).status, 0);
  EXPECT_EQ(state_of("web"), "pending-reload");
}

TEST_F(KelotlsctlLook, AServiceWithAReloaderAloneIsPendingAfterANewLevel) {
  const std::string registration =
      std::string(R"({"services": [{"service": "dns", "display-name": "", "reloader-path": ")") +
      kReloader + "\"}]}";
  ASSERT_EQ(run({"join", "-"}, registration).status, 0);
  EXPECT_EQ(state_of("dns"), "pending-reload");
  ASSERT_EQ(run({"reload"}).status, 0);
  EXPECT_EQ(state_of("dns"), "in-force");
  ASSERT_EQ(run({"set", "dns", "modern"}).status, 0);
  EXPECT_EQ(state_of("dns"), "pending-reload");
}

TEST_F(KelotlsctlLook, AServiceWithNeitherIsInForceFromItsNextContextOn) {
  join_both();
  EXPECT_EQ(state_of("ssh"), "next-context");
}

TEST_F(KelotlsctlLook, AServiceWhoseReloaderFailedIsPending) {
  join_both();
  write_file(kReloaderStatus, "3");
  EXPECT_EQ(run({"reload"}).status, 5);
  EXPECT_EQ(state_of("web"), "pending-reload");
}

TEST_F(KelotlsctlLook, AServiceThatJoinsAgainIsPendingAgain) {
  join_both();
  join_web();
  EXPECT_EQ(state_of("web"), "pending-reload");
}

TEST_F(KelotlsctlLook, NamesWhyAServiceCannotBeRendered) {
  join_both();
  remove_all(kTemplate);
  const Json::Value document = run_json("show", {"web"}).document;
  EXPECT_EQ(document["state"], "cannot-render");
  EXPECT_EQ(document["fault"], "template /tmp/web.mustache is missing");
}

TEST_F(KelotlsctlLook, WritesNothing) {
  join_both();
  const Lines before = tree();
  for (const Arguments& command :
       {Arguments{"list"}, Arguments{"show", "web"}, Arguments{"get", "web"}, Arguments{"levels"},
        Arguments{"explain", "web"}, Arguments{"probe", "web"}, Arguments{"check"},
        Arguments{"default"}, Arguments{"render", "--check"}}) {
    EXPECT_EQ(run(command).status, 0) << command[0];
  }
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(names_in("/dev/shm"), Lines());
}

TEST_F(KelotlsctlLook, ListsAThousandServicesInAFractionOfASecond) {
  std::string services;
  for (int number = 0; number < 1000; ++number) {
    services += (number == 0 ? "" : ",") + std::string(R"({"service": "s)") +
                std::to_string(number) + R"(", "display-name": "", "mustache-path": ")" +
                kTemplate + "\"}";
  }
  ASSERT_EQ(run({"join", "-"}, "{\"services\": [" + services + "]}").status, 0);

  EXPECT_LT(seconds_of("list", "/tmp/list"), seconds_for_a_thousand_services());
  EXPECT_TRUE(contains(read_file("/tmp/list"), "s999"));
}

}  // namespace
}  // namespace kelotls::test
