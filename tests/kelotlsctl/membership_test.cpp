// kelotlsctl validate, join, leave.
#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

std::string registration_of(const std::string& service) {
  return "{\"services\": [" + service + "]}";
}

std::string named(const std::string& name) {
  return registration_of("{\"service\": \"" + name + "\", \"display-name\": \"\"}");
}

Json::Value list(const Lines& texts) {
  Json::Value value(Json::arrayValue);
  for (const std::string& text : texts) {
    value.append(text);
  }
  return value;
}

class KelotlsctlMembership : public Kelotlsctl {};

TEST_F(KelotlsctlMembership, NamesEveryFaultWithItsPath) {
  write_file("/tmp/bad.json", R"({"services": [
      {"service": 5},
      {"service": "a/b", "display-name": ""},
      {"service": "x", "display-name": "", "mustache-path": ""},
      3,
      {"service": "x", "display-name": null}],
    "system-service": "yes"})");

  const Outcome outcome = run({"validate", "/tmp/bad.json"});

  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out,
            "$.services[0].service: is a number, must be a string\n"
            "$.services[0]: lacks \"display-name\"\n"
            "$.services[2].mustache-path: must not be empty\n"
            "$.services[3]: is a number, must be an object\n"
            "$.services[4].display-name: is null, must be a string\n"
            "$.system-service: is a string, must be a boolean\n"
            "$.services[1].service: holds a \"/\": its files would lie outside of the framework's "
            "folders\n"
            "$.services[4].service: \"x\" is already named by $.services[2]\n");
}

TEST_F(KelotlsctlMembership, ReportsFaultsByTheSchema) {
  write_file("/tmp/bad.json", "[]");
  const JsonOutcome outcome = run_json("validate", {"/tmp/bad.json"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.document["valid"], false);
  EXPECT_EQ(outcome.document["faults"][0]["path"], "$");
  EXPECT_EQ(outcome.document["faults"][0]["text"], "is an array, must be an object");
  write_file("/tmp/good.json", web_registration());
  EXPECT_EQ(run_json("validate", {"/tmp/good.json"}).document["valid"], true);
}

TEST_F(KelotlsctlMembership, SaysWhereATextIsNoJson) {
  const Outcome outcome = run({"validate", "-"}, "{\"services\": [\n  {\"service\": }\n]}");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(contains(outcome.out, "$: not a JSON text: Line 2, Column 15")) << outcome.err;
  EXPECT_EQ(run({"validate", "-"}, std::string("{\"services\": []}\0", 17)).status, 3);
  EXPECT_EQ(run({"validate", "-"}, "{\"services\": []} x").status, 3);
  EXPECT_EQ(run({"validate", "-"}, "{\"services\": [], \"services\": []}").status, 3);
  EXPECT_EQ(run({"validate", "-"}, std::string(300, '[')).status, 3);
  EXPECT_EQ(run({"validate", "/tmp/absent"}).status, 1);
}

TEST_F(KelotlsctlMembership, AcceptsWhatCanJoin) {
  const Outcome outcome = run({"validate", "-"}, web_registration());
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "the standard input can join.\n");
}

TEST_F(KelotlsctlMembership, WarnsOfFilesThatWillNotServe) {
  const std::string text =
      registration_of(R"({"service": "w", "display-name": "", "mustache-path": "/tmp/absent",)"
                      R"( "reloader-path": "reload"})");
  const Outcome outcome = run({"validate", "-"}, text);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(
      contains(outcome.err, "$.services[0].mustache-path: /tmp/absent: No such file or directory"));
  EXPECT_TRUE(contains(outcome.err, "$.services[0].reloader-path: is no absolute path"));
}

