// What kelotlsctl finds by shaking hands: with contexts in memory, and with servers on loopback.
#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "kelotls/api_provider.h"
#include "private_tree.h"
#include "levels/report.h"

namespace kelotls::test {
namespace {

using kelotlsctl::ProbeTarget;

constexpr char kDh2048Path[] = "/usr/kelo/etc/ssl/dh2048.pem";
constexpr char kIntermediateList[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384";

struct ContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using Context = std::unique_ptr<SSL_CTX, ContextFree>;

Context acquire(int level) {
  const char* const names[] = {"", "m", "i", "o"};
  return Context(APIProvider().acquire_server_context(names[level]));
}

Json::Value probe_context(SSL_CTX* context, int level) {
  ProbeTarget target;
  target.context = context;
  return kelotlsctl::probe(target, level, nullptr);
}

/// The differences as "what: kind, cause".
Lines differences(const Json::Value& report) {
  Lines lines;
  for (const Json::Value& difference : report["differences"]) {
    lines.push_back(difference["what"].asString() + ": " + difference["kind"].asString() + ", " +
                    difference["cause"].asString());
  }
  return lines;
}

Lines not_testable(const Json::Value& report) {
  Lines lines;
  for (const Json::Value& entry : report["not-testable"]) {
    lines.push_back(entry["what"].asString() + ": " + entry["text"].asString());
  }
  return lines;
}

Json::Value handshake(const Json::Value& report, const std::string& version,
                      const std::string& suite) {
  for (const Json::Value& entry : report["handshakes"]) {
    if (entry["tries"] == "suite" && entry["version"] == version && entry["suite"] == suite) {
      return entry;
    }
  }
  return Json::Value();
}

class Probe : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    write_file(kDataStore, data_store_text(0, {{"m", "1"}, {"i", "2"}, {"o", "3"}}));
    write_file("/usr/kelo/etc/ssl/dh1024.pem", test_data("bed/data/dh1024.pem"));
    write_file(kDh2048Path, test_data("bed/data/dh2048.pem"));
    set_openssl_configuration(kSecurityLevel0);
  }
};

// In memory

TEST_F(Probe, AgreesWithWhatTheLibraryMakesOfEachLevel) {
  EXPECT_EQ(differences(probe_context(acquire(1).get(), 1)), Lines{});
  EXPECT_EQ(differences(probe_context(acquire(2).get(), 2)), Lines{});
  EXPECT_EQ(differences(probe_context(acquire(3).get(), 3)),
            Lines{"DES-CBC3-SHA: missing, suite-unavailable"});
  EXPECT_TRUE(probe_context(acquire(1).get(), 1)["agrees"].asBool());
  EXPECT_FALSE(probe_context(acquire(3).get(), 3)["agrees"].asBool());
}

TEST_F(Probe, TriesEverySuiteThatAClientCanOfferWithEachVersion) {
  const std::pair<int, const char*> versions[] = {{TLS1_VERSION, "TLS 1.0"},
                                                  {TLS1_1_VERSION, "TLS 1.1"},
                                                  {TLS1_2_VERSION, "TLS 1.2"},
                                                  {TLS1_3_VERSION, "TLS 1.3"}};
  std::set<std::string> expected;
  const Context client(SSL_CTX_new(TLS_client_method()));
  SSL_CTX_set_cipher_list(client.get(), "ALL:COMPLEMENTOFALL:@SECLEVEL=0");
  SSL_CTX_set_ciphersuites(client.get(),
                           "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:"
                           "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_CCM_SHA256:"
                           "TLS_AES_128_CCM_8_SHA256");
  for (const auto& [number, name] : versions) {
    SSL* const connection = SSL_new(client.get());
    SSL_set_min_proto_version(connection, number);
    SSL_set_max_proto_version(connection, number);
    STACK_OF(SSL_CIPHER)* const suites = SSL_get1_supported_ciphers(connection);
    for (int index = 0; index < sk_SSL_CIPHER_num(suites); ++index) {
      const SSL_CIPHER* const suite = sk_SSL_CIPHER_value(suites, index);
      if (SSL_CIPHER_get_auth_nid(suite) != NID_auth_dss) {  // no DSA key is made for a trial
        expected.insert(std::string(name) + " " + SSL_CIPHER_get_name(suite));
      }
    }
    sk_SSL_CIPHER_free(suites);
    SSL_free(connection);
  }

  const Json::Value report = probe_context(acquire(2).get(), 2);

  std::set<std::string> tried;
  Lines groups;
  for (const Json::Value& entry : report["handshakes"]) {
    if (entry["tries"] == "group") {
      groups.push_back(entry["group"].asString());
    } else {
      tried.insert(entry["version"].asString() + " " + entry["suite"].asString());
    }
  }
  EXPECT_EQ(tried, expected);
  EXPECT_GT(tried.size(), 100U);  // so the expectation is not empty either
  EXPECT_EQ(groups, (Lines{"prime256v1", "secp384r1", "secp521r1", "X25519", "X448"}));
}

TEST_F(Probe, TellsEachHandshakesKeyExchange) {
  const Json::Value report = probe_context(acquire(3).get(), 3);

  const Json::Value elliptic = handshake(report, "TLS 1.2", "ECDHE-RSA-AES128-GCM-SHA256");
  EXPECT_EQ(elliptic["group"], "prime256v1");
  EXPECT_TRUE(elliptic["dh-bits"].isNull());
  const Json::Value finite = handshake(report, "TLS 1.2", "DHE-RSA-AES128-GCM-SHA256");
  EXPECT_TRUE(finite["group"].isNull());
  EXPECT_EQ(finite["dh-bits"], 1024);
  const Json::Value rsa = handshake(report, "TLS 1.0", "AES128-SHA");
  EXPECT_TRUE(rsa["group"].isNull());
  EXPECT_TRUE(rsa["dh-bits"].isNull());
  EXPECT_TRUE(rsa["accepted"].asBool());
  const Json::Value unwanted = handshake(report, "TLS 1.2", "AES128-CCM");
  EXPECT_FALSE(unwanted["accepted"].asBool());
  EXPECT_FALSE(unwanted["intended"].asBool());
}

TEST_F(Probe, FindsASuiteTooMany) {
  const Context context = acquire(2);
  SSL_CTX_set_cipher_list(context.get(), (std::string(kIntermediateList) + ":AES128-SHA").c_str());

  const Json::Value report = probe_context(context.get(), 2);

  EXPECT_EQ(differences(report), Lines{"AES128-SHA: extra, other"});
  EXPECT_FALSE(report["agrees"].asBool());
  EXPECT_FALSE(handshake(report, "TLS 1.2", "AES128-SHA")["intended"].asBool());
  EXPECT_TRUE(handshake(report, "TLS 1.2", "AES128-SHA")["accepted"].asBool());
}

TEST_F(Probe, FindsASuiteThatNeedsNoCertificate) {
  const Context context = acquire(2);
  SSL_CTX_set_cipher_list(context.get(),
                          (std::string(kIntermediateList) + ":AECDH-AES128-SHA").c_str());

  EXPECT_EQ(differences(probe_context(context.get(), 2)), Lines{"AECDH-AES128-SHA: extra, other"});
}

TEST_F(Probe, FindsATls13SuiteTooMany) {
  const Context context = acquire(1);
  SSL_CTX_set_ciphersuites(context.get(),
                           "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:"
                           "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_CCM_SHA256");

  EXPECT_EQ(differences(probe_context(context.get(), 1)),
            Lines{"TLS_AES_128_CCM_SHA256: extra, other"});
}

TEST_F(Probe, FindsASuiteTooFew) {
  const Context context = acquire(2);
  SSL_CTX_set_cipher_list(context.get(), std::strchr(kIntermediateList, ':') + 1);

  const Json::Value report = probe_context(context.get(), 2);

  EXPECT_EQ(differences(report), Lines{"ECDHE-ECDSA-AES128-GCM-SHA256: missing, other"});
  EXPECT_EQ(report["differences"][0]["text"], "The context's list of suites does not hold it.");
}

TEST_F(Probe, FindsAVersionTooMany) {
  const Context context = acquire(1);
  SSL_CTX_clear_options(context.get(), SSL_OP_NO_TLSv1_2);

  const Json::Value report = probe_context(context.get(), 1);

  EXPECT_EQ(differences(report), Lines{"TLS 1.2: extra, other"});
}

TEST_F(Probe, CountsAGroupOfTheLevelAsNoneTooManyInAVersionTooMany) {
  const Context context = acquire(1);
  SSL_CTX_clear_options(context.get(), SSL_OP_NO_TLSv1_2);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);

