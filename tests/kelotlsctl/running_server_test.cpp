// What the command says of a service whose running server it can ask: nginx with the settings of
// our own example, at an address that is kept.
#include <sys/socket.h>

#include <atomic>

#include "kelotlsctl.h"
#include "loopback_server.h"
#include "nginx.h"

namespace kelotls::test {
namespace {

/// "nginx" at level intermediate, in force, and its address kept.
class KelotlsctlRunningServer : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    nginx_.include(rendered_path("nginx"));
    write_file("/usr/kelo/nginx.mustache", read_file(KELOTLS_TEMPLATES "/nginx/template.mustache"));
    const Outcome joined = run({"join", "-"}, R"({"services": [{"service": "nginx",
        "display-name": "Web", "mustache-path": "/usr/kelo/nginx.mustache",
        "reloader-path": "/usr/kelo/nginx-reload", "probe": "127.0.0.1:443"}]})");
    ASSERT_EQ(joined.status, 0) << joined.err;
    ASSERT_EQ(run({"render"}).status, 0);
    nginx_.start();
    ASSERT_TRUE(eventually([] { return run({"probe", "nginx"}).status == 0; }));
  }

  Nginx nginx_{"nginx"};
};

TEST_F(KelotlsctlRunningServer, IsInForceOnceItWasSeenOnTheWire) {
  const Outcome applied = run({"apply"});

  EXPECT_EQ(applied.status, 0) << applied.err;
  EXPECT_TRUE(contains(applied.out, "unchanged  reloaded  as asked\n"));
  const JsonOutcome listed = run_json("list");
  const Json::Value& service = listed.document["services"][0];
  EXPECT_EQ(service["state"], "in-force");
  EXPECT_EQ(service["asked"], "server");
  EXPECT_EQ(service["server"]["verdict"], "agrees");
  EXPECT_TRUE(contains(run({"show", "nginx"}).out, "asked         its server at 127.0.0.1:443\n"));
  EXPECT_EQ(run({"check", "nginx"}).out.find("127.0.0.1"), std::string::npos);
}

TEST_F(KelotlsctlRunningServer, TakesItsNewLevelBeforeApplyIsOver) {
  for (const std::string level : {"modern", "intermediate", "modern"}) {
    const Outcome outcome = run({"set", "nginx", level, "--apply"});

    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(contains(outcome.out, "rendered  reloaded  as asked\n"));
    EXPECT_EQ(run_program({"openssl", "s_client", "-connect", "127.0.0.1:443", "-tls1_2"}).status,
              level == "modern" ? 1 : 0);
  }
}

TEST_F(KelotlsctlRunningServer, IsNotToldToReloadWhereItsAddressCannotBeRead) {
  write_file("/usr/kelo/etc/security-profile/tls-profile/addresses.json", "{");

  const Outcome outcome = run({"set", "nginx", "modern", "--apply"});

  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "addresses.json cannot be used"));
  EXPECT_EQ(stored_level("nginx"), 0);
  EXPECT_TRUE(contains(read_file(rendered_path("nginx")), "ssl_protocols TLSv1.2 TLSv1.3;"));
}

TEST_F(KelotlsctlRunningServer, ThatDoesNotReadItsRenderedFileIsFoundOutAndUndone) {
  write_file("/usr/kelo/other.conf", read_file(rendered_path("nginx")));
  nginx_.include("/usr/kelo/other.conf");

  const Outcome outcome = run({"set", "nginx", "modern", "--apply"});

  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(contains(outcome.out, "rendered  reloaded  DIFFERS\n"));
  EXPECT_TRUE(contains(outcome.err, "its server at 127.0.0.1:443: DIFFERS: TLS 1.2"));
  EXPECT_TRUE(contains(outcome.err, "nginx is back at default, rendered and reloaded"));
  EXPECT_EQ(stored_level("nginx"), 0);
}

TEST_F(KelotlsctlRunningServer, ThatDiffersIsShownByListAndCheck) {
  ASSERT_EQ(run({"apply"}).status, 0);
  write_file("/usr/kelo/other.conf", "ssl_protocols TLSv1.2 TLSv1.3;\n");
  nginx_.include("/usr/kelo/other.conf");
  ASSERT_EQ(run_program({"/usr/kelo/nginx-reload"}).status, 0);

  EXPECT_TRUE(
      eventually([] { return run_json("list").document["services"][0]["state"] == "differs"; }));
  const Outcome listed = run({"list"});
  EXPECT_TRUE(contains(listed.out, "differs on the wire"));
  const Outcome checked = run({"check", "nginx"});
  EXPECT_EQ(checked.status, 3);
  EXPECT_TRUE(contains(checked.out, "127.0.0.1:443"));
  EXPECT_TRUE(contains(checked.out, "2048-bit DH: The server does not accept it"));
}