TEST_F(KelotlsctlMembership, RefusesNamesThatNoFileMayHave) {
  const Lines before = tree();
  const std::string long_name(251, 'n');
  for (const std::string& name :
       {std::string("../services/x"), std::string("/x"), std::string("a/b"), std::string("."),
        std::string(".."), std::string("a\\nb"), std::string("a\\u0000b"), std::string("\\u007f"),
        std::string("\\u001b[2J"), long_name, std::string()}) {
    EXPECT_EQ(run({"validate", "-"}, named(name)).status, 3) << name;
    EXPECT_EQ(run({"join", "-"}, named(name)).status, 1) << name;
    EXPECT_EQ(run({"leave", "-"}, named(name)).status, 1) << name;
  }
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlMembership, TakesNamesUpToWhatAFileNameHolds) {
  EXPECT_EQ(run({"join", "-"}, named(std::string(250, 'n'))).status, 0);
  EXPECT_EQ(run({"join", "-"}, named("Dienst mit Ümlaut .. und \\\"")).status, 0);
  const auto with_template = [](std::size_t length) {
    return registration_of("{\"service\": \"" + std::string(length, 't') +
                           "\", \"display-name\": \"\", \"mustache-path\": \"" + kTemplate + "\"}");
  };
  EXPECT_EQ(run({"join", "-"}, with_template(244)).status, 1);
  EXPECT_EQ(run({"join", "-"}, with_template(243)).status, 0);
  EXPECT_EQ(run({"render"}).status, 0);
}

TEST_F(KelotlsctlMembership, ShowsTheRegistrationsOfADirectoryAndWhoseServicesHaveJoined) {
  join_both();
  make_directories("/tmp/catalogue/web/");
  make_directories("/tmp/catalogue/bad/");
  make_directories("/tmp/catalogue/none/");
  make_directories("/tmp/catalogue/new/");
  write_file("/tmp/catalogue/web/registration.json", web_registration());
  write_file("/tmp/catalogue/bad/registration.json",
             R"({"services": [{"service": "..", "display-name": ""}]})");
  write_file("/tmp/catalogue/new/registration.json",
             R"({"services": [{"service": "new", "display-name": "New \u202e"}]})");
  const Json::Value document = run_json("catalogue", {"/tmp/catalogue"}).document;
  const Json::Value& found = document["registrations"];
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0]["name"], "bad");
  EXPECT_EQ(found[0]["faults"][0]["path"], "$.services[0].service");
  EXPECT_EQ(found[0]["services"].size(), 0u);
  EXPECT_EQ(found[1]["faults"][0]["path"], "$.services[0].display-name");
  EXPECT_EQ(found[2]["file"], "/tmp/catalogue/web/registration.json");
  EXPECT_EQ(found[2]["services"][0],
            json(R"({"service": "web", "display-name": "Web server", "joined": true})"));
  const Outcome text = run({"catalogue", "/tmp/catalogue"});
  EXPECT_TRUE(
      contains(text.out, "\nweb      joined  /tmp/catalogue/web/registration.json  Web server"));
  EXPECT_TRUE(contains(text.err, "warning: /tmp/catalogue/bad/registration.json: $.services[0]"));

  write_file(kDataStore, "broken");
  EXPECT_TRUE(run_json("catalogue", {"/tmp/catalogue"})
                  .document["registrations"][2]["services"][0]["joined"]
                  .isNull());
  EXPECT_EQ(run({"catalogue", "/tmp/absent"}).status, 1);
}

TEST_F(KelotlsctlMembership, JoinsAndSaysWhatItDid) {
  const Outcome first = run({"join", "-"}, web_registration());
  EXPECT_EQ(first.status, 0);
  EXPECT_EQ(first.out, "web: joined, reloader linked\n");
  EXPECT_EQ(first.err, "Not in force yet: kelotlsctl apply\n");
  EXPECT_EQ(link_target(link_path("web")), kReloader);
  EXPECT_EQ(read_json(descriptor_path("web"))["mustache-path"], kTemplate);
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);

  EXPECT_EQ(run({"join", "-"}, web_registration()).out,
            "web: joined again, keeping its level, reloader linked\n");
  EXPECT_EQ(stored_level("web"), 3);
}