  EXPECT_EQ(differences(probe_context(context.get(), 1)),
            (Lines{"TLS 1.2: extra, other", "TLS 1.3: missing, other"}));
}

TEST_F(Probe, FindsAVersionTooFew) {
  const Context context = acquire(2);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_2);

  EXPECT_EQ(differences(probe_context(context.get(), 2)), Lines{"TLS 1.2: missing, other"});
}

TEST_F(Probe, FindsGroupsTooManyAndTooFew) {
  const Context context = acquire(2);
  SSL_CTX_set1_groups_list(context.get(), "prime256v1:secp384r1:X25519");

  EXPECT_EQ(differences(probe_context(context.get(), 2)),
            (Lines{"secp521r1: missing, other", "X25519: extra, other"}));
}

TEST_F(Probe, TriesGroupsWithTls12WhereThereIsNoTls13) {
  const Context context = acquire(2);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);
  SSL_CTX_set1_groups_list(context.get(), "prime256v1:secp384r1");

  EXPECT_EQ(differences(probe_context(context.get(), 2)),
            (Lines{"TLS 1.3: missing, other", "secp521r1: missing, other"}));
}

TEST_F(Probe, ReportsItsProgressToTheEnd) {
  std::vector<std::size_t> steps;
  std::size_t last_all = 0;
  ProbeTarget target;
  const Context context = acquire(2);
  target.context = context.get();

  const Json::Value report = kelotlsctl::probe(target, 2, [&](std::size_t done, std::size_t all) {
    steps.push_back(done);
    last_all = all;
  });

  EXPECT_EQ(steps.size(), report["handshakes"].size());
  EXPECT_EQ(steps.size(), last_all);
  EXPECT_EQ(steps.front(), 1U);
  EXPECT_EQ(steps.back(), last_all);
  EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
}

