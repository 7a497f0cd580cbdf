// Differences that are expected of a service's server: nginx with one curve only, and what its
// author has written down of that.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "kelotls/api_provider.h"
#include "kelotlsctl.h"
#include "loopback_server.h"
#include "nginx.h"
#include "tls_client.h"

namespace kelotls::test {
namespace {

constexpr char kExpected[] = "/usr/kelo/expected.json";
constexpr char kOneCurve[] = R"({
  "modern": {"refused": "it cannot do without TLS 1.2."},
  "intermediate": {"differences": [
    {"kind": "missing", "what": ["secp384r1", "secp521r1"], "reason": "It has one curve."},
    {"kind": "extra", "what": ["prime256v1"], "reason": "Wrong way round."}]},
  "old": {"differences": [{"kind": "missing", "what": ["secp384r1"], "reason": "Old reason."}]}})";
constexpr char kRefusal[] = "web cannot be at level modern: it cannot do without TLS 1.2.";

std::string registration() {
  return R"({"services": [{"service": "web", "display-name": "Web",
      "mustache-path": "/usr/kelo/web.mustache", "reloader-path": "/usr/kelo/web-reload",
      "probe": {"address": "127.0.0.1:443", "expected": "/usr/kelo/expected.json"}}]})";
}

/// The settings of level intermediate, but for these groups; the same at each level.
std::string settings(const std::string& groups) {
  std::string suites;
  const Json::Value level = run_json("levels").document["levels"][1];
  EXPECT_EQ(level["name"], "intermediate");
  for (const Json::Value& suite : level["cipher-suites"]) {
    suites += (suites.empty() ? "" : ":") + suite.asString();
  }
  return "ssl_protocols TLSv1.2 TLSv1.3; ssl_session_tickets off; ssl_ecdh_curve " + groups +
         "; ssl_ciphers " + suites + "; ssl_dhparam /usr/kelo/etc/ssl/dh2048.pem;\n";
}

/// "web" has joined and is at level intermediate, its server not started.
class ExpectedDifferences : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    nginx_.include(rendered_path("web"));
    write_file("/usr/kelo/web.mustache", settings("prime256v1"));
    write_file(kExpected, kOneCurve);
    const Outcome joined = run({"join", "-"}, registration());
    ASSERT_EQ(joined.status, 0) << joined.err;
    ASSERT_EQ(run({"render"}).status, 0);
  }

  /// With what was rendered.
  void start() {
    nginx_.start();
    ASSERT_TRUE(eventually([] { return run({"probe", "web"}).status != 1; }));
  }

  static std::string state() {
    return run_json("list").document["services"][0]["state"].asString();
  }

  Nginx nginx_{"web"};
};

TEST_F(ExpectedDifferences, AreToldApartByProbe) {
  start();

  const JsonOutcome probed = run_json("probe", {"web"});
  EXPECT_EQ(probed.status, 0);
  EXPECT_EQ(probed.document["verdict"], "as-expected");
  EXPECT_FALSE(probed.document["agrees"].asBool());
  ASSERT_EQ(probed.document["differences"].size(), 2U);
  for (const Json::Value& difference : probed.document["differences"]) {
    EXPECT_EQ(difference["expected"], "It has one curve.");
  }
  const std::string out = run({"probe", "web"}).out;
  EXPECT_TRUE(contains(out, "Expected of this server:\n"));
  EXPECT_TRUE(contains(out, "It has one curve."));
  EXPECT_TRUE(contains(out, "All as the level asks, but for what is expected.\n"));
}

TEST_F(ExpectedDifferences, HideNoOther) {
  write_file("/usr/kelo/web.mustache", settings("X25519"));
  ASSERT_EQ(run({"render"}).status, 0);
  start();

  const JsonOutcome probed = run_json("probe", {"web"});
  EXPECT_EQ(probed.status, 3);
  EXPECT_EQ(probed.document["verdict"], "differs");
  std::vector<std::string> unexpected;
  for (const Json::Value& difference : probed.document["differences"]) {
    if (!difference.isMember("expected")) {
      unexpected.push_back(difference["kind"].asString() + " " + difference["what"].asString());
    }
  }
  EXPECT_EQ(unexpected, (Lines{"missing prime256v1", "extra X25519"}));
}

