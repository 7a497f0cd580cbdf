// What kelotlsctl finds by hellos: to contexts in memory, and to servers on loopback.
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
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "kelotls/api_provider.h"
#include "levels/report.h"
#include "levels/survey.h"
#include "loopback_server.h"
#include "peers/connection.h"
#include "peers/context_server.h"
#include "private_tree.h"

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

Lines not_known(const Json::Value& report) {
  Lines lines;
  for (const Json::Value& entry : report["not-known"]) {
    lines.push_back(entry["what"].asString() + ": " + entry["text"].asString());
  }
  return lines;
}

/// "answer, requested" of what was tried; list and member: "suites" and "suite", "groups" and
/// "group". Empty where the report does not tell it.
std::string trial(const Json::Value& report, const char* list, const char* member,
                  const std::string& version, const std::string& name) {
  for (const Json::Value& entry : report[list]) {
    if (entry["version"] == version && entry[member] == name) {
      return entry["answer"].asString() + ", " + entry["requested"].asString();
    }
  }
  return "";
}

std::string suite(const Json::Value& report, const std::string& version, const std::string& name) {
  return trial(report, "suites", "suite", version, name);
}

std::string group(const Json::Value& report, const std::string& version, const std::string& name) {
  return trial(report, "groups", "group", version, name);
}

kelotlsctl::Survey survey_context(SSL_CTX* context) {
  kelotlsctl::Asker asker(
      [&](const kelotlsctl::Hello& hello, kelotlsctl::Clock::time_point) {
        return kelotlsctl::ask_context(context, hello);
      },
      kelotlsctl::Patience());
  return kelotlsctl::survey(asker, nullptr, nullptr);
}

