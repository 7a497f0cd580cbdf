// kelotlsctl clients show and judge: records held against levels.
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>

#include "first_message.h"
#include "kelotlsctl.h"
#include "loopback_server.h"
#include "packets.h"

namespace kelotls::test {
namespace {

constexpr char kRecord[] = "/usr/kelo/etc/security-profile/tls-profile/clients/web.json";

std::string hello_up_to(int version, const char* groups = nullptr) {
  SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context, version);
  if (groups != nullptr) {
    SSL_CTX_set1_groups_list(context, groups);
  }
  const std::string hello = first_message(context);
  SSL_CTX_free(context);
  return hello;
}

std::string time_ago(std::time_t seconds, const char* format = "%Y-%m-%dT%H:%M:%SZ") {
  const std::time_t when = std::time(nullptr) - seconds;
  std::tm parts{};
  ::gmtime_r(&when, &parts);
  char text[32];
  std::strftime(text, sizeof text, format, &parts);
  return text;
}

constexpr std::time_t kHour = 3600;
constexpr std::time_t kDay = 24 * kHour;

struct Recorded {
  std::string hello;
  unsigned count;
  std::time_t ago;
  const char* address;
};

void write_record(const std::vector<Recorded>& hellos, unsigned left_out = 0) {
  Json::Value document;
  document["service"] = "web";
  document["since"] = time_ago(40 * kDay);
  document["until"] = time_ago(0);
  document["connections"] = 0;
  document["kernel-drops"] = 0;
  document["left-out"]["hellos"] = left_out;
  document["left-out"]["connections"] = left_out;
  for (const char* const kind : {"not-tls", "ssl2", "incomplete", "too-large"}) {
    document["unread"][kind] = 0;
  }
  document["hellos"] = Json::arrayValue;
  for (const Recorded& one : hellos) {
    Json::Value hello;
    hello["hello"] = hexadecimal(one.hello);
    hello["count"] = one.count;
    hello["first"] = hello["last"] = time_ago(one.ago);
    hello["hours"] = Json::objectValue;
    if (one.ago < 8 * kDay) {
      hello["hours"][time_ago(one.ago, "%Y-%m-%dT%H")] = one.count;
    }
    hello["addresses"] = Json::arrayValue;
    hello["addresses"].append(one.address);
    document["hellos"].append(hello);
    document["connections"] = document["connections"].asUInt() + one.count;
  }
  make_directories("/usr/kelo/etc/security-profile/tls-profile/clients");
  write_file(kRecord, document.toStyledString());
  ::chmod(kRecord, 0600);
}

/// A new client, one of TLS 1.2 of an hour ago, one of two days ago, and an old one.
std::vector<Recorded> usual_clients() {
  return {{hello_up_to(TLS1_3_VERSION), 200, kHour, "192.0.2.1"},
          {hello_up_to(TLS1_2_VERSION), 10, kHour, "192.0.2.7"},
          {hello_up_to(TLS1_2_VERSION, "P-384"), 3, 2 * kDay, "192.0.2.9"},
          {hello_up_to(TLS1_1_VERSION), 1, 20 * kDay, "192.0.2.66"}};
}

class ClientsLosses : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    join_both();
    log();
  }

  static JsonOutcome run_clients(const std::string& action, Arguments arguments) {
    arguments.insert(arguments.begin(), {"--json", "clients", action});
    const Outcome outcome = run(arguments);
    const Json::Value document = json(outcome.out);
    if (outcome.status == 0 || outcome.status == 3) {
      EXPECT_EQ(faults_against(
                    std::string(KELOTLS_SCHEMAS) + "/output/clients-" + action + ".schema.json",
                    document),
                "")
          << outcome.out;
    }
    return {outcome.status, document};
  }
};

std::string counts(const Json::Value& span) {
  return span["lost-clients"].asString() + " of " + span["clients"].asString() + ", " +
         span["lost-connections"].asString() + " of " + span["connections"].asString();
}

TEST_F(ClientsLosses, CountsWhoWouldBeLostByWhen) {
  write_record(usual_clients());

  const JsonOutcome outcome = run_clients("judge", {"web", "modern"});

  EXPECT_EQ(outcome.status, 3);
  const Json::Value& judged = outcome.document;
  EXPECT_EQ(judged["verdict"], "some-lost");
  EXPECT_EQ(counts(judged["last-day"]), "1 of 2, 10 of 210");
  EXPECT_EQ(counts(judged["last-week"]), "2 of 3, 13 of 213");
  // The oldest is refused at intermediate, where web is, too.
  EXPECT_EQ(counts(judged["all"]), "2 of 4, 13 of 214");
  EXPECT_EQ(judged["addresses"], json(R"(["192.0.2.7", "192.0.2.9"])"));
  EXPECT_EQ(judged["clients"][0]["then"]["lacks"], json(R"(["version"])"));
  EXPECT_EQ(judged["clients"][0]["connections"]["last-day"], 10);
  EXPECT_TRUE(judged["clients"][0]["lost"].asBool());
  EXPECT_FALSE(judged["clients"][3]["lost"].asBool());
  EXPECT_FALSE(judged["clients"][3]["today"]["answered"].asBool());
}