TEST_F(Probe, LeavesTheContextAsItWas) {
  static int sessions = 0;
  const Context context = acquire(3);
  SSL_CTX_sess_set_new_cb(
      context.get(), +[](SSL*, SSL_SESSION*) {
        ++sessions;
        return 0;
      });
  const auto options = SSL_CTX_get_options(context.get());

  const Json::Value first = probe_context(context.get(), 3);

  EXPECT_EQ(SSL_CTX_get_options(context.get()), options);
  EXPECT_EQ(SSL_CTX_get0_certificate(context.get()), nullptr);
  EXPECT_EQ(SSL_CTX_sess_number(context.get()), 0);
  EXPECT_EQ(sessions, 0);
  EXPECT_GT(SSL_CTX_sess_accept_good(context.get()), 0);  // so it has shaken hands
  EXPECT_EQ(ERR_peek_error(), 0UL);
  EXPECT_EQ(probe_context(context.get(), 3), first);
}

// Running servers

/// A listener on a loopback address, with a thread that does the given with each connection.
class Server {
 public:
  using Serve = std::function<void(int descriptor)>;

  Server(int family, Serve serve) : serve_(std::move(serve)) {
    listener_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_storage address = {};
    address.ss_family = static_cast<sa_family_t>(family);
    socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    auto* const v4 = reinterpret_cast<sockaddr_in*>(&address);
    auto* const v6 = reinterpret_cast<sockaddr_in6*>(&address);
    if (family == AF_INET6) {
      v6->sin6_addr = in6addr_loopback;
    } else {
      v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    if (::bind(listener_, generic, length) != 0 || ::listen(listener_, 64) != 0 ||
        ::getsockname(listener_, generic, &length) != 0) {
      throw std::runtime_error(std::string("no listener: ") + std::strerror(errno));
    }
    port_ = std::to_string(ntohs(family == AF_INET6 ? v6->sin6_port : v4->sin_port));
    thread_ = std::thread([this] { run(); });
  }

  ~Server() { stop(); }

  void stop() {
    stopping_ = true;
    if (thread_.joinable()) {
      thread_.join();
      ::close(listener_);
    }
  }

  const std::string& port() const { return port_; }

 private:
  void run() {
    while (!stopping_) {
      pollfd entry = {listener_, POLLIN, 0};
      if (::poll(&entry, 1, 10) == 1) {
        const int connection = ::accept(listener_, nullptr, nullptr);
        serve_(connection);
        ::close(connection);
      }
    }
  }

  Serve serve_;
  int listener_;
  std::string port_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

/// Shakes hands and reads until the client closes.
Server::Serve serve_tls(SSL_CTX* context) {
  return [context](int descriptor) {
    SSL* const connection = SSL_new(context);
    SSL_set_fd(connection, descriptor);
    char byte;
    if (SSL_accept(connection) == 1) {
      SSL_read(connection, &byte, 1);
    }
    SSL_free(connection);
  };
}

void use_certificate(SSL_CTX* context, const std::string& kind) {
  const std::string path = std::string(KELOTLS_CERTIFICATES) + "/" + kind + ".pem";
  ASSERT_EQ(SSL_CTX_use_certificate_chain_file(context, path.c_str()), 1);
  ASSERT_EQ(SSL_CTX_use_PrivateKey_file(context, path.c_str(), SSL_FILETYPE_PEM), 1);
}

class ProbeServer : public Probe {
 protected:
  void SetUp() override {
    Probe::SetUp();
    std::signal(SIGPIPE, SIG_IGN);  // the servers of the tests write to closed connections
  }

  static Json::Value probe_server(const Server& server, int level,
                                  const std::string& host = "127.0.0.1",
                                  SSL_CTX* context = nullptr) {
    ProbeTarget target;
    target.context = context;
    target.host = host;
    target.port = server.port();
    return kelotlsctl::probe(target, level, nullptr);
  }

  /// What the probe says instead of a report.
  static std::string failure(const ProbeTarget& target) {
    try {
      kelotlsctl::probe(target, 2, nullptr);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no failure";
  }
};

TEST_F(ProbeServer, AgreesWithEachLevelGivenBothKindsOfCertificate) {
  for (const int level : {1, 2, 3}) {
    const Context context = acquire(level);
    use_certificate(context.get(), "rsa");
    use_certificate(context.get(), "ecdsa");
    const Server server(AF_INET, serve_tls(context.get()));

    const Json::Value report = probe_server(server, level);

    EXPECT_EQ(differences(report), Lines{});
    EXPECT_TRUE(report["agrees"].asBool());
    EXPECT_EQ(report["certificates"][0], "RSA");
    EXPECT_EQ(report["certificates"][1], "ECDSA");
    EXPECT_EQ(report["target"], "127.0.0.1 port " + server.port());
    EXPECT_EQ(
        not_testable(report),
        level == 3 ? Lines{"DES-CBC3-SHA: This machine's OpenSSL does not have it."} : Lines{});
  }
}

TEST_F(ProbeServer, FindsTheSameHandshakesAsInMemory) {
  const Context context = acquire(3);
  use_certificate(context.get(), "rsa");
  use_certificate(context.get(), "ecdsa");
  const Server server(AF_INET, serve_tls(context.get()));
  const auto accepted = [](const Json::Value& report) {
    std::set<std::string> lines;
    for (const Json::Value& entry : report["handshakes"]) {
      if (entry["tries"] == "suite" && entry["accepted"].asBool()) {
        lines.insert(entry["version"].asString() + " " + entry["suite"].asString());
      }
    }
    return lines;
  };

  const Json::Value report = probe_server(server, 3);
  const Json::Value in_memory = probe_context(acquire(3).get(), 3);

  EXPECT_EQ(accepted(report), accepted(in_memory));
  EXPECT_GT(accepted(report).size(), 30U);
  EXPECT_EQ(report["handshakes"].size(), in_memory["handshakes"].size());
}

TEST_F(ProbeServer, NotesWhatTheServersCertificateCannotShow) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  const Server server(AF_INET, serve_tls(context.get()));

  const Json::Value report = probe_server(server, 2);

  EXPECT_EQ(differences(report), Lines{});
  EXPECT_EQ(report["certificates"].size(), 1U);
  Lines untested = not_testable(report);
  std::sort(untested.begin(), untested.end());
  const std::string reason = ": It needs an ECDSA certificate, which the server did not show.";
  EXPECT_EQ(untested, (Lines{"ECDHE-ECDSA-AES128-GCM-SHA256" + reason,
                             "ECDHE-ECDSA-AES256-GCM-SHA384" + reason,
                             "ECDHE-ECDSA-CHACHA20-POLY1305" + reason}));
}

TEST_F(ProbeServer, NotesWhatAnEcdsaCertificateAloneCannotShow) {
  const Context context = acquire(2);
  use_certificate(context.get(), "ecdsa");
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);
  const Server server(AF_INET, serve_tls(context.get()));

  const Json::Value report = probe_server(server, 2);

  EXPECT_EQ(differences(report), Lines{"TLS 1.3: missing, other"});
  const Lines untested = not_testable(report);
  EXPECT_EQ(untested.size(), 8U);  // 3 ECDHE-RSA, 2 DHE-RSA, 3 groups
  EXPECT_EQ(untested.back(), "secp521r1: To try it takes TLS 1.3, or an RSA certificate.");
}

TEST_F(ProbeServer, FindsASuiteTooManyAndAVersionTooMany) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  SSL_CTX_set_cipher_list(context.get(), (std::string(kIntermediateList) + ":AES128-SHA").c_str());
  SSL_CTX_clear_options(context.get(), SSL_OP_NO_TLSv1);
  const Server server(AF_INET, serve_tls(context.get()));