/// The numbers that were tried in the version, ascending.
kelotlsctl::Numbers tried_in(const std::vector<kelotlsctl::Trial>& trials, std::uint16_t version) {
  kelotlsctl::Numbers numbers;
  for (const kelotlsctl::Trial& trial : trials) {
    if (trial.version == version) {
      numbers.push_back(trial.number);
    }
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
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

TEST_F(Probe, TriesEverySuiteWithEachVersionThatIsServed) {
  const kelotlsctl::Survey found = survey_context(acquire(3).get());

  for (const std::uint16_t version : kelotlsctl::kVersions) {
    const kelotlsctl::Numbers tried = tried_in(found.suites, version);
    const bool is_served = version >= kelotlsctl::kTls10;
    EXPECT_EQ(serves(found, version), is_served) << version;
    if (is_served) {
      EXPECT_EQ(tried, kelotlsctl::suites_of_version(version)) << version;
    }
  }
}

TEST_F(Probe, TriesEveryGroupWithTls13AndWithOneVersionBefore) {
  const kelotlsctl::Survey found = survey_context(acquire(3).get());

  for (const std::uint16_t version : kelotlsctl::kVersions) {
    const kelotlsctl::Numbers tried = tried_in(found.groups, version);
    EXPECT_EQ(tried, version >= kelotlsctl::kTls12 ? kelotlsctl::groups_of_version(version)
                                                   : kelotlsctl::Numbers())
        << version;
  }
}

TEST_F(Probe, TellsEachVersionSuiteAndGroupAndWhetherTheLevelAsksForIt) {
  const Json::Value report = probe_context(acquire(3).get(), 3);

  EXPECT_EQ(suite(report, "TLS 1.2", "ECDHE-RSA-AES128-GCM-SHA256"), "accepted, yes");
  EXPECT_EQ(suite(report, "TLS 1.0", "ECDHE-RSA-AES128-GCM-SHA256"), "");
  EXPECT_EQ(suite(report, "TLS 1.0", "AES128-SHA"), "accepted, yes");
  EXPECT_EQ(suite(report, "TLS 1.2", "DES-CBC3-SHA"), "refused, yes");
  EXPECT_EQ(suite(report, "TLS 1.2", "AES128-CCM"), "");  // neither asked for nor accepted
  EXPECT_EQ(group(report, "TLS 1.2", "prime256v1"), "accepted, yes");
  EXPECT_EQ(group(report, "TLS 1.3", "prime256v1"), "accepted, yes");
  EXPECT_EQ(group(report, "TLS 1.3", "X25519"), "");
  EXPECT_EQ(report["dh-bits"], 1024);
  Lines versions;
  for (const Json::Value& entry : report["versions"]) {
    versions.push_back(entry["version"].asString() + ": " + entry["answer"].asString() + ", " +
                       entry["requested"].asString());
  }
  EXPECT_EQ(versions,
            (Lines{"SSL 2: refused, no", "SSL 3: refused, no", "TLS 1.0: accepted, yes",
                   "TLS 1.1: accepted, yes", "TLS 1.2: accepted, yes", "TLS 1.3: accepted, yes"}));
}

TEST_F(Probe, SaysThatNoVersionDoesDheWhereNoneDoes) {
  EXPECT_TRUE(probe_context(acquire(1).get(), 1)["dh-bits"].isNull());
}

TEST_F(Probe, FindsASuiteTooMany) {
  const Context context = acquire(2);
  SSL_CTX_set_cipher_list(context.get(), (std::string(kIntermediateList) + ":AES128-SHA").c_str());

  const Json::Value report = probe_context(context.get(), 2);

  EXPECT_EQ(differences(report), Lines{"AES128-SHA: extra, other"});
  EXPECT_FALSE(report["agrees"].asBool());
  EXPECT_EQ(suite(report, "TLS 1.2", "AES128-SHA"), "accepted, no");
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

  kelotlsctl::probe(target, 2, [&](std::size_t done, std::size_t all) {
    steps.push_back(done);
    last_all = all;
  });

  ASSERT_GT(steps.size(), 1U);
  EXPECT_GT(steps.front(), 0U);
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
  EXPECT_GT(SSL_CTX_sess_accept(context.get()), 0);  // so it was asked
  EXPECT_EQ(ERR_peek_error(), 0UL);
  EXPECT_EQ(probe_context(context.get(), 3), first);
}

// Running servers

class ProbeServer : public Probe {
 protected:
  void SetUp() override {
    Probe::SetUp();
    std::signal(SIGPIPE, SIG_IGN);  // the servers of the tests write to closed connections
  }

  static Json::Value probe_server(const LoopbackServer& server, int level,
                                  const std::string& host = "127.0.0.1",
                                  SSL_CTX* context = nullptr) {
    ProbeTarget target;
    target.context = context;
    target.address.host = host;
    target.address.port = server.port();
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

/// The kinds of certificate that the report tells.
Lines kinds(const Json::Value& report) {
  Lines kinds;
  for (const Json::Value& certificate : report["certificates"]) {
    kinds.push_back(certificate["kind"].asString());
  }
  std::sort(kinds.begin(), kinds.end());
  return kinds;
}

TEST_F(ProbeServer, AgreesWithEachLevelGivenBothKindsOfCertificate) {
  for (const int level : {1, 2, 3}) {
    const Context context = acquire(level);
    use_certificate(context.get(), "rsa");
    use_certificate(context.get(), "ecdsa");
    const LoopbackServer server(AF_INET, serve_tls(context.get()));

    const Json::Value report = probe_server(server, level, "127.0.0.1", acquire(level).get());

    EXPECT_EQ(differences(report),
              level == 3 ? Lines{"DES-CBC3-SHA: missing, suite-unavailable"} : Lines{});
    EXPECT_EQ(report["verdict"], level == 3 ? "differs" : "agrees");
    EXPECT_EQ(report["agrees"].asBool(), level != 3);
    EXPECT_EQ(kinds(report), (Lines{"ECDSA", "RSA"}));
    EXPECT_EQ(report["target"], "127.0.0.1 port " + server.port());
    EXPECT_EQ(not_known(report), Lines{});
  }
}

TEST_F(ProbeServer, FindsTheSameAsInMemory) {
  const Context context = acquire(3);
  use_certificate(context.get(), "rsa");
  use_certificate(context.get(), "ecdsa");
  const LoopbackServer server(AF_INET, serve_tls(context.get()));
  const auto trials = [](const Json::Value& report, const char* list) {
    std::multiset<std::string> lines;
    for (const Json::Value& entry : report[list]) {
      lines.insert(entry["version"].asString() + " " + entry["suite"].asString() +
                   entry["group"].asString() + " " + entry["answer"].asString());
    }
    return lines;
  };

  const Json::Value report = probe_server(server, 3);
  const Json::Value in_memory = probe_context(acquire(3).get(), 3);

  for (const char* const list : {"versions", "suites", "groups"}) {
    EXPECT_EQ(trials(report, list), trials(in_memory, list));
  }
  EXPECT_GT(trials(report, "suites").size(), 30U);
  EXPECT_EQ(report["dh-bits"], in_memory["dh-bits"]);
}

// Some servers go on in plain text once TLS is over, and wait for more.
TEST_F(ProbeServer, EndsTheConnectionAfterAWholeHandshake) {
  const Context context = acquire(1);
  use_certificate(context.get(), "rsa");
  std::atomic<int> ended{0};
  std::atomic<int> held{0};
  const LoopbackServer server(AF_INET, [&](int descriptor) {
    SSL* const connection = SSL_new(context.get());
    SSL_set_fd(connection, descriptor);
    if (SSL_accept(connection) == 1) {
      char byte = 0;
      while (SSL_read(connection, &byte, 1) > 0) {
      }
      timeval patience = {5, 0};  // less than the client's
      ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
      ++(::recv(descriptor, &byte, 1, 0) == 0 ? ended : held);
    }
    SSL_free(connection);
  });

  EXPECT_EQ(probe_server(server, 1)["verdict"], "agrees");
  EXPECT_GT(ended, 0);
  EXPECT_EQ(held, 0);
}

TEST_F(ProbeServer, AsksForNoSuiteThatNeedsAnotherCertificate) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  const LoopbackServer server(AF_INET, serve_tls(context.get()));

  const Json::Value report = probe_server(server, 2);

  EXPECT_EQ(differences(report), Lines{});
  EXPECT_EQ(report["verdict"], "agrees");
  EXPECT_EQ(kinds(report), Lines{"RSA"});
  EXPECT_EQ(not_known(report), Lines{});
  EXPECT_EQ(suite(report, "TLS 1.2", "ECDHE-ECDSA-AES128-GCM-SHA256"), "");
}

TEST_F(ProbeServer, FindsEachGroupOfAServerWithAnEcdsaCertificateAlone) {
  const Context context = acquire(2);
  use_certificate(context.get(), "ecdsa");
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);
  const LoopbackServer server(AF_INET, serve_tls(context.get()));

  const Json::Value report = probe_server(server, 2);

  EXPECT_EQ(differences(report), Lines{"TLS 1.3: missing, other"});
  EXPECT_EQ(not_known(report), Lines{});
  for (const char* const name : {"prime256v1", "secp384r1", "secp521r1"}) {
    EXPECT_EQ(group(report, "TLS 1.2", name), "accepted, yes") << name;
  }
}

TEST_F(ProbeServer, DoesNotKnowTheGroupsBehindTheCurveOfAnEcdsaCertificate) {
  const Context context = acquire(2);
  use_certificate(context.get(), "ecdsa");
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3 | SSL_OP_CIPHER_SERVER_PREFERENCE);
  const LoopbackServer server(AF_INET, serve_tls(context.get()));

  const Json::Value report = probe_server(server, 2);

  EXPECT_EQ(report["verdict"], "differs");  // for want of TLS 1.3
  EXPECT_EQ(group(report, "TLS 1.2", "prime256v1"), "accepted, yes");
  EXPECT_EQ(group(report, "TLS 1.2", "secp521r1"), "not-known, yes");
  EXPECT_EQ(group(report, "TLS 1.2", "X25519"), "not-known, no");
  const Lines lines = not_known(report);
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "secp521r1: hidden behind the curve of the server's certificate"),
            1);
}

