// kelotlsctl address, and the addresses that registrations bring.
#include <sys/stat.h>
#include <unistd.h>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

class KelotlsctlAddress : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    join_both();
    log();
  }

  /// What is kept for the service, as its --json tells it.
  Json::Value kept(const std::string& service = "web") {
    return run_json("address", {service}).document["address"];
  }
};

std::string registration(const std::string& probe, const std::string& service = "mail") {
  return R"({"services": [{"service": ")" + service + R"(", "display-name": "Mail", "probe": )" +
         probe + "}]}";
}

const char* const kPlain = R"({"services": [{"service": "mail", "display-name": "Mail"}]})";

TEST_F(KelotlsctlAddress, KeepsAnAddressAndShowsIt) {
  const Outcome set =
      run({"address", "web", "localhost:25", "--starttls", "smtp", "--servername", "a.example"});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(set.out, "web: none became localhost:25, STARTTLS by smtp, server name a.example\n");
  EXPECT_EQ(log(), (Lines{"<85>kelotlsctl address: web none -> localhost:25, STARTTLS by smtp, "
                          "server name a.example; by root; done"}));

  const Outcome shown = run({"address", "web"});
  EXPECT_EQ(shown.out, "localhost:25, STARTTLS by smtp, server name a.example\n");
  EXPECT_EQ(shown.err, "");
  EXPECT_EQ(read_json(kAddresses),
            json(R"({"services": {"web": {"address": "localhost:25", "starttls": "smtp",
                                          "server-name": "a.example"}}})"));
  EXPECT_EQ(mode(kAddresses), 0600U);
}

TEST_F(KelotlsctlAddress, TellsWhatItDoesInJson) {
  const JsonOutcome set = run_json("address", {"web", "[::1]:443"});
  EXPECT_EQ(set.document, json(R"({"service": "web", "address": {"address": "[::1]:443"},
                                   "former-address": null, "written": true})"));
  const JsonOutcome again = run_json("address", {"web", "unix:/run/a"});
  EXPECT_EQ(again.document["former-address"]["address"], "[::1]:443");
  EXPECT_EQ(again.document["address"]["address"], "unix:/run/a");
  EXPECT_EQ(run_json("address", {"web"}).document,
            json(R"({"service": "web", "address": {"address": "unix:/run/a"}, "written": false})"));
  const JsonOutcome removed = run_json("address", {"web", "--remove"});
  EXPECT_EQ(removed.document, json(R"({"service": "web", "address": null, "written": true,
                     "former-address": {"address": "unix:/run/a"}})"));
}