  EXPECT_EQ(differences(probe_server(server, 2)),
            (Lines{"TLS 1.0: extra, other", "AES128-SHA: extra, other"}));
}

TEST_F(ProbeServer, NamesTheCauseThatAContextMadeHereShares) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);
  const Server server(AF_INET, serve_tls(context.get()));
  const Context here = acquire(2);
  SSL_CTX_set_max_proto_version(here.get(), TLS1_2_VERSION);

  const Json::Value with_cause = probe_server(server, 2, "127.0.0.1", here.get());
  const Json::Value without = probe_server(server, 2, "127.0.0.1", acquire(2).get());

  EXPECT_EQ(differences(with_cause), Lines{"TLS 1.3: missing, maximum-version"});
  EXPECT_EQ(with_cause["differences"][0]["text"],
            "A context made on this machine lacks it too: The context's maximum version is "
            "TLS 1.2.");
  EXPECT_EQ(differences(without), Lines{"TLS 1.3: missing, other"});
  EXPECT_EQ(without["differences"][0]["text"],
            "The server does not accept it, though a context made on this machine does.");
}

TEST_F(ProbeServer, ReportsAServerThatHasNoDhParameters) {
  remove_all(kDh2048Path);
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  const Server server(AF_INET, serve_tls(context.get()));

  EXPECT_EQ(differences(probe_server(server, 2)), Lines{"2048-bit DH: missing, other"});
}