TEST_F(ClientsLosses, SaysInWordsWhoWouldBeLost) {
  write_record(usual_clients());

  const Outcome outcome = run({"clients", "judge", "web", "modern"});

  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(contains(outcome.out,
                       "web at modern: 2 of 3 clients of the last 7 days would be lost "
                       "(192.0.2.7, 192.0.2.9)\n"));
  EXPECT_TRUE(contains(outcome.out, "The verdict is the level's; the server may differ.\n"));
  EXPECT_TRUE(contains(outcome.out,
                       "Judged with a certificate of RSA 2048: no address of its "
                       "server is kept.\n"));
  EXPECT_TRUE(contains(outcome.out, "It offers TLS 1.2 at most."));
}

TEST_F(ClientsLosses, EndsWithZeroWhereNobodyIsLost) {
  write_record(usual_clients());

  const JsonOutcome same = run_clients("judge", {"web", "intermediate"});
  const JsonOutcome laxer = run_clients("judge", {"web", "old"});

  EXPECT_EQ(same.status, 0);
  EXPECT_EQ(same.document["verdict"], "none-lost");
  EXPECT_EQ(counts(same.document["all"]), "0 of 4, 0 of 214");
  EXPECT_EQ(laxer.status, 0);
}

TEST_F(ClientsLosses, IsNotKnownWithoutAWholeRecord) {
  const Outcome none = run({"clients", "judge", "web", "modern"});
  EXPECT_EQ(none.status, 6);
  EXPECT_TRUE(contains(none.err, "no record of the clients of \"web\" is kept"));

  write_record({});
  EXPECT_EQ(run({"clients", "judge", "web", "modern"}).status, 6);
  write_record({{hello_up_to(TLS1_3_VERSION), 1, kHour, "192.0.2.1"}}, 5);
  const Outcome left_out = run({"clients", "judge", "web", "modern"});
  EXPECT_EQ(left_out.status, 6);
  EXPECT_TRUE(contains(left_out.out, "not known of 5 connections"));
  EXPECT_TRUE(contains(left_out.err, "5 connections are left out of the record"));

  EXPECT_EQ(run({"clients", "judge", "web", "modren"}).status, 2);
  EXPECT_EQ(run({"clients", "judge", "wbe", "modern"}).status, 10);
}

TEST_F(ClientsLosses, JudgesWithTheCertificateThatIsSaid) {
  SSL_CTX* const client = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_cipher_list(client, "ECDHE-ECDSA-AES128-GCM-SHA256");
  SSL_CTX_set_max_proto_version(client, TLS1_2_VERSION);
  write_record({{first_message(client), 1, kHour, "192.0.2.1"}});
  SSL_CTX_free(client);
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);

  const auto with = [](const std::string& certificate) {
    return run_clients("judge", {"web", "intermediate", "--certificate", certificate}).document;
  };

  EXPECT_FALSE(with("rsa:2048")["clients"][0]["then"]["answered"].asBool());
  EXPECT_TRUE(with("ecdsa:P-256")["clients"][0]["then"]["answered"].asBool());
  EXPECT_TRUE(with("rsa:2048,ecdsa:secp384r1")["clients"][0]["then"]["answered"].asBool());
  EXPECT_EQ(with("rsa:2048,ecdsa:secp384r1")["certificates"]["kinds"],
            json(R"(["RSA 2048", "ECDSA secp384r1"])"));
  for (const char* const wrong :
       {"", "rsa", "rsa:1", "rsa:2048x", "ecdsa:P-999", "dsa:2048", "x"}) {
    EXPECT_EQ(run({"clients", "judge", "web", "modern", "--certificate", wrong}).status, 2)
        << wrong;
  }
}

TEST_F(ClientsLosses, JudgesWithWhatTheRunningServerShows) {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  use_certificate(context, "ecdsa");
  write_record(usual_clients());
  {
    const LoopbackServer server(AF_INET, serve_tls(context));
    ASSERT_EQ(run({"address", "web", "127.0.0.1:" + server.port()}).status, 0);

    const Json::Value judged = run_clients("judge", {"web", "modern"}).document;

    EXPECT_EQ(judged["certificates"]["source"], "server");
    EXPECT_EQ(judged["certificates"]["kinds"], json(R"(["ECDSA prime256v1"])"));
    EXPECT_EQ(
        judged["about-text"].asString(),
        "The verdict is the level's; the server at 127.0.0.1:" + server.port() + " may differ.");
  }
  SSL_CTX_free(context);

  const Json::Value gone = run_clients("judge", {"web", "modern"}).document["certificates"];

  EXPECT_EQ(gone["source"], "assumed");
  EXPECT_EQ(gone["kinds"], json(R"(["RSA 2048"])"));
  EXPECT_TRUE(contains(gone["text"].asString(), "its server shows no certificate"));
}