TEST_F(ProbeServer, FindsASuiteTooManyAndAVersionTooMany) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  SSL_CTX_set_cipher_list(context.get(), (std::string(kIntermediateList) + ":AES128-SHA").c_str());
  SSL_CTX_clear_options(context.get(), SSL_OP_NO_TLSv1);
  const LoopbackServer server(AF_INET, serve_tls(context.get()));

  EXPECT_EQ(differences(probe_server(server, 2)),
            (Lines{"TLS 1.0: extra, other", "AES128-SHA: extra, other"}));
}

TEST_F(ProbeServer, NamesTheCauseThatAContextMadeHereShares) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);
  const LoopbackServer server(AF_INET, serve_tls(context.get()));
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
  const LoopbackServer server(AF_INET, serve_tls(context.get()));

  EXPECT_EQ(differences(probe_server(server, 2)), Lines{"2048-bit DH: missing, other"});
}

TEST_F(ProbeServer, MissesNoDhParametersWhereTheirVersionsAreMissing) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_2);
  const LoopbackServer server(AF_INET, serve_tls(context.get()));

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
  LoopbackServer server(AF_INET, serve_tls(context.get()));

  probe_server(server, 1, "localhost");
  EXPECT_EQ(std::exchange(names, {}), std::set<std::string>{"localhost"});
  probe_server(server, 1, "127.0.0.1");
  server.stop();

  EXPECT_EQ(names, std::set<std::string>{"none"});
}