TEST_F(ProbeServer, MissesNoDhParametersWhereTheirVersionsAreMissing) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_2);
  const Server server(AF_INET, serve_tls(context.get()));

  EXPECT_EQ(differences(probe_server(server, 2)), Lines{"TLS 1.2: missing, other"});
}

TEST_F(ProbeServer, SendsAHostNameAsSniButNoAddress) {
  const Context context = acquire(1);
  use_certificate(context.get(), "ecdsa");
  static std::mutex mutex;
  static std::set<std::string> names;
  SSL_CTX_set_tlsext_servername_callback(
      context.get(), +[](SSL* connection, int*, void*) {
        const char* const name = SSL_get_servername(connection, TLSEXT_NAMETYPE_host_name);
        const std::lock_guard lock(mutex);
        names.insert(name != nullptr ? name : "none");
        return SSL_TLSEXT_ERR_OK;
      });
  Server server(AF_INET, serve_tls(context.get()));

  probe_server(server, 1, "localhost");
  EXPECT_EQ(std::exchange(names, {}), std::set<std::string>{"localhost"});
  probe_server(server, 1, "127.0.0.1");
  server.stop();

  EXPECT_EQ(names, std::set<std::string>{"none"});
}

TEST_F(ProbeServer, SpeaksIpv6) {
  const Context context = acquire(1);
  use_certificate(context.get(), "ecdsa");
  const Server server(AF_INET6, serve_tls(context.get()));

  EXPECT_EQ(differences(probe_server(server, 1, "::1")), Lines{});
}