TEST_F(KelotlsctlAddress, SaysThatNoneIsKept) {
  const Outcome outcome = run({"address", "web"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "No address is kept for web: what is asked is the context that the library makes.\n");
  EXPECT_FALSE(exists(kAddresses));
}

TEST_F(KelotlsctlAddress, KeepsOneForEachServiceAndRemovesOne) {
  ASSERT_EQ(run({"address", "web", "a:443"}).status, 0);
  ASSERT_EQ(run({"address", "ssh", "b:22"}).status, 0);

  EXPECT_EQ(run({"address", "web", "--remove"}).out, "web: a:443 became none\n");

  EXPECT_TRUE(kept("web").isNull());
  EXPECT_EQ(kept("ssh")["address"], "b:22");
  EXPECT_EQ(run({"address", "web", "--remove"}).out, "web: already none\n");
}

TEST_F(KelotlsctlAddress, WritesNothingWhereNothingChanges) {
  ASSERT_EQ(run({"address", "web", "a:443"}).status, 0);
  const ino_t before = inode(kAddresses);
  const std::string history = read_file(kHistory);
  EXPECT_EQ(run({"address", "web", "a:443"}).out, "web: already a:443\n");
  EXPECT_EQ(inode(kAddresses), before);
  EXPECT_EQ(read_file(kHistory), history);
}

TEST_F(KelotlsctlAddress, ReplacesTheFileAsAWholeWithTheModeThatItHas) {
  ASSERT_EQ(run({"address", "web", "a:443"}).status, 0);
  const std::string link = std::string(kAddresses) + ".link";
  ASSERT_EQ(::link(kAddresses, link.c_str()), 0);
  ASSERT_EQ(::chmod(kAddresses, 0640), 0);
  const std::string former = read_file(kAddresses);
  ASSERT_EQ(run({"address", "web", "b:443"}).status, 0);
  EXPECT_EQ(read_file(link), former);
  EXPECT_EQ(mode(kAddresses), 0640U);
}

TEST_F(KelotlsctlAddress, LeavesATraceWithAReason) {
  ASSERT_EQ(run({"--reason", "moved", "address", "web", "a:443"}).status, 0);
  const Json::Value history = run_json("history", {"web"}).document["changes"];
  const Json::Value& last = history[history.size() - 1];
  EXPECT_EQ(last["command"], "address");
  EXPECT_EQ(last["reason"], "moved");
  EXPECT_EQ(last["changes"], json(R"([{"service": "web", "from": "none", "to": "a:443"}])"));
  EXPECT_EQ(last["result"], "done");
}

TEST_F(KelotlsctlAddress, RefusesWhatIsNoAddress) {
  const Lines before = tree();
  const Outcome outcome = run({"address", "web", "127.0.0.1:99999"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_TRUE(contains(outcome.err,
                       "kelotlsctl: error: the address \"127.0.0.1:99999\": \"99999\" is no port "
                       "from 1 to 65535\n"));
  EXPECT_EQ(run({"address", "web", "a:25", "--starttls", "gopher"}).status, 2);
  EXPECT_EQ(run({"address", "web", "a:25", "--servername", "::1"}).status, 2);
  EXPECT_EQ(run({"address", "web", ""}).status, 2);
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlAddress, RefusesOptionsWithoutAnAddress) {
  ASSERT_EQ(run({"address", "web", "a:443"}).status, 0);
  const Lines before = tree();
  for (const Arguments& command :
       {Arguments{"address", "web", "--starttls", "smtp"},
        Arguments{"address", "web", "--servername", "a"},
        Arguments{"address", "web", "--remove", "--servername", "a"},
        Arguments{"address", "web", "--remove", "--starttls", "smtp"},
        Arguments{"address", "web", "a:25", "--remove"}, Arguments{"address"}}) {
    EXPECT_EQ(run(command).status, 2) << command.back();
  }
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlAddress, RefusesAServiceThatHasNotJoined) {
  for (const Arguments& command :
       {Arguments{"address", "wbe", "a:443"}, Arguments{"address", "wbe"},
        Arguments{"address", "wbe", "--remove"}}) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 10);
    EXPECT_TRUE(contains(outcome.err, "did you mean \"web\"?"));
  }
  EXPECT_FALSE(exists(kAddresses));
}

TEST_F(KelotlsctlAddress, RemovesWhatIsLeftOfAServiceThatIsGone) {
  write_file(kAddresses, R"({"services": {"gone": "a:443"}})");
  EXPECT_EQ(run({"address", "gone"}).out, "a:443\n");
  EXPECT_EQ(run({"address", "gone", "b:443"}).status, 10);
  EXPECT_EQ(run({"address", "gone", "--remove"}).status, 0);
  EXPECT_EQ(read_json(kAddresses), json(R"({"services": {}})"));
}

TEST_F(KelotlsctlAddress, WaitsForTheHolderOfTheLock) {
  const Outcome outcome = run_program(
      {"bash", "-c",
       "exec 9< \"$1\"; flock 9; "
       "\"$0\" address web a:443 2> /tmp/waiting 9<&- & change=$!; "
       "until grep -q 'waiting for' /tmp/waiting || ! kill -0 $change; do sleep 0.01; done; "
       "\"$0\" --quiet address web; echo free; flock -u 9; wait $change; \"$0\" address web",
       KELOTLSCTL, kLock});
  EXPECT_EQ(outcome.out, "free\nweb: none became a:443\na:443\n") << outcome.err;
}

// A file that was edited by hand, and cannot be used.

struct Broken {
  const char* text;
  const char* fault;
};

TEST_F(KelotlsctlAddress, LosesNothingOfAFileThatItCannotUse) {
  const Broken cases[] = {
      {"{\n  \"services\": {\"web\" \"a:443\"}\n}\n", "Line 2, Column 22: "},
      {"", "Line 1, Column 1: "},
      {"[]", "$: "},
      {"{}", "$: lacks \"services\""},
      {R"({"services": {}, "extra": 1})", "$.extra: no such member; they are services"},
      {R"({"services": {"web": {"address": "a:443", "port": 1}}})",
       "$.services.web.port: no such member; they are address, starttls, server-name, expected"},
      {R"({"services": {"web": "a:99999"}})",
       "$.services.web: \"99999\" is no port from 1 to 65535"},
      {R"({"services": {"web": "a:1", "web": "b:1"}})", "Line 1, Column "},
  };
  for (const Broken& one : cases) {
    write_file(kAddresses, one.text);
    const Lines before = tree();
    for (const Arguments& command :
         {Arguments{"address", "web", "b:443"}, Arguments{"address", "web", "--remove"},
          Arguments{"address", "web"}, Arguments{"address", "web", "b:443", "--dry-run"}}) {
      const Outcome outcome = run(command);
      EXPECT_EQ(outcome.status, 1) << one.text;
      EXPECT_EQ(outcome.out, "");
      EXPECT_TRUE(contains(outcome.err, std::string("kelotlsctl: error: ") + kAddresses +
                                            " cannot be used: " + one.fault));
    }
    EXPECT_EQ(tree(), before) << one.text;
  }
}

TEST_F(KelotlsctlAddress, NeverWaitsForAPipeInPlaceOfTheFile) {
  ASSERT_EQ(::mkfifo(kAddresses, 0600), 0);
  const Outcome outcome = run({"address", "web"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, kAddresses));
}

TEST_F(KelotlsctlAddress, HasAFileThatCannotBeUsedFoundByACheck) {
  ASSERT_EQ(run({"address", "web", "a:443"}).status, 0);
  const Json::Value before = run_json("check").document["findings"];
  ASSERT_EQ(before.size(), 1U);
  EXPECT_EQ(before[0]["path"], "a:443");  // where nothing answers
  write_file(kAddresses, R"({"services": {"web": "a"}})");
  const JsonOutcome outcome = run_json("check");
  EXPECT_EQ(outcome.status, 3);
  ASSERT_EQ(outcome.document["findings"].size(), 1U);
  EXPECT_EQ(outcome.document["findings"][0]["path"], kAddresses);
  EXPECT_EQ(outcome.document["findings"][0]["text"],
            "cannot be used: $.services.web: names no port");
}

// What registrations bring.

TEST_F(KelotlsctlAddress, IsBroughtByARegistration) {
  const Outcome joined =
      run({"join", "-"}, registration(R"({"address": "localhost:25", "starttls": "smtp"})"));
  EXPECT_EQ(joined.status, 0) << joined.err;
  EXPECT_TRUE(contains(joined.out, "mail: joined, address localhost:25 kept\n"));
  EXPECT_EQ(kept("mail"), json(R"({"address": "localhost:25", "starttls": "smtp"})"));
  EXPECT_FALSE(read_json(descriptor_path("mail")).isMember("probe"));

  ASSERT_EQ(run({"join", "-"}, registration(R"("unix:/run/mail")")).status, 0);
  EXPECT_EQ(kept("mail")["address"], "unix:/run/mail");
}

TEST_F(KelotlsctlAddress, StaysWhereARegistrationBringsNone) {
  ASSERT_EQ(run({"join", "-"}, kPlain).status, 0);
  EXPECT_FALSE(exists(kAddresses));
  ASSERT_EQ(run({"address", "mail", "a:25"}).status, 0);
  ASSERT_EQ(run({"address", "web", "a:443"}).status, 0);

  const Outcome again = run({"join", "-"}, kPlain);

  EXPECT_EQ(again.out, "mail: joined again, keeping its level\n");
  EXPECT_EQ(kept("mail")["address"], "a:25");
  EXPECT_EQ(kept("web")["address"], "a:443");
}

TEST_F(KelotlsctlAddress, IsToldOfAJoinInJson) {
  write_file("/tmp/mail.json", registration(R"("a:25")"));
  const JsonOutcome dry = run_json("join", {"--dry-run", "/tmp/mail.json"});
  EXPECT_EQ(dry.document["services"][0]["probe"], json(R"({"address": "a:25"})"));
  EXPECT_FALSE(exists(kAddresses));
  write_file("/tmp/plain.json", kPlain);
  EXPECT_TRUE(run_json("join", {"/tmp/plain.json"}).document["services"][0]["probe"].isNull());
}

TEST_F(KelotlsctlAddress, RefusesARegistrationWhoseAddressIsNone) {
  const std::string faulty = registration(R"({"address": "a", "starttls": "smtp", "x": 1})");
  const std::string place = "$.services[0].probe";
  const Outcome validated = run({"validate", "-"}, faulty);
  EXPECT_EQ(validated.status, 3);
  EXPECT_EQ(validated.out,
            place + ".x: no such member; they are address, starttls, server-name, expected\n");
  EXPECT_EQ(run({"validate", "-"}, registration(R"("a")")).out, place + ": names no port\n");
  const Outcome joined = run({"join", "-"}, registration(R"("a")"));
  EXPECT_EQ(joined.status, 1);
  EXPECT_TRUE(contains(joined.err, place + ": names no port\n"));
  EXPECT_FALSE(exists(descriptor_path("mail")));
}

TEST_F(KelotlsctlAddress, IsKnownToTheLookAtSpelling) {
  EXPECT_EQ(run({"validate", "-"}, registration(R"("a:25")")).err,
            "the standard input can join.\n");
  EXPECT_TRUE(contains(run({"validate", "-"}, R"({"services": [{"service": "mail",)"
                                              R"( "display-name": "", "prob": "a:25"}]})")
                           .err,
                       "$.services[0].prob: no such member; did you mean \"probe\"?"));
}

TEST_F(KelotlsctlAddress, JoinsNothingWhereTheAddressesCannotBeUsed) {
  write_file(kAddresses, "oops");
  const Lines before = tree();
  EXPECT_EQ(run({"join", "-"}, registration(R"("a:25")")).status, 1);
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(run({"join", "-"}, kPlain).status, 0);
  EXPECT_EQ(read_file(kAddresses), "oops");
}

TEST_F(KelotlsctlAddress, LeavesWithItsService) {
  ASSERT_EQ(run({"join", "-"}, registration(R"("a:25")")).status, 0);
  ASSERT_EQ(run({"address", "web", "a:443"}).status, 0);
  ASSERT_EQ(run({"leave", "--dry-run", "-"}, kPlain).status, 0);
  EXPECT_EQ(kept("mail")["address"], "a:25");

  ASSERT_EQ(run({"leave", "-"}, kPlain).status, 0);

  EXPECT_EQ(read_json(kAddresses), json(R"({"services": {"web": {"address": "a:443"}}})"));
}

TEST_F(KelotlsctlAddress, KeepsNoServiceFromLeavingWithAFileThatCannotBeUsed) {
  ASSERT_EQ(run({"join", "-"}, kPlain).status, 0);
  write_file(kAddresses, "oops");
  const Outcome outcome = run({"leave", "-"}, kPlain);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err, std::string("kelotlsctl: warning: ") + kAddresses +
                                        " cannot be used: Line 1, Column 1: "));
  EXPECT_EQ(read_file(kAddresses), "oops");
}

TEST_F(KelotlsctlAddress, StaysWhenLevelsAreSavedAndTakenBack) {
  ASSERT_EQ(run({"address", "web", "a:443"}).status, 0);
  ASSERT_EQ(run({"backup", "/tmp/levels.json"}).status, 0);
  ASSERT_EQ(run({"address", "web", "b:443"}).status, 0);
  ASSERT_EQ(run({"restore", "/tmp/levels.json"}).status, 0);
  EXPECT_EQ(kept()["address"], "b:443");
}

}  // namespace
}  // namespace kelotls::test