TEST_F(ProbeServer, SpeaksIpv6) {
  const Context context = acquire(1);
  use_certificate(context.get(), "ecdsa");
  const LoopbackServer server(AF_INET6, serve_tls(context.get()));

  EXPECT_EQ(differences(probe_server(server, 1, "::1")), Lines{});
}

TEST_F(ProbeServer, SaysThatNothingListens) {
  LoopbackServer server(AF_INET, [](int) {});
  ProbeTarget target;
  target.address.host = "127.0.0.1";
  target.address.port = server.port();
  server.stop();

  EXPECT_EQ(failure(target),
            "Nothing answers at 127.0.0.1 port " + target.address.port + ": Connection refused");
}

TEST_F(ProbeServer, SaysThatAPortDoesNotExist) {
  ProbeTarget target;
  target.address.host = "127.0.0.1";
  target.address.port = "no-such-service";

  EXPECT_EQ(failure(target).find("127.0.0.1 port no-such-service cannot be looked up: "), 0U);
}

/// An asker with little patience for the server.
ProbeTarget impatient(const LoopbackServer& server) {
  ProbeTarget target;
  target.address.host = "127.0.0.1";
  target.address.port = server.port();
  target.patience.timeout = std::chrono::seconds(1);
  target.patience.deadline = std::chrono::seconds(4);
  return target;
}

/// The reasons for which the level's versions are not known.
std::set<std::string> reasons_of_versions(const Json::Value& report) {
  std::set<std::string> reasons;
  for (const Json::Value& version : report["versions"]) {
    EXPECT_EQ(version["answer"], "not-known") << version["version"].asString();
    reasons.insert(version["reason"].asString());
  }
  return reasons;
}

constexpr char kNotTried[] = "not tried: the server has answered nothing";

TEST_F(ProbeServer, SaysThatWhatAnswersSpeaksNoTls) {
  const LoopbackServer server(AF_INET, [](int descriptor) {
    char hello[4096];
    (void)!::read(descriptor, hello, sizeof hello);
    (void)!::write(descriptor, "220 mail.example ESMTP\r\n", 24);
  });

  const Json::Value report = kelotlsctl::probe(impatient(server), 2, nullptr);

  EXPECT_EQ(report["verdict"], "cannot-tell");
  EXPECT_FALSE(report["agrees"].asBool());
  EXPECT_EQ(reasons_of_versions(report),
            (std::set<std::string>{"what answers does not speak TLS", kNotTried}));
}

/// Serves the connections whose first bytes please, and closes the others.
LoopbackServer::Serve picky(SSL_CTX* context, std::atomic<int>& connections,
                            const std::function<bool(const unsigned char* hello)>& pleases) {
  return [=, &connections, serve = serve_tls(context)](int descriptor) {
    unsigned char hello[11];
    ++connections;
    if (::recv(descriptor, hello, sizeof hello, MSG_PEEK | MSG_WAITALL) == sizeof hello &&
        pleases(hello)) {
      serve(descriptor);
    }
  };
}

TEST_F(ProbeServer, SeesAllOfAServerThatBearsNoLongHellos) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  std::atomic<int> connections{0};
  const LoopbackServer server(AF_INET,
                              picky(context.get(), connections, [](const unsigned char* hello) {
                                return hello[0] != 22 || (hello[3] << 8 | hello[4]) <= 400;
                              }));

  const Json::Value report = probe_server(server, 2);

  EXPECT_EQ(differences(report), Lines{});
  EXPECT_EQ(not_known(report), Lines{});
  EXPECT_EQ(report["verdict"], "agrees");
}

TEST_F(ProbeServer, SpendsLittleOnAVersionThatIsNeverAnswered) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  std::atomic<int> connections{0};
  const LoopbackServer server(
      AF_INET, picky(context.get(), connections, [](const unsigned char* hello) {
        return hello[0] == 22 && hello[10] == 3;  // TLS 1.2 and 1.3 have the same number here
      }));

  const Json::Value report = probe_server(server, 2);

  EXPECT_EQ(report["verdict"], "cannot-tell");
  EXPECT_EQ(suite(report, "TLS 1.2", "ECDHE-RSA-AES128-GCM-SHA256"), "accepted, yes");
  EXPECT_EQ(trial(report, "versions", "version", "TLS 1.0", "TLS 1.0"), "not-known, no");
  EXPECT_LT(connections, 300);
}