TEST_F(ProbeServer, SaysThatNothingListens) {
  Server server(AF_INET, [](int) {});
  ProbeTarget target;
  target.host = "127.0.0.1";
  target.port = server.port();
  server.stop();

  EXPECT_EQ(failure(target),
            "Nothing answers at 127.0.0.1 port " + target.port + ": Connection refused");
}

TEST_F(ProbeServer, SaysThatAPortDoesNotExist) {
  ProbeTarget target;
  target.host = "127.0.0.1";
  target.port = "no-such-service";

  EXPECT_EQ(failure(target).find("127.0.0.1 port no-such-service cannot be looked up: "), 0U);
}

TEST_F(ProbeServer, SaysThatWhatAnswersSpeaksNoTls) {
  const Server server(AF_INET, [](int descriptor) {
    char hello[1024];
    (void)!::read(descriptor, hello, sizeof hello);
    (void)!::write(descriptor, "220 mail.example ESMTP\r\n", 24);
  });
  ProbeTarget target;
  target.host = "127.0.0.1";
  target.port = server.port();

  EXPECT_EQ(failure(target), "No TLS handshake succeeds with 127.0.0.1 port " + server.port() +
                                 ": wrong version number");
}

TEST_F(ProbeServer, SurvivesAServerThatIsGoneBeforeTheAnswerToIt) {
  std::signal(SIGPIPE, SIG_DFL);
  const Server server(AF_INET, [](int descriptor) {
    // A server hello that the client must refuse with an alert, the end of the stream, and, for
    // the client's unread hello, a reset. To send the alert then raises SIGPIPE.
    constexpr char kEmptyServerHello[] = {0x16, 3, 3, 0, 4, 2, 0, 0, 0};
    pollfd hello = {descriptor, POLLIN, 0};
    (void)!::poll(&hello, 1, 1000);
    (void)!::send(descriptor, kEmptyServerHello, sizeof kEmptyServerHello, MSG_MORE);
    ::shutdown(descriptor, SHUT_WR);
  });
  ProbeTarget target;
  target.host = "127.0.0.1";
  target.port = server.port();

  // The reset does not come in time for every attempt.
  for (int attempt = 0; attempt < 100; ++attempt) {
    EXPECT_EQ(failure(target).find("No TLS handshake succeeds with 127.0.0.1 port "), 0U);
  }
}