TEST_F(KelotlsctlMembership, JoinsFromAFileByTheSchema) {
  write_file("/tmp/web.json", web_registration());
  const JsonOutcome outcome = run_json("join", {"/tmp/web.json"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["services"][0]["new"], true);
  EXPECT_EQ(outcome.document["services"][0]["reloader-link"], link_path("web"));
}

TEST_F(KelotlsctlMembership, LinksNoReloaderOfTheBaseSystem) {
  std::string text = web_registration();
  text.insert(text.size() - 1, ", \"system-service\": true");
  EXPECT_EQ(run({"join", "-"}, text).out, "web: joined\n");
  EXPECT_FALSE(exists(link_path("web")));
}

TEST_F(KelotlsctlMembership, RefusesARegistrationWholeAndNamesItsFaults) {
  const Lines before = tree();
  const Outcome outcome = run({"join", "-"}, R"({"services": [{"service": "good",)"
                                             R"( "display-name": ""}, {"service": "bad"}]})");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "$.services[1]: lacks \"display-name\""));
  EXPECT_TRUE(contains(outcome.err, "Nothing was changed."));
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlMembership, PutsBackWhatAFailedJoinTookAway) {
  join_both();
  const std::string descriptor = read_file(descriptor_path("web"));
  const std::string store = read_file(kDataStore);
  make_directories(
      link_path("new"));  // a directory where the link should go: the second service fails

  const std::string changed =
      std::string(R"({"services": [)") +
      R"({"service": "web", "display-name": "Other", "reloader-path": "/x"},)" +
      R"({"service": "new", "display-name": "", "reloader-path": "/y"}]})";
  const Outcome outcome = run({"join", "--replace", "-"}, changed);

  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "What stood there before still stands."));
  EXPECT_TRUE(contains(outcome.err, "kelotlsctl: log: api_provider.cpp:299 "));
  EXPECT_EQ(read_file(descriptor_path("web")), descriptor);
  EXPECT_EQ(link_target(link_path("web")), kReloader);
  EXPECT_EQ(read_file(kDataStore), store);
  EXPECT_FALSE(exists(descriptor_path("new")));
}

TEST_F(KelotlsctlMembership, SaysWhatARejoinDropsAndRemovesIt) {
  join_both();
  const std::string dropped = std::string("  its template ") + kTemplate +
                              " is dropped, and its rendered file " + rendered_path("web");
  const std::string unlinked =
      std::string("  its reloader ") + kReloader + " is dropped, and its link " + link_path("web");
  const Lines before = tree();

  const Outcome dry = run({"join", "--dry-run", "-"}, named("web"));
  EXPECT_EQ(dry.status, 0);
  EXPECT_EQ(dry.out, "web: would join again, keeping its level\n" + dropped +
                         " would be removed\n" + unlinked + " would be removed\n");
  EXPECT_EQ(tree(), before);

  const Outcome done = run({"join", "-"}, named("web"));
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.out, "web: joined again, keeping its level\n" + dropped + " is removed\n" +
                          unlinked + " is removed\n");
  EXPECT_FALSE(exists(rendered_path("web")));
  EXPECT_FALSE(exists(link_path("web")));
  EXPECT_EQ(run({"check"}).out, "");
}

TEST_F(KelotlsctlMembership, ReportsWhatARejoinDropsByTheSchema) {
  join_both();
  write_file("/tmp/named.json", named("web"));
  const JsonOutcome outcome = run_json("join", {"/tmp/named.json"});
  const Json::Value& dropped = outcome.document["services"][0]["dropped"];
  ASSERT_EQ(dropped.size(), 2u);
  EXPECT_EQ(dropped[0]["kind"], "template");
  EXPECT_EQ(dropped[0]["path"], kTemplate);
  EXPECT_EQ(dropped[0]["removed"], rendered_path("web"));
  EXPECT_EQ(dropped[1]["kind"], "reloader");
  EXPECT_EQ(dropped[1]["removed"], link_path("web"));
  EXPECT_EQ(run_json("join", {"/tmp/named.json"}).document["services"][0]["dropped"].size(), 0u);
}