TEST_F(KelotlsctlRunningServer, ThatIsDownIsNeitherInForceNorInAgreement) {
  ASSERT_EQ(run({"apply"}).status, 0);
  ASSERT_EQ(nginx_.process().end(), 0);

  EXPECT_EQ(run_json("list").document["services"][0]["state"], "no-answer");
  const Outcome outcome = run({"apply"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(contains(outcome.out, "no answer\n"));
  EXPECT_TRUE(contains(outcome.err, "Nothing answers at 127.0.0.1 port 443"));
  EXPECT_TRUE(contains(run({"check", "nginx"}).out, "start the server, or kelotlsctl address"));
}

TEST_F(KelotlsctlRunningServer, ThatDoesNotSayEnoughKeepsItsNewLevelAndIsSaidToBeJustThat) {
  const LoopbackServer closes_at_once(AF_INET, [](int descriptor) {
    char hello[4096];  // read, so that closing is no reset
    static_cast<void>(::recv(descriptor, hello, sizeof hello, 0));
  });
  ASSERT_EQ(run({"address", "nginx", "127.0.0.1:" + closes_at_once.port()}).status, 0);

  const Outcome outcome = run({"set", "nginx", "modern", "--apply"});

  EXPECT_EQ(outcome.status, 6);
  EXPECT_TRUE(contains(outcome.out, "rendered  reloaded  cannot tell\n"));
  EXPECT_TRUE(contains(outcome.err, "cannot tell: TLS 1.2: the server closed the connection\n"));
  EXPECT_EQ(outcome.err.find("is back at"), std::string::npos);
  EXPECT_EQ(stored_level("nginx"), 1);
  EXPECT_EQ(run_json("list").document["services"][0]["state"], "cannot-tell");
}

TEST_F(KelotlsctlRunningServer, IsAskedOnceForItsLevelAndForWhatIsWrong) {
  ASSERT_EQ(run({"apply"}).status, 0);
  std::atomic<int> asked{0};
  const LoopbackServer counts(AF_INET, [&asked](int descriptor) {
    ++asked;
    char hello[4096];
    static_cast<void>(::recv(descriptor, hello, sizeof hello, 0));
  });
  ASSERT_EQ(run({"address", "nginx", "127.0.0.1:" + counts.port()}).status, 0);
  ASSERT_EQ(run({"list"}).status, 0);
  const int by_list = asked.exchange(0);
  ASSERT_GT(by_list, 0);

  const JsonOutcome all = run_json("list", {"--findings"});

  EXPECT_EQ(asked, by_list);
  EXPECT_EQ(all.document["services"][0]["state"], "cannot-tell");
  EXPECT_EQ(all.document["findings"][0]["kind"], "not-known");
}

TEST_F(KelotlsctlRunningServer, IsNotAskedWhereFilesAloneAreLookedAt) {
  ASSERT_EQ(run({"apply"}).status, 0);
  ASSERT_EQ(nginx_.process().end(), 0);
  ASSERT_EQ(run_json("list").document["services"][0]["state"], "no-answer");
  ASSERT_EQ(run_json("status").document["states"]["no-answer"], 1);

  const Json::Value service = run_json("list", {"--files"}).document["services"][0];

  EXPECT_EQ(service["state"], "in-force");
  EXPECT_EQ(service["asked"], "files");
  EXPECT_EQ(run_json("status", {"--files"}).document["states"]["in-force"], 1);
}

TEST_F(KelotlsctlRunningServer, IsNotAskedWhereItsAddressIsNotKept) {
  ASSERT_EQ(run({"address", "nginx", "--remove"}).status, 0);

  const Outcome applied = run({"apply"});

  EXPECT_TRUE(contains(applied.out, "library only\n"));
  EXPECT_EQ(run_json("list").document["services"][0]["asked"], "files");
  EXPECT_TRUE(contains(run({"list"}).err, "no running server was asked of 1"));
  EXPECT_TRUE(contains(run({"probe", "nginx"}).out, "its context, tried in memory"));
}

TEST_F(KelotlsctlRunningServer, IsLeftAloneWhenTheContextIsAskedFor) {
  EXPECT_TRUE(contains(run({"probe", "nginx"}).out, "the server at 127.0.0.1 port 443"));
  EXPECT_TRUE(contains(run({"probe", "nginx", "--context"}).out, "its context, tried in memory"));
}

}  // namespace
}  // namespace kelotls::test