TEST_F(ProbeServer, WaitsTwoSecondsForASilentServer) {
  std::atomic<bool> is_over{false};
  const Server server(AF_INET, [&](int) {
    while (!is_over) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  ProbeTarget target;
  target.host = "127.0.0.1";
  target.port = server.port();
  const auto start = std::chrono::steady_clock::now();

  const std::string text = failure(target);

  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  is_over = true;
  EXPECT_EQ(text, "No TLS handshake succeeds with 127.0.0.1 port " + server.port() +
                      ": Connection timed out");
  EXPECT_GE(elapsed.count(), 2.0);
  EXPECT_LT(elapsed.count(), 4.0);
}

TEST_F(ProbeServer, SaysThatTheServerWentAway) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  const Server::Serve serve = serve_tls(context.get());
  Server* running = nullptr;
  std::atomic<int> connections{0};
  Server server(AF_INET, [&](int descriptor) {
    serve(descriptor);
    ++connections;
  });
  running = &server;
  ProbeTarget target;
  target.host = "127.0.0.1";
  target.port = server.port();

  std::string text;
  try {
    kelotlsctl::probe(target, 2, [&](std::size_t, std::size_t) { running->stop(); });
  } catch (const std::runtime_error& error) {
    text = error.what();
  }

  EXPECT_EQ(text, "Nothing answers at 127.0.0.1 port " + target.port + ": Connection refused");
  EXPECT_GT(connections, 0);
}

// Text

TEST_F(Probe, PrintsATableOfSuitesAndVersions) {
  const Context context = acquire(1);
  SSL_CTX_set_ciphersuites(context.get(), "TLS_AES_256_GCM_SHA384:TLS_AES_128_CCM_SHA256");
  std::ostringstream out;

  kelotlsctl::print_probe(out, probe_context(context.get(), 1), false);

  EXPECT_EQ(out.str(),
            "Level 1, modern: its context, tried in memory\n"
            "\n"
            "  suite                             TLS 1.0  TLS 1.1  TLS 1.2  TLS 1.3\n"
            "  TLS_AES_128_GCM_SHA256                                       NO\n"
            "  TLS_AES_256_GCM_SHA384                                       yes\n"
            "  TLS_CHACHA20_POLY1305_SHA256                                 NO\n"
            "  TLS_AES_128_CCM_SHA256                                       EXTRA\n"
            "\n"
            "  group\n"
            "  prime256v1                        yes (TLS 1.3)\n"
            "  secp384r1                         yes (TLS 1.3)\n"
            "  secp521r1                         yes (TLS 1.3)\n"
            "\n"
            "Differences from what the level asks for:\n"
            "  missing           TLS_AES_128_GCM_SHA256, TLS_CHACHA20_POLY1305_SHA256\n"
            "                    The context's list of suites does not hold it.\n"
            "  extra             TLS_AES_128_CCM_SHA256\n"
            "                    Accepted although the level does not ask for it.\n");
}

TEST_F(ProbeServer, PrintsAtMost80ColumnsAndTheSameTextInColour) {
  const Context context = acquire(3);
  use_certificate(context.get(), "rsa");
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);
  const Server server(AF_INET, serve_tls(context.get()));
  const Json::Value report = probe_server(server, 3);
  std::ostringstream plain;
  std::ostringstream coloured;

  kelotlsctl::print_probe(plain, report, false);
  kelotlsctl::print_probe(coloured, report, true);

  std::istringstream lines(plain.str());
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), 80U) << line;
    EXPECT_FALSE(!line.empty() && line.back() == ' ') << line;
  }
  EXPECT_NE(plain.str().find("Not testable:"), std::string::npos);
  EXPECT_EQ(plain.str().find('\033'), std::string::npos);
  EXPECT_NE(coloured.str().find('\033'), std::string::npos);
  EXPECT_EQ(std::regex_replace(coloured.str(), std::regex("\033\\[[0-9]*m"), ""), plain.str());
}

}  // namespace
}  // namespace kelotls::test