TEST_F(KelotlsctlMembership, RemovesTheLinkOfAServiceThatJoinsTheBaseSystem) {
  join_both();
  std::string text = web_registration();
  text.insert(text.size() - 1, ", \"system-service\": true");
  EXPECT_EQ(run({"join", "-"}, text).out, "web: joined again, keeping its level\n  its link " +
                                              link_path("web") + " is removed\n");
  EXPECT_FALSE(exists(link_path("web")));
  EXPECT_TRUE(exists(rendered_path("web")));
}

TEST_F(KelotlsctlMembership, TakesOverFilesOfAnotherRegistrationWhenToldTo) {
  join_both();
  write_file("/tmp/other.mustache", "");
  const std::string other =
      registration_of(std::string(R"({"service": "web", "display-name": "", "mustache-path": )") +
                      R"("/tmp/other.mustache", "reloader-path": "/usr/bin/true"})");
  const Lines before = tree();
  for (const bool is_dry_run : {true, false}) {
    const Outcome refused =
        run(is_dry_run ? Arguments{"join", "--dry-run", "-"} : Arguments{"join", "-"}, other);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "");
    EXPECT_TRUE(contains(refused.err, std::string("web joined before with the template ") +
                                          kTemplate + ", not /tmp/other.mustache"));
    EXPECT_TRUE(contains(refused.err, std::string("web joined before with the reloader ") +
                                          kReloader + ", not /usr/bin/true"));
    EXPECT_TRUE(contains(refused.err, "kelotlsctl join --replace"));
    EXPECT_EQ(tree(), before);
  }

  const Outcome taken = run({"join", "--replace", "-"}, other);
  EXPECT_EQ(taken.status, 0);
  EXPECT_EQ(taken.out, std::string("web: joined again, keeping its level, reloader linked\n") +
                           "  its template is /tmp/other.mustache in place of " + kTemplate +
                           "\n  its reloader is /usr/bin/true in place of " + kReloader + "\n");
  EXPECT_EQ(link_target(link_path("web")), "/usr/bin/true");
  write_file("/tmp/web.json", web_registration());
  const JsonOutcome back = run_json("join", {"--replace", "/tmp/web.json"});
  EXPECT_EQ(back.document["services"][0]["replaced"][0]["from"], "/tmp/other.mustache");
  EXPECT_EQ(back.document["services"][0]["replaced"][0]["to"], kTemplate);
}

TEST_F(KelotlsctlMembership, TakesATemplateThatIsNewForNoReplacement) {
  ASSERT_EQ(run({"join", "-"}, named("web")).status, 0);
  EXPECT_EQ(run({"join", "-"}, web_registration()).out,
            "web: joined again, keeping its level, reloader linked\n");
}

TEST_F(KelotlsctlMembership, JoinsAgainOverAnEntryWithoutALevel) {
  // Merged as it is, such an entry gets a null level, and the data store is lost.
  write_file(kDataStore, R"({"default-level": 2, "services": {"web": {"display-name": "w"}}})");
  EXPECT_EQ(run({"join", "-"}, web_registration()).status, 0);
  EXPECT_EQ(read_json(kDataStore)["services"]["web"]["current-level"], 0);
  EXPECT_EQ(run({"list"}).status, 0);
}

TEST_F(KelotlsctlMembership, LeavesWithoutATrace) {
  const Lines before = tree();
  join_both();
  const Outcome outcome = run({"leave", "-"}, web_registration());
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "web: left\n  removed " + link_path("web") + "\n  removed " +
                             descriptor_path("web") + "\n  removed " + rendered_path("web") + "\n");
  EXPECT_EQ(log(), (Lines{"<85>kelotlsctl leave: web; by root; done"}));
  ASSERT_EQ(run({"leave", "-"}, named("ssh")).status, 0);
  ASSERT_EQ(read_json(kStamp)["services"].size(), 0u);
  remove_all(kStamp);
  remove_all(kHistory);
  write_file(kDataStore, data_store_text(2, {}));
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlMembership, RemovesWhatFailedRendersLeft) {
  join_both();
  const std::string temporary = rendered_path("web") + ".a1B2c3";
  const std::string of_another = rendered_path("web2") + ".a1B2c3";
  const std::string other_name = rendered_path("web") + ".backup-1";
  for (const std::string& path : {temporary, of_another, other_name}) {
    write_file(path, "");
  }
  EXPECT_TRUE(contains(run({"leave", "--dry-run", "-"}, named("web")).out,
                       "  would remove " + temporary + "\n"));
  EXPECT_TRUE(exists(temporary));
  const Outcome outcome = run({"leave", "-"}, named("web"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.out, "  removed " + temporary + "\n"));
  EXPECT_FALSE(exists(temporary));
  EXPECT_TRUE(exists(of_another));
  EXPECT_TRUE(exists(other_name));
}

