// Servers that mean to hold up the probe, or to fill the machine's memory: it ends in time all the
// same, stays small, and claims nothing that was not seen.
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "kelotlsctl.h"
#include "loopback_server.h"

namespace kelotls::test {
namespace {

using Say = std::function<bool(const std::string& bytes)>;

constexpr int kDeadlineSeconds = 3;
constexpr int kLongDeadlineSeconds = 2 + KELOTLSCTL_PROBE_SLACK_SECONDS;

std::string number(std::size_t value, int length) {
  std::string bytes;
  for (int shift = 8 * (length - 1); shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
  return bytes;
}

std::string counted(const std::string& bytes, int length) {
  return number(bytes.size(), length) + bytes;
}

/// In records of TLS 1.2, as long as they can be.
std::string records(char kind, const std::string& bytes) {
  constexpr std::size_t kLongest = 16384;
  std::string all;
  for (std::size_t at = 0; at == 0 || at < bytes.size(); at += kLongest) {
    all += kind + number(0x0303, 2) + counted(bytes.substr(at, kLongest), 2);
  }
  return all;
}

std::string message(char kind, const std::string& body) { return kind + counted(body, 3); }

/// Of TLS 1.2, with the first suite that the hello in a record offers.
std::string server_hello(const std::string& hello) {
  constexpr std::size_t kSession = 5 + 4 + 2 + 32;
  const std::size_t suites = kSession + 1 + static_cast<unsigned char>(hello[kSession]) + 2;
  return message(2, number(0x0303, 2) + std::string(32, 'r') + counted("", 1) +
                        hello.substr(suites, 2) + std::string(1, '\0'));
}

std::string certificate(const std::string& octets) {
  return message(11, counted(counted(octets, 3), 3));
}

/// Does the given once a hello has come, until it is said or the client is gone.
LoopbackServer::Serve after_hello(
    std::function<void(const std::string& hello, const Say& say)> talk) {
  return [talk](int descriptor) {
    char buffer[8192];
    const ssize_t size = ::recv(descriptor, buffer, sizeof buffer, 0);
    if (size < 64) {
      return;
    }
    const std::string hello(buffer, static_cast<std::size_t>(size));
    talk(hello, [&](const std::string& bytes) {
      std::size_t sent = 0;
      while (sent < bytes.size()) {
        const ssize_t count =
            ::send(descriptor, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
          return false;
        }
        sent += static_cast<std::size_t>(count);
      }
      return true;
    });
  };
}

LoopbackServer::Serve flood(const std::string& bytes) {
  return after_hello([bytes](const std::string&, const Say& say) {
    while (say(bytes)) {
    }
  });
}

class HostileServer : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    join_both();
  }