/// What a service gets that is at this level from now on.
Context context_at(const std::string& level) {
  EXPECT_EQ(run({"set", "web", level}).status, 0);
  Context context(APIProvider().acquire_server_context("web"));
  use_certificate(context.get(), "rsa");
  return context;
}

/// Whether the hello that waits to be read offers TLS 1.3 alone.
bool offers_tls13_alone(int descriptor) {
  const std::string supported_versions("\x00\x2b\x00\x03\x02\x03\x04", 7);
  std::string hello(5, '\0');
  const auto peek = [&] {
    return ::recv(descriptor, hello.data(), hello.size(), MSG_PEEK | MSG_WAITALL) ==
           static_cast<ssize_t>(hello.size());
  };
  if (!peek()) {
    return false;
  }
  const auto octet = [&](std::size_t index) { return static_cast<unsigned char>(hello[index]); };
  hello.resize(hello.size() + std::size_t(octet(3) << 8 | octet(4)));
  return peek() && contains(hello, supported_versions);
}

TEST_F(ExpectedDifferences, AreNoneOfAServerThatWasReloadedBehindItsFirstAnswer) {
  write_file(kExpected, R"({"refuses-by-closing": "It sends no alerts."})");
  const Context modern = context_at("modern");
  const Context former = context_at("intermediate");
  std::atomic<int> asked{0};
  const LoopbackServer reloads(AF_INET, [&](int descriptor) {
    if (asked++ == 0) {
      serve_tls(former.get())(descriptor);
    } else if (offers_tls13_alone(descriptor)) {
      serve_tls(modern.get())(descriptor);
    } else {
      char hello[4096];  // read, so that closing is no reset
      static_cast<void>(::recv(descriptor, hello, sizeof hello, 0));
    }
  });
  ASSERT_EQ(run({"address", "web", "127.0.0.1:" + reloads.port()}).status, 0);

  const Outcome outcome = run({"set", "web", "modern", "--apply"});

  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, "reloaded  as asked\n")) << outcome.out;
}

TEST_F(ExpectedDifferences, AreNotThoseOfAServerThatReloadsDuringASlowSurvey) {
  using std::chrono::steady_clock;
  write_file(kExpected, "{}");
  const Context modern = context_at("modern");
  const Context former = context_at("intermediate");
  const auto reload = steady_clock::now() + std::chrono::seconds(6);  // apply alone gives it 5
  const LoopbackServer reloads(AF_INET, [&](int descriptor) {
    if (steady_clock::now() < reload) {
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
      serve_tls(former.get())(descriptor);
    } else {
      serve_tls(modern.get())(descriptor);
    }
  });
  ASSERT_EQ(run({"address", "web", "127.0.0.1:" + reloads.port()}).status, 0);

  EXPECT_EQ(run({"set", "web", "modern", "--apply"}).status, 0);
  EXPECT_EQ(run({"probe", "web"}).status, 0);
}

TEST_F(ExpectedDifferences, MayBeThatNothingIsKnown) {
  const LoopbackServer closes_at_once(AF_INET, [](int descriptor) {
    char hello[4096];  // read, so that closing is no reset
    static_cast<void>(::recv(descriptor, hello, sizeof hello, 0));
  });
  const Arguments there = {"web", "--connect", "127.0.0.1:" + closes_at_once.port()};
  Json::Value all(Json::arrayValue);
  const Json::Value probed = run_json("probe", there).document;
  for (const Json::Value& entry : probed["not-known"]) {
    all.append(entry["what"]);
  }
  ASSERT_GT(all.size(), 1U);
  Json::Value expected;
  Json::Value& difference = expected["intermediate"]["differences"][0];
  difference["kind"] = "not-known";
  difference["reason"] = "It is shy.";
  difference["what"] = all;
  Json::Value& another = expected["intermediate"]["differences"][1];
  another = difference;
  another["reason"] = "It is quiet.";
  difference["what"].resize(all.size() - 1);
  write_file(kExpected, expected.toStyledString());

  EXPECT_EQ(run_json("probe", there).document["verdict"], "as-expected");
  EXPECT_EQ(run({"probe", "web", "--connect", there[2]}).status, 0);
  ASSERT_EQ(run({"address", "web", there[2]}).status, 0);
  ASSERT_EQ(run({"reload"}).status, 0);
  const Json::Value listed = run_json("list").document["services"][0];
  EXPECT_EQ(listed["state"], "as-expected");
  EXPECT_EQ(listed["server"]["text"], "It is shy. It is quiet.");
  expected["intermediate"]["differences"].resize(1);
  all.resize(all.size() - 1);
  difference["what"] = all;
  write_file(kExpected, expected.toStyledString());
  EXPECT_EQ(run_json("probe", there).document["verdict"], "cannot-tell");
  EXPECT_EQ(run({"probe", "web", "--connect", there[2]}).status, 6);
}