TEST_F(KelotlsctlMembership, WarnsWhenTheRenderedFileIsStillIncluded) {
  join_both();
  make_directories("/usr/kelo/etc/nginx/conf.d");
  const std::string including = "/usr/kelo/etc/nginx/conf.d/site";
  write_file(including, "include " + rendered_path("web") + ";\n");
  write_file("/usr/kelo/etc/nginx/large",
             rendered_path("web") + std::string(std::size_t{1} << 20, ' '));
  make_link(including, "/usr/kelo/etc/nginx/link");
  ASSERT_EQ(run_program({"mkfifo", "/usr/kelo/etc/nginx/fifo"}).status, 0);
  write_file("/tmp/web.json", web_registration());

  const std::string warning = including + " names " + rendered_path("web");
  const Outcome dry = run({"leave", "--dry-run", "/tmp/web.json"});
  EXPECT_TRUE(contains(dry.err, warning + ", which would be removed"));
  EXPECT_FALSE(contains(dry.err, "nginx/l"));
  const JsonOutcome outcome = run_json("leave", {"/tmp/web.json"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["services"][0]["still-named-in"], list({including}));
}

TEST_F(KelotlsctlMembership, WarnsOfNoFileThatNamesAnother) {
  join_both();
  make_directories("/usr/kelo/etc/nginx");
  write_file("/usr/kelo/etc/nginx/site",
             "include " + rendered_path("web2") + ";\n" + rendered_path("web") + ".old\n");
  const Outcome outcome = run({"leave", "-"}, web_registration());
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
}

TEST_F(KelotlsctlMembership, LeavesNothingBehindThatTheRegistrationDoesNotName) {
  join_both();
  EXPECT_EQ(run({"leave", "-"}, named("web")).status, 0);
  EXPECT_FALSE(exists(link_path("web")));
  EXPECT_FALSE(exists(rendered_path("web")));
}

TEST_F(KelotlsctlMembership, LeavesByTheSchema) {
  join_both();
  write_file("/tmp/web.json", web_registration());
  const JsonOutcome outcome = run_json("leave", {"/tmp/web.json"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["services"][0]["removed"].size(), 3u);
}

TEST_F(KelotlsctlMembership, DoesNotLeaveForAServiceThatHasNotJoined) {
  join_both();
  const Lines before = tree();
  const Outcome outcome = run({"leave", "-"}, R"({"services": [{"service": "web"},)"
                                              R"( {"service": "nix"}]})");
  EXPECT_EQ(outcome.status, 10);
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlMembership, FinishesALeaveThatWasInterrupted) {
  join_both();
  Json::Value store = read_json(kDataStore);
  store["services"].removeMember("web");
  write_file(kDataStore, store.toStyledString());
  EXPECT_EQ(run({"leave", "-"}, named("web")).status, 0);
  EXPECT_FALSE(exists(descriptor_path("web")));
}

TEST_F(KelotlsctlMembership, SaysThatALeaveFailed) {
  join_both();
  make_data_store_irreplaceable();
  const Outcome outcome = run({"leave", "-"}, named("web"));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "the services have not left"));
  EXPECT_TRUE(exists(descriptor_path("web")));
}

}  // namespace
}  // namespace kelotls::test