  /// The report of a probe that has to end in time and within 32 MiB.
  static JsonOutcome probe(const LoopbackServer::Serve& serve, const Arguments& options = {},
                           int deadline_seconds = kDeadlineSeconds) {
    JsonOutcome outcome;
    double elapsed = 0;
    // On a machine that has much else to do, it may be late. That it always is, is its own fault.
    for (int attempt = 0; attempt == 0 || (attempt < 3 && elapsed >= latest(deadline_seconds));
         ++attempt) {
      const LoopbackServer server(AF_INET, serve);
      Arguments arguments = {"web", "--connect", "127.0.0.1:" + server.port(), "--deadline",
                             std::to_string(deadline_seconds)};
      arguments.insert(arguments.end(), options.begin(), options.end());
      const auto start = std::chrono::steady_clock::now();
      outcome = run_json("probe", arguments);
      elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    EXPECT_LT(elapsed, latest(deadline_seconds));
    rusage usage = {};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    if (KELOTLSCTL_PROBE_MEBIBYTES > 0) {
      EXPECT_LT(usage.ru_maxrss, KELOTLSCTL_PROBE_MEBIBYTES * 1024);
    }
    return outcome;
  }

  static double latest(int deadline_seconds) {
    return deadline_seconds + KELOTLSCTL_PROBE_SLACK_SECONDS;
  }

  static void expect_nothing_known(const JsonOutcome& outcome) {
    EXPECT_EQ(outcome.status, 6);
    EXPECT_EQ(outcome.document["verdict"], "cannot-tell");
    for (const Json::Value& version : outcome.document["versions"]) {
      EXPECT_EQ(version["answer"], "not-known") << version["version"].asString();
    }
  }
};

/// Of one that begins a handshake of TLS 1.2, whatever it is asked for, and ends none. A slow build
/// needs longer to see enough of it.
void expect_no_version(const JsonOutcome& outcome) {
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.document["verdict"], "differs");
  for (const Json::Value& version : outcome.document["versions"]) {
    EXPECT_NE(version["answer"], "accepted") << version["version"].asString();
  }
  EXPECT_EQ(outcome.document["versions"][4]["answer"], "not-known");  // TLS 1.2
  EXPECT_EQ(outcome.document["suites"].size(), 0u);
}

TEST_F(HostileServer, ThatIsSilent) {
  expect_nothing_known(probe([](int descriptor) {
    char byte;
    while (::recv(descriptor, &byte, 1, 0) > 0) {
    }
  }));
}

TEST_F(HostileServer, ThatClosesAtOnce) {
  expect_nothing_known(probe([](int) {}));
}

TEST_F(HostileServer, ThatFloodsWithWhatIsNoTls) {
  expect_nothing_known(probe(flood(std::string(65536, 'A'))));
}

TEST_F(HostileServer, ThatFloodsWithRecordsOfNoMeaning) {
  expect_nothing_known(probe(flood(records(23, std::string(65536, 'x')))));
  expect_nothing_known(probe(flood(records(22, ""))));
}

TEST_F(HostileServer, ThatFloodsWithWarnings) {
  expect_nothing_known(probe(flood(records(21, "\1\x70"))));
}

TEST_F(HostileServer, ThatNeverEndsAMessage) {
  expect_no_version(probe(after_hello([](const std::string& hello, const Say& say) {
                            say(records(22, server_hello(hello) + "\x0b\xff\xff\xff"));
                            while (say(records(22, std::string(16384, 'c')))) {
                            }
                          }),
                          {}, kLongDeadlineSeconds));
}

TEST_F(HostileServer, ThatNeverEndsItsMessages) {
  expect_no_version(probe(after_hello([](const std::string& hello, const Say& say) {
                            say(records(22, server_hello(hello)));
                            std::string messages;
                            for (int count = 0; count < 4096; ++count) {
                              messages += message(22, "");
                            }
                            while (say(records(22, messages))) {
                            }
                          }),
                          {}, kLongDeadlineSeconds));
}

TEST_F(HostileServer, ThatTrickles) {
  expect_nothing_known(probe(after_hello([](const std::string& hello, const Say& say) {
    for (const char byte : records(22, server_hello(hello) + certificate("certificate"))) {
      if (!say(std::string(1, byte))) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
    }
  })));
}

TEST_F(HostileServer, ThatTakesItsTime) {
  const JsonOutcome outcome = probe(after_hello([](const std::string&, const Say& say) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    say(records(21, "\2\x28"));
  }));

  EXPECT_EQ(outcome.status, 6);
  EXPECT_EQ(outcome.document["notes"][0],
            "Not everything was tried within 3 s; --deadline gives it longer.");
}

TEST_F(HostileServer, ThatHasAnotherHugeCertificateEachTime) {
  char next = 0;
  const JsonOutcome outcome = probe(after_hello([&](const std::string& hello, const Say& say) {
    std::string octets(240 * 1024, 'c');
    octets[0] = ++next;
    say(records(22, server_hello(hello) + certificate(octets) + message(14, "")));
  }));

  EXPECT_NE(outcome.status, 0);
  EXPECT_NE(outcome.document["verdict"], "agrees");
}

TEST_F(HostileServer, ThatGivesTicketsWithoutEnd) {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  use_certificate(context, "rsa");
  SSL_CTX_set_num_tickets(context, 1000000);

  const JsonOutcome outcome = probe(serve_tls(context));

  EXPECT_NE(outcome.status, 0);
  EXPECT_NE(outcome.document["verdict"], "agrees");
  SSL_CTX_free(context);
}

TEST_F(HostileServer, ThatNeverEndsItsWelcomeBeforeTls) {
  const JsonOutcome outcome = probe(
      [](int descriptor) {
        const std::string line = "220-still here\r\n";
        while (::send(descriptor, line.data(), line.size(), MSG_NOSIGNAL) > 0) {
        }
      },
      {"--starttls", "smtp"});

  expect_nothing_known(outcome);
}

}  // namespace
}  // namespace kelotls::test