TEST_F(ExpectedDifferences, AreNoFaultOfAChange) {
  start();

  const Outcome applied = run({"apply", "web"});
  EXPECT_EQ(applied.status, 0) << applied.err;
  EXPECT_TRUE(contains(applied.out, "reloaded  as expected\n"));
  EXPECT_EQ(state(), "as-expected");
  EXPECT_TRUE(contains(run({"list"}).out, "in force, as far as it can be"));
  EXPECT_TRUE(
      contains(run({"show", "web"}).out, "its server at 127.0.0.1:443: It has one curve.\n"));
  EXPECT_EQ(run({"check", "web"}).out.find("127.0.0.1"), std::string::npos);
}

TEST_F(ExpectedDifferences, OfAnotherLevelCountAtThatLevelAlone) {
  start();

  const Outcome outcome = run({"set", "web", "old", "--apply"});

  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(contains(outcome.out, "reloaded  DIFFERS\n"));
  EXPECT_TRUE(contains(outcome.err, "secp521r1"));
  EXPECT_EQ(stored_level("web"), 0);
}

TEST_F(ExpectedDifferences, StayWithAServiceWhoseAddressChanges) {
  start();
  ASSERT_EQ(run({"address", "web", "localhost:443"}).status, 0);

  EXPECT_EQ(run_json("probe", {"web"}).document["verdict"], "as-expected");
  EXPECT_EQ(run_json("probe", {"web", "--connect", "127.0.0.1:443"}).document["verdict"],
            "as-expected");
  ASSERT_EQ(run({"address", "web", "--remove"}).status, 0);
  EXPECT_EQ(run_json("probe", {"web", "--connect", "127.0.0.1:443"}).document["verdict"],
            "differs");
}

TEST_F(ExpectedDifferences, AreNoneWhereOthersCouldHaveWrittenThem) {
  start();
  ASSERT_EQ(::chmod(kExpected, 0666), 0);

  const JsonOutcome probed = run_json("probe", {"web"});

  EXPECT_EQ(probed.status, 3);
  EXPECT_EQ(probed.document["notes"][0],
            "No difference is expected: /usr/kelo/expected.json: others than its owner may change "
            "it");
  EXPECT_TRUE(contains(run({"check", "web"}).out, "no difference is expected by it"));
  EXPECT_TRUE(contains(run({"apply", "web"}).err, "(no difference is expected: /usr/kelo/expe"));
}

TEST_F(ExpectedDifferences, AreNoneInAFileThatCannotBeUsed) {
  start();
  for (const auto& [text, fault] : std::vector<std::pair<std::string, std::string>>{
           {"", "/usr/kelo/expected.json: "},
           {"[]", "$: "},
           {R"({"strict": {}})",
            "$.strict: no such member; they are refuses-by-closing, modern, intermediate, old"},
           {R"({"old": {"differences": [{}]}})", "$.old.differences[0]: lacks \"kind\""},
           {R"({"old": {"differences": [{"kind": "other", "what": [], "reason": "a"}]}})",
            "$.old.differences[0].kind: must be missing, extra or not-known"},
           {R"({"old": {"differences": [{"kind": "extra", "what": [1], "reason": "a"}]}})",
            "$.old.differences[0].what[0]: must be a string"},
           {R"({"old": {"refused": ""}})", "$.old.refused: must not be empty"}}) {
    write_file(kExpected, text);
    const JsonOutcome probed = run_json("probe", {"web"});
    EXPECT_EQ(probed.status, 3) << text;
    EXPECT_TRUE(contains(probed.document["notes"][0].asString(), fault))
        << probed.document["notes"][0].asString();
  }
  ASSERT_EQ(::unlink(kExpected), 0);
  EXPECT_EQ(run_json("probe", {"web"}).document["notes"][0],
            "No difference is expected: /usr/kelo/expected.json: No such file or directory");
}