TEST_F(ClientsLosses, AsksAServerOfTls12ForItsCertificateToo) {
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_server_method()),
                                                                  SSL_CTX_free);
  SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
  use_certificate(context.get(), "ecdsa");
  write_record(usual_clients());
  const LoopbackServer server(AF_INET, serve_tls(context.get()));
  ASSERT_EQ(run({"address", "web", "127.0.0.1:" + server.port()}).status, 0);

  EXPECT_EQ(run_clients("judge", {"web", "modern"}).document["certificates"]["kinds"],
            json(R"(["ECDSA prime256v1"])"));
}

TEST_F(ClientsLosses, ShowsWhoComesAndWhatTheyGetToday) {
  write_record(usual_clients());

  const JsonOutcome outcome = run_clients("show", {"web"});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["by-protocol"],
            json(R"([{"newest-protocol": "TLS 1.1", "clients": 1, "connections": 1},
                     {"newest-protocol": "TLS 1.2", "clients": 2, "connections": 13},
                     {"newest-protocol": "TLS 1.3", "clients": 1, "connections": 200}])"));
  EXPECT_EQ(outcome.document["by-answer"][1]["answer"], "TLS 1.3, TLS_AES_256_GCM_SHA384");
  EXPECT_EQ(outcome.document["by-answer"][2]["answer"], "refused: version");
  const Outcome text = run({"clients", "show", "web"});
  EXPECT_TRUE(contains(text.out, "web: 214 connections from "));
  EXPECT_TRUE(contains(text.out, "unknown, TLS 1.2"));
}

TEST_F(ClientsLosses, AreToldBeforeAnythingIsWritten) {
  write_record(usual_clients());

  const Outcome foreseen = run({"set", "web", "modern", "--dry-run"});
  EXPECT_EQ(foreseen.status, 0);
  EXPECT_TRUE(contains(foreseen.err,
                       "web: 2 of 3 clients of the last 7 days would be lost (192.0.2.7, "
                       "192.0.2.9)\n"));
  EXPECT_EQ(stored_level("web"), 0);

  const Outcome written = run({"set", "web", "modern"});
  EXPECT_EQ(written.status, 0);
  EXPECT_TRUE(contains(written.err, "2 of 3 clients"));
  EXPECT_EQ(stored_level("web"), 1);
  // Now they are refused, and nobody is lost by what changes nothing.
  EXPECT_EQ(run({"set", "web", "modern"}).err, "");
  const Outcome laxer = run({"set", "web", "intermediate"});
  EXPECT_TRUE(contains(laxer.err, "web: none of 3 clients of the last 7 days would be lost\n"));
}

TEST_F(ClientsLosses, AreRefusedWhereThatIsAskedFor) {
  write_record(usual_clients());
  const std::string before = read_file(kDataStore);

  const Outcome outcome = run({"set", "web", "modern", "--refuse-loss"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(contains(outcome.err, "web: 2 of 3 clients of the last 7 days would be lost"));
  EXPECT_EQ(run({"set", "web", "modern", "--refuse-loss", "--dry-run"}).status, 3);
  EXPECT_EQ(run({"set", "web", "modern", "--refuse-loss", "--apply"}).status, 3);
  // ssh would follow it, too, and nothing is known of its clients.
  EXPECT_EQ(run({"default", "modern", "--refuse-loss"}).status, 6);
  const Outcome unknown = run({"set", "ssh", "modern", "--refuse-loss"});
  EXPECT_EQ(unknown.status, 6);
  EXPECT_TRUE(
      contains(unknown.err, "ssh: not known who would be lost: no record of its clients is kept"));
  EXPECT_EQ(read_file(kDataStore), before);

  EXPECT_EQ(run({"set", "web", "old", "--refuse-loss"}).status, 0);
  EXPECT_EQ(stored_level("web"), 3);
}

TEST_F(ClientsLosses, AreToldOfADefaultLevelToo) {
  write_record(usual_clients());

  const Outcome outcome = run({"default", "modern"});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err, "web: 2 of 3 clients of the last 7 days would be lost"));
}

