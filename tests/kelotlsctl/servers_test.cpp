// What the command does to servers that run: two web servers, of which each has its own template
// and reloader, and clients that shake hands with them.
#include <algorithm>
#include <iterator>
#include <sstream>

#include "kelotlsctl.h"
#include "nginx.h"

namespace kelotls::test {
namespace {

struct Server : Nginx {
  using Nginx::Nginx;

  Lines workers() const {
    const std::string id = std::to_string(process().id());
    std::istringstream ids(read_file("/proc/" + id + "/task/" + id + "/children"));
    return Lines(std::istream_iterator<std::string>(ids), {});
  }

  /// Whether new processes serve alone. While nginx reloads, the old ones accept beside them.
  bool has_replaced(const Lines& former) const {
    const Lines now = workers();
    return !now.empty() && std::none_of(now.begin(), now.end(), [&](const std::string& worker) {
      return std::find(former.begin(), former.end(), worker) != former.end();
    });
  }

  /// One handshake, and what a client prints of it.
  Outcome ask(const Arguments& options) const {
    Arguments command = {"openssl", "s_client", "-connect", "127.0.0.1:" + port()};
    command.insert(command.end(), options.begin(), options.end());
    return run_program(command);
  }

  bool accepts_tls12() const { return ask({"-tls1_2"}).status == 0; }
};

/// "back" and "front", in force at level intermediate. Reloaders run in this order.
class KelotlsctlServers : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    write_file(
        "/usr/kelo/tls.mustache",
        "ssl_ciphers ECDHE-RSA-AES128-GCM-SHA256;\n"
        "ssl_protocols {{#mozilla_intermediate}}TLSv1.2 {{/mozilla_intermediate}}TLSv1.3;\n");
    for (Server* const server : {&back_, &front_}) {
      install(*server);
    }
    ASSERT_EQ(run({"apply"}).status, 0);
    for (Server* const server : {&back_, &front_}) {
      start(*server);
    }
  }

  static void install(const Server& server) {
    server.include(rendered_path(server.name()),
                   "server { listen 127.0.0.1:8" + server.port() + "; return 200 plain; }");
    const Outcome joined =
        run({"join", "-"}, R"({"services": [{"service": ")" + server.name() +
                               R"(", "display-name": "", "mustache-path": )" +
                               R"("/usr/kelo/tls.mustache", "reloader-path": ")" +
                               server.file("-reload") + R"("}]})");
    ASSERT_EQ(joined.status, 0) << joined.err;
  }

  static void start(Server& server) {
    server.start();
    ASSERT_TRUE(eventually([&] { return !server.workers().empty(); })) << "nginx did not start";
  }

  Server back_{"back", "443"};
  Server front_{"front", "444"};
};

TEST_F(KelotlsctlServers, AreBroughtToTheirLevelWhereTheyAreNamed) {
  ASSERT_EQ(run({"set", "back", "modern"}).status, 0);  // pending
  const Lines workers = back_.workers();
  ASSERT_TRUE(front_.accepts_tls12());

  EXPECT_EQ(run({"set", "front", "modern", "--apply"}).status, 0);

  EXPECT_TRUE(eventually([&] { return !front_.accepts_tls12(); }));
  EXPECT_EQ(front_.ask({"-tls1_3"}).status, 0);
  EXPECT_TRUE(back_.accepts_tls12());
  EXPECT_EQ(back_.workers(), workers) << "it was not named, and was reloaded";
}

TEST_F(KelotlsctlServers, KeepTheirLevelWhereTheyRefuseTheirConfiguration) {
  write_file(front_.file(".conf"), read_file(front_.file(".conf")) + "nonsense;\n");

  const Outcome outcome = run({"set", "--all", "modern", "--apply"});

  EXPECT_EQ(outcome.status, 5);
  EXPECT_TRUE(contains(outcome.out,
                       "SERVICE  LEVEL   RENDER    RELOAD    PROBE\n"
                       "back     modern  rendered  reloaded  library only\n"
                       "front    modern  rendered  FAILED    library only\n"));
  EXPECT_TRUE(contains(outcome.err, "front is back at default"));
  EXPECT_TRUE(eventually([&] { return !back_.accepts_tls12(); }));
  EXPECT_TRUE(front_.accepts_tls12());
  EXPECT_EQ(stored_level("back"), 1);
  EXPECT_EQ(stored_level("front"), 0);
}

TEST_F(KelotlsctlServers, ThatAreDownAreNotSaidToAgree) {
  ASSERT_EQ(front_.process().end(), 0);
  const Outcome applied = run({"apply", "front"});
  EXPECT_EQ(applied.status, 0);
  EXPECT_TRUE(contains(applied.out, "reloaded  library only\n"));
  EXPECT_EQ(applied.out.find("agrees"), std::string::npos);
  const Outcome probed = run({"probe", "front", "--connect", "127.0.0.1:" + front_.port()});
  EXPECT_EQ(probed.status, 1);
  EXPECT_TRUE(contains(probed.err, "Nothing answers at 127.0.0.1 port 444"));
}

TEST_F(KelotlsctlServers, AreAtTheirOldOrTheirNewLevelAfterAnInterruption) {
  const std::string reloader = back_.file("-reload");
  write_program(reloader, read_file(reloader) + "kill -INT $PPID\n");

  const Outcome outcome = run({"set", "--all", "modern", "--apply"});

  EXPECT_EQ(outcome.status, 130);
  EXPECT_TRUE(eventually([&] { return !back_.accepts_tls12(); }));
  EXPECT_TRUE(front_.accepts_tls12());
  EXPECT_TRUE(contains(read_file(rendered_path("front")), "ssl_protocols TLSv1.2 TLSv1.3;\n"));
  const std::string history = run({"history", "front"}).out;
  EXPECT_TRUE(contains(history, "undone")) << history;
}

TEST_F(KelotlsctlServers, MakeClientsPrintWhatTheGuideIsKeyedBy) {
  const std::string guide = read_file(KELOTLS_DOCS "/running-an-appliance.md");
  const Server plain("front", "8444");
  const auto client_prints = [&](const Arguments& options, const std::string& words,
                                 const Server& server) {
    EXPECT_TRUE(contains(server.ask(options).err, words));
    EXPECT_TRUE(contains(guide, "| \"" + words + "\" | client |"));
  };
  const auto server_logs = [&](const std::string& words) {
    EXPECT_TRUE(contains(read_file(front_.file(".log")), words));
    EXPECT_TRUE(contains(guide, "| \"" + words + "\" | server |"));
  };
  client_prints({"-tls1_2", "-cipher", "AES128-SHA"}, "alert handshake failure", front_);
  server_logs("no shared cipher");
  const Lines former = front_.workers();
  ASSERT_EQ(run({"set", "front", "modern", "--apply"}).status, 0);
  ASSERT_TRUE(eventually([&] { return front_.has_replaced(former); }));
  client_prints({"-tls1_2"}, "alert protocol version", front_);
  server_logs("unsupported protocol");
  client_prints({}, "wrong version number", plain);
}

}  // namespace
}  // namespace kelotls::test
