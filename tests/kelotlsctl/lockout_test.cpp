// A level that locks a client out comes back by itself: nginx and the C service, as real servers.
#include <chrono>
#include <csignal>
#include <memory>

#include "background.h"
#include "kelotlsctl.h"
#include "nginx.h"

namespace kelotls::test {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr char kPending[] = "/usr/kelo/etc/security-profile/tls-profile/pending.json";
constexpr char kHold[] = "/usr/kelo/hold";
constexpr char kHeld[] = "/usr/kelo/held";

/// Whether a client that has nothing newer than TLS 1.2 connects.
bool old_client_connects(const std::string& port) {
  return run_program({"openssl", "s_client", "-connect", "127.0.0.1:" + port, "-tls1_2"}).status ==
         0;
}

bool old_client_connects() { return old_client_connects("443") && old_client_connects("8443"); }

bool old_client_is_refused() { return !old_client_connects("443") && !old_client_connects("8443"); }

std::string last_result() {
  const Json::Value changes = json(run({"history", "--json"}).out)["changes"];
  return changes[changes.size() - 1]["result"].asString();
}

Json::Value waiting() { return json(run({"status", "--json"}).out)["waiting"]; }

/// Both servers are at level intermediate, in force, and seen to be.
class KelotlsctlLockout : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    nginx_.include(rendered_path("nginx"));
    write_file("/usr/kelo/nginx.mustache", read_file(KELOTLS_TEMPLATES "/nginx/template.mustache"));
    make_directories("/usr/kelo/run");
    write_program("/usr/kelo/tls_service-reload",
                  read_file(KELOTLS_EXAMPLES "/tls_service/reloader"));
    const Outcome joined = run({"join", "-"}, R"({"services": [
        {"service": "nginx", "display-name": "Web", "mustache-path": "/usr/kelo/nginx.mustache",
         "reloader-path": "/usr/kelo/nginx-reload", "probe": "127.0.0.1:443"},
        {"service": "tls_service", "display-name": "TLS service",
         "reloader-path": "/usr/kelo/tls_service-reload", "probe": "127.0.0.1:8443"}]})");
    ASSERT_EQ(joined.status, 0) << joined.err;
    ASSERT_EQ(run({"render"}).status, 0);
    nginx_.start();
    service_ = std::make_unique<Process>(
        Arguments{TLS_SERVICE_PROGRAM, "--pid-file", "/usr/kelo/run/tls_service.pid", "tls_service",
                  KELOTLS_CERTIFICATES "/rsa.pem", "8443"},
        "/usr/kelo/tls_service.out");
    ASSERT_TRUE(eventually([] { return old_client_connects(); }));
    ASSERT_EQ(run({"apply"}).status, 0);
  }

  /// Nothing is left to wait for, and so nobody waits.
  void TearDown() override {
    EXPECT_TRUE(eventually([] { return processes_of(KELOTLSCTL).empty(); }));
    EXPECT_TRUE(waiting().isNull());
    PrivateTree::TearDown();
  }

  Nginx nginx_{"nginx"};
  std::unique_ptr<Process> service_;
};

TEST_F(KelotlsctlLockout, EndsByItselfWhereNobodyConfirms) {
  const auto begin = steady_clock::now();
  const Outcome outcome = run({"set", "--all", "modern", "--confirm", "5"});

  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "Taken back in 5 s, unless confirmed: kelotlsctl confirm\n"));
  const bool is_refused = old_client_is_refused();
  // A machine that is too slow for this has not shown anything.
  EXPECT_TRUE(is_refused || steady_clock::now() - begin > seconds(5));
  EXPECT_TRUE(eventually([] { return old_client_connects(); }));
  EXPECT_GE(steady_clock::now() - begin, seconds(5));
  EXPECT_TRUE(eventually([] { return last_result() == "taken-back"; }));
  EXPECT_EQ(run({"check"}).status, 0);
}

TEST_F(KelotlsctlLockout, StaysWhereItIsConfirmedInTime) {
  ASSERT_EQ(run({"set", "--all", "modern", "--confirm", "1h"}).status, 0);
  ASSERT_EQ(processes_of(KELOTLSCTL).size(), 1U);

  EXPECT_EQ(run({"confirm"}).status, 0);

  EXPECT_TRUE(eventually([] { return processes_of(KELOTLSCTL).empty(); }));
  EXPECT_TRUE(old_client_is_refused());
  EXPECT_EQ(last_result(), "confirmed");
}

TEST_F(KelotlsctlLockout, EndsAtOnceWhenItIsReverted) {
  ASSERT_EQ(run({"set", "--all", "modern", "--confirm", "1h"}).status, 0);
  ASSERT_TRUE(old_client_is_refused());

  EXPECT_EQ(run({"revert"}).status, 0);

  EXPECT_TRUE(eventually([] { return old_client_connects(); }));
  EXPECT_EQ(last_result(), "taken-back");
}

TEST_F(KelotlsctlLockout, EndsWithTheNextChangeWhereTheWatcherWasKilled) {
  ASSERT_EQ(run({"set", "nginx", "modern", "--confirm", "1h"}).status, 0);
  for (const pid_t watcher : processes_of(KELOTLSCTL)) {
    ASSERT_EQ(::kill(watcher, SIGKILL), 0);
  }
  ASSERT_TRUE(eventually([] { return processes_of(KELOTLSCTL).empty(); }));
  Json::Value pending = read_json(kPending);  // as it is once the hour is over
  pending["deadline"] = 1;
  write_file(kPending, pending.toStyledString());
  EXPECT_TRUE(contains(run({"check"}).out, "is to be taken back"));
  ASSERT_EQ(stored_level("nginx"), 1);
  EXPECT_FALSE(old_client_connects("443"));

  const Outcome outcome = run({"set", "tls_service", "modern", "--apply"});

  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "the change of nginx was not confirmed in time"));
  EXPECT_TRUE(eventually([] { return old_client_connects("443"); }));
  EXPECT_FALSE(old_client_connects("8443"));
}

// The reloader has made the server take up the level, and the command never hears of it.
TEST_F(KelotlsctlLockout, EndsByItselfWhereTheCommandWasKilledInAReloader) {
  write_program("/usr/kelo/nginx-reload", read_file("/usr/kelo/nginx-reload") + "test ! -e " +
                                              kHold + " || { rm " + kHold + "; touch " + kHeld +
                                              "; exec sleep 60; }\n");
  write_file(kHold, "");
  Process command({KELOTLSCTL, "set", "nginx", "modern", "--confirm", "1h"}, "/tmp/set.out");
  ASSERT_TRUE(eventually([] { return exists(kHeld); }));
  ASSERT_TRUE(eventually([] { return !old_client_connects("443"); }));

  command.kill();

  EXPECT_TRUE(eventually([] { return old_client_connects("443"); }));
  EXPECT_TRUE(eventually([] { return last_result() == "taken-back"; }));
  EXPECT_EQ(stored_level("nginx"), 0);
}

}  // namespace
}  // namespace kelotls::test