TEST_F(ClientsLosses, AreInTheDocumentOfWhatChangesLevels) {
  write_record(usual_clients());
  const auto told = [](const Json::Value& losses) {
    return losses.size() != 1
               ? losses.toStyledString()
               : losses[0]["service"].asString() + " " + losses[0]["level"]["name"].asString() +
                     " " + losses[0]["verdict"].asString() + ", " + counts(losses[0]["last-week"]) +
                     ", of all " + counts(losses[0]["all"]);
  };
  constexpr char kSomeLost[] = "web modern some-lost, 2 of 3, 13 of 213, of all 2 of 4, 13 of 214";
  constexpr char kNoneLost[] =
      "web intermediate none-lost, 0 of 3, 0 of 213, of all 0 of 4, 0 of 214";

  const Json::Value foreseen = run_json("set", {"web", "modern", "--dry-run"}).document["losses"];
  EXPECT_EQ(told(foreseen), kSomeLost);
  EXPECT_EQ(foreseen[0]["addresses"], json(R"(["192.0.2.7", "192.0.2.9"])"));
  EXPECT_EQ(foreseen[0]["text"],
            "2 of 3 clients of the last 7 days would be lost (192.0.2.7, 192.0.2.9)");
  EXPECT_EQ(told(run_json("set", {"web", "modern", "--apply"}).document["losses"]), kSomeLost);
  EXPECT_EQ(run_json("set", {"web", "modern"}).document["losses"], json("[]"));
  ASSERT_EQ(run({"set", "web", "default"}).status, 0);
  EXPECT_EQ(told(run_json("default", {"modern", "--dry-run"}).document["losses"]), kSomeLost);
  EXPECT_EQ(told(run_json("default", {"modern"}).document["losses"]), kSomeLost);
  EXPECT_EQ(told(run_json("default", {"intermediate"}).document["losses"]), kNoneLost);

  write_file(kRecord, "{");
  const Json::Value unknown = run_json("set", {"web", "modern", "--dry-run"}).document["losses"];
  EXPECT_EQ(unknown[0]["verdict"], "not-known");
  EXPECT_TRUE(unknown[0]["last-week"].isNull());
  EXPECT_TRUE(contains(unknown[0]["text"].asString(), "not known who would be lost: "));
}

TEST_F(ClientsLosses, AreToldOfLevelsThatComeBack) {
  constexpr char kBackup[] = "/tmp/backup.json";
  constexpr char kText[] = "web: 2 of 3 clients of the last 7 days would be lost";
  write_record(usual_clients());
  ASSERT_EQ(run({"set", "web", "modern"}).status, 0);
  ASSERT_EQ(run({"backup", kBackup}).status, 0);
  ASSERT_EQ(run({"set", "web", "intermediate"}).status, 0);

  for (const Arguments& arguments :
       {Arguments{"undo", "--dry-run"}, {"undo"}, {"redo"}, {"restore", kBackup, "--dry-run"}}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(contains(outcome.err, arguments[0] == "redo" ? "web: none of 3 clients" : kText))
        << arguments[0];
  }
  const Json::Value restored = run_json("restore", {kBackup}).document["losses"];
  EXPECT_EQ(restored[0]["verdict"], "some-lost");
  ASSERT_EQ(run({"set", "web", "intermediate"}).status, 0);
  const Json::Value undone = run_json("undo").document["changes"][0]["losses"];
  EXPECT_EQ(counts(undone[0]["last-week"]), "2 of 3, 13 of 213");
}

TEST_F(ClientsLosses, DoNotKeepAChangeForARecordThatIsBroken) {
  write_record(usual_clients());
  write_file(kRecord, "{");

  EXPECT_EQ(run({"set", "web", "modern", "--refuse-loss"}).status, 6);
  EXPECT_EQ(stored_level("web"), 0);
  const Outcome outcome = run({"set", "web", "modern"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err, "web: not known who would be lost: "));
  EXPECT_EQ(stored_level("web"), 1);
}

TEST_F(ClientsLosses, AreToldOfTheLevelOfToday) {
  write_record(usual_clients());
  constexpr char kText[] =
      "1 of 4 recorded clients of web are refused at its level: kelotlsctl clients show web\n";

  EXPECT_TRUE(contains(run({"status"}).err, kText));
  EXPECT_TRUE(contains(run({"explain", "web"}).err, kText));
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  ASSERT_EQ(run({"clients", "forget", "web"}).status, 0);
  EXPECT_EQ(run({"status"}).err, "");
}

TEST_F(ClientsLosses, TakesAServiceWithoutATemplateForItsContext) {
  write_record(usual_clients());
  Json::Value record = read_json(kRecord);
  record["service"] = "ssh";
  write_file("/usr/kelo/etc/security-profile/tls-profile/clients/ssh.json",
             record.toStyledString());

  const Json::Value judged = run_clients("judge", {"ssh", "modern"}).document;

  EXPECT_EQ(judged["about"], "context");
  EXPECT_TRUE(judged["about-text"].isNull());
}

}  // namespace
}  // namespace kelotls::test