TEST_F(ProbeServer, RaisesNoSignalTowardsAServerThatIsGone) {
  std::signal(SIGPIPE, SIG_DFL);
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const kelotlsctl::Connection connection(ends[0],
                                          kelotlsctl::Clock::now() + std::chrono::seconds(10));
  ::close(ends[1]);

  EXPECT_EQ(connection.send("hello"), kelotlsctl::kReset);
}

TEST_F(ProbeServer, SurvivesAServerThatIsGoneBeforeTheAnswerToIt) {
  std::signal(SIGPIPE, SIG_DFL);
  const LoopbackServer server(AF_INET, [](int descriptor) {
    // The end of the stream, and, for the client's unread hello, a reset.
    pollfd hello = {descriptor, POLLIN, 0};
    (void)!::poll(&hello, 1, 1000);
    ::shutdown(descriptor, SHUT_WR);
  });

  const Json::Value report = kelotlsctl::probe(impatient(server), 2, nullptr);

  EXPECT_EQ(report["verdict"], "cannot-tell");
  std::set<std::string> reasons = reasons_of_versions(report);
  EXPECT_EQ(reasons.erase(kNotTried), 1U);
  ASSERT_EQ(reasons.size(), 1U);
  EXPECT_TRUE(*reasons.begin() == kelotlsctl::kClosed || *reasons.begin() == kelotlsctl::kReset)
      << *reasons.begin();
}

TEST_F(ProbeServer, WaitsForASilentServerAsLongAsItIsTold) {
  std::atomic<bool> is_over{false};
  const LoopbackServer server(AF_INET, [&](int) {
    while (!is_over) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  const ProbeTarget target = impatient(server);
  const auto start = std::chrono::steady_clock::now();

  const Json::Value report = kelotlsctl::probe(target, 2, nullptr);

  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  is_over = true;
  EXPECT_EQ(report["verdict"], "cannot-tell");
  EXPECT_EQ(reasons_of_versions(report), (std::set<std::string>{kelotlsctl::kTimedOut, kNotTried}));
  EXPECT_EQ(report["notes"][0], "A hello was not answered within 1 s; --timeout gives it longer.");
  EXPECT_GE(elapsed.count(), 1.0);
  EXPECT_LT(elapsed.count(), 20.0) << "each hello would otherwise take 10 s";
}

TEST_F(ProbeServer, KeepsWhatItHasSeenOfAServerThatWentAway) {
  const Context context = acquire(2);
  use_certificate(context.get(), "rsa");
  LoopbackServer server(AF_INET, serve_tls(context.get()));
  ProbeTarget target = impatient(server);
#ifdef KELOTLSCTL_PROBE_WITHOUT_HASTE
  target.patience.deadline = std::chrono::seconds(60);
#else
  target.patience.deadline = std::chrono::seconds(6);  // not enough: nobody answers any more
#endif

  const Json::Value report =
      kelotlsctl::probe(target, 2, [&](std::size_t, std::size_t) { server.stop(); });

  EXPECT_EQ(report["verdict"], "cannot-tell");
  EXPECT_EQ(suite(report, "TLS 1.2", "ECDHE-RSA-AES128-GCM-SHA256"), "accepted, yes");
  const Lines lines = not_known(report);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "TLS 1.3: Connection refused"), 1);
#ifndef KELOTLSCTL_PROBE_WITHOUT_HASTE
  EXPECT_EQ(report["notes"][0], "Not everything was tried within 6 s; --deadline gives it longer.");
#endif
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
            "  suite                             TLS 1.3\n"
            "  TLS_AES_256_GCM_SHA384            yes\n"
            "  TLS_AES_128_CCM_SHA256            EXTRA\n"
            "  TLS_AES_128_GCM_SHA256            NO\n"
            "  TLS_CHACHA20_POLY1305_SHA256      NO\n"
            "\n"
            "  group                             TLS 1.3\n"
            "  prime256v1                        yes\n"
            "  secp384r1                         yes\n"
            "  secp521r1                         yes\n"
            "\n"
            "  versions          SSL 2 refused, SSL 3 refused, TLS 1.0 refused,\n"
            "                    TLS 1.1 refused, TLS 1.2 refused, TLS 1.3 accepted\n"
            "  beside            server-order refused (left open)\n"
            "  DH parameters     none\n"
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
  const LoopbackServer server(AF_INET, serve_tls(context.get()));
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
  EXPECT_EQ(plain.str().find('\033'), std::string::npos);
  EXPECT_NE(coloured.str().find('\033'), std::string::npos);
  EXPECT_EQ(std::regex_replace(coloured.str(), std::regex("\033\\[[0-9]*m"), ""), plain.str());
}

}  // namespace
}  // namespace kelotls::test