TEST_F(ExpectedDifferences, RefuseALevelThatTheServerCannotBeAt) {
  for (const Arguments& arguments :
       {Arguments{"set", "web", "modern"}, Arguments{"set", "web", "modern", "--apply"},
        Arguments{"set", "web", "modern", "--dry-run"}, Arguments{"default", "modern"}}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.err, kRefusal)) << outcome.err;
  }
  EXPECT_EQ(stored_level("web"), 0);
  EXPECT_EQ(run_json("default").document["default-level"]["value"], 2);
  EXPECT_EQ(run({"set", "web", "old"}).status, 0);
  EXPECT_EQ(run({"default", "modern"}).status, 0) << "nobody follows it";
}

TEST_F(ExpectedDifferences, RefuseABackupWithALevelThatTheServerCannotBeAt) {
  write_file("/usr/kelo/levels.json", R"({"default-level": 2, "services": {"web": {
      "display-name": "Web", "current-level": 1}}})");

  for (const Arguments& arguments : {Arguments{"restore", "/usr/kelo/levels.json"},
                                     Arguments{"restore", "/usr/kelo/levels.json", "--dry-run"}}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.err, kRefusal)) << outcome.err;
  }
  EXPECT_EQ(stored_level("web"), 0);
}

TEST_F(ExpectedDifferences, RefuseEveryLevelWhereTheAddressesCannotBeUsed) {
  write_file(kAddresses, "{");

  const Outcome outcome = run({"set", "web", "modern"});

  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "addresses.json cannot be used")) << outcome.err;
  EXPECT_EQ(stored_level("web"), 0);
  EXPECT_TRUE(contains(run({"check", "web"}).out, "addresses.json: cannot be used"));
}

TEST_F(ExpectedDifferences, HideNoTemplateThatCannotBeRendered) {
  write_file(kDataStore, R"({"default-level": 1, "services": {"web": {"display-name": "Web"}}})");
  ASSERT_EQ(::unlink("/usr/kelo/web.mustache"), 0);

  EXPECT_EQ(state(), "cannot-render");
}

TEST_F(ExpectedDifferences, RefuseAJoinAtALevelThatTheServerCannotBeAt) {
  ASSERT_EQ(run({"leave", "-"}, registration()).status, 0);
  ASSERT_EQ(::unlink(kAddresses), 0);
  ASSERT_EQ(run({"default", "modern"}).status, 0);

  const Outcome outcome = run({"join", "-"}, registration());

  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, kRefusal)) << outcome.err;
  EXPECT_FALSE(exists(descriptor_path("web")));
  EXPECT_FALSE(exists(kAddresses));
}

TEST_F(ExpectedDifferences, ShowALevelThatTheServerCannotBeAt) {
  write_file(kDataStore, R"({"default-level": 1, "services": {"web": {"display-name": "Web"}}})");

  EXPECT_EQ(state(), "unreachable");
  const Outcome listed = run({"list"});
  EXPECT_TRUE(contains(listed.out, "its server cannot be at it"));
  EXPECT_TRUE(contains(run({"show", "web"}).out, "it cannot do without TLS 1.2."));
  const Outcome checked = run({"check", "web"});
  EXPECT_EQ(checked.status, 3);
  EXPECT_TRUE(contains(checked.out, "web's server cannot be at its level: it cannot do without"));
  EXPECT_TRUE(contains(run({"status"}).out, "at fault       web\n"));
}

}  // namespace
}  // namespace kelotls::test
