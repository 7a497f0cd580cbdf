// Surveys of servers that are a rule for each answer: what is found of them, whatever they do.
#include "levels/survey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "loopback_server.h"
#include "tls/registry.h"

namespace kelotls::test {
namespace {

using kelotlsctl::Answer;
using kelotlsctl::Asker;
using kelotlsctl::Bytes;
using kelotlsctl::Clock;
using kelotlsctl::FullHandshake;
using kelotlsctl::Hello;
using kelotlsctl::KeyExchange;
using kelotlsctl::kReset;
using kelotlsctl::kSsl2;
using kelotlsctl::kSsl3;
using kelotlsctl::kTimedOut;
using kelotlsctl::kTls10;
using kelotlsctl::kTls11;
using kelotlsctl::kTls12;
using kelotlsctl::kTls13;
using kelotlsctl::Numbers;
using kelotlsctl::Patience;
using kelotlsctl::suite_number;
using kelotlsctl::Survey;
using kelotlsctl::Trial;
using kelotlsctl::Verdict;

constexpr std::uint16_t kP256 = 0x0017;
constexpr std::uint16_t kP384 = 0x0018;
constexpr std::uint16_t kX25519 = 0x001d;
constexpr std::uint16_t kFfdhe2048 = 0x0100;

Numbers numbers(const std::vector<std::string>& names) {
  Numbers suites;
  for (const std::string& name : names) {
    suites.push_back(suite_number(name));
  }
  return suites;
}

Answer lost(const std::string& reason = kReset) {
  Answer answer;
  answer.reason = reason;
  return answer;
}

Answer alert(bool is_about_version = false) {
  Answer answer;
  answer.verdict = Verdict::kRefused;
  answer.is_alert = true;
  answer.is_about_version = is_about_version;
  return answer;
}

bool offers(const Numbers& offered, std::uint16_t number) {
  return kelotlsctl::contains(offered, number);
}

/// A server that serves these, in its order of preference.
struct FakeServer {
  Numbers versions = {kTls12};
  Numbers suites = numbers({"ECDHE-RSA-AES128-GCM-SHA256", "AES128-SHA", "AES256-SHA"});
  Numbers groups = {kP256, kX25519};
  bool has_order = true;  ///< its own of suites counts, not the client's
  bool has_order_of_groups = false;
  bool knows_retry = true;     ///< a HelloRetryRequest
  bool negotiates_dh = false;  ///< DHE only with a group that the client offers
  int dh_bits = 2048;
  std::size_t most_suites = 1000;          ///< a hello with more is lost
  std::set<std::uint16_t> lost_over;       ///< a hello that offers one of these is lost
  std::set<std::uint16_t> chosen_in_vain;  ///< chosen, and then refused with an alert
  std::set<std::uint16_t> chosen_and_lost;
  Answer extras;  ///< the features are taken from it
  std::vector<Hello> asked = {};

  Answer answer(const Hello& hello) {
    asked.push_back(hello);
    if (!offers(versions, hello.version)) {
      return alert(true);
    }
    const bool is_lost = std::any_of(hello.suites.begin(), hello.suites.end(),
                                     [&](auto suite) { return lost_over.count(suite) != 0; });
    if (is_lost || hello.suites.size() > most_suites) {
      return lost();
    }
    for (const std::uint16_t suite : has_order ? suites : hello.suites) {
      Answer found = extras;
      const bool is_common = offers(suites, suite) && offers(hello.suites, suite);
      if (is_common && fits(suite, hello.version) && agree(suite, hello, found)) {
        return conclude(suite, hello, found);
      }
    }
    return alert();
  }

 private:
  static KeyExchange exchange_of(std::uint16_t suite) {
    return kelotlsctl::key_exchange_of(*kelotlsctl::find_suite(suite));
  }

  static bool fits(std::uint16_t suite, std::uint16_t version) {
    return (exchange_of(suite) == KeyExchange::kLeftOpen) == (version == kTls13);
  }

  /// Whether there are keys for the suite; into found what they are agreed on with.
  bool agree(std::uint16_t suite, const Hello& hello, Answer& found) const {
    const Numbers& preferred = has_order_of_groups ? groups : hello.groups;
    const auto group = std::find_if(preferred.begin(), preferred.end(), [&](auto number) {
      return offers(groups, number) && offers(hello.groups, number);
    });
    const KeyExchange exchange = exchange_of(suite);
    if (exchange == KeyExchange::kEcdheEcdsa || exchange == KeyExchange::kEcdheRsa ||
        exchange == KeyExchange::kLeftOpen) {
      found.group = group != preferred.end() ? *group : std::uint16_t{0};
      const bool lacks_share = !knows_retry && !offers(hello.key_shares, found.group);
      return found.group != 0 && (exchange != KeyExchange::kLeftOpen || !lacks_share) &&
             (exchange != KeyExchange::kEcdheEcdsa || offers(hello.groups, kP256));
    }
    if (exchange == KeyExchange::kDheRsa || exchange == KeyExchange::kDhAnon) {
      found.dh_bits = dh_bits;
      return !negotiates_dh || offers(hello.groups, kFfdhe2048);
    }
    return true;
  }

  Answer conclude(std::uint16_t suite, const Hello& hello, Answer found) const {
    found.version = hello.version;
    found.suite = suite;
    if (chosen_in_vain.count(suite) != 0) {
      found.verdict = Verdict::kRefused;
      found.is_alert = true;
    } else if (chosen_and_lost.count(suite) != 0) {
      found.reason = kReset;
    } else {
      found.verdict = Verdict::kAccepted;
      const KeyExchange exchange = exchange_of(suite);
      if (hello.version != kTls13 && exchange != KeyExchange::kDhAnon) {
        found.certificates = {
            certificate_in_der(exchange == KeyExchange::kEcdheEcdsa ? "ecdsa" : "rsa")};
      }
    }
    return found;
  }
};

Patience patience() {
  Patience patience;
  patience.timeout = std::chrono::milliseconds(100);
  patience.deadline = std::chrono::minutes(2);
  return patience;
}

Survey survey(FakeServer& server, const kelotlsctl::ShakeHands& shake_hands = nullptr) {
  Asker asker([&](const Hello& hello, Clock::time_point) { return server.answer(hello); },
              patience());
  return kelotlsctl::survey(asker, shake_hands, nullptr);
}

Numbers with_verdict(const std::vector<Trial>& trials, std::uint16_t version, Verdict verdict) {
  Numbers found;
  for (const Trial& trial : trials) {
    if (trial.version == version && trial.verdict == verdict) {
      found.push_back(trial.number);
    }
  }
  return found;
}

Numbers sorted(Numbers found) {
  std::sort(found.begin(), found.end());
  return found;
}

Trial trial_of(const std::vector<Trial>& trials, std::uint16_t version, std::uint16_t number) {
  for (const Trial& trial : trials) {
    if (trial.version == version && trial.number == number) {
      return trial;
    }
  }
  ADD_FAILURE() << "not tried: " << version << " " << number;
  return Trial();
}

Verdict verdict_of(const Survey& found, std::uint16_t version) {
  return trial_of(found.versions, version, version).verdict;
}

// Suites

TEST(SurveyOfSuites, FindsWhatTheServerHasAndNothingElse) {
  FakeServer server;
  server.versions = {kTls10, kTls12, kTls13};
  server.suites =
      numbers({"TLS_AES_256_GCM_SHA384", "DHE-RSA-AES128-SHA", "AES128-SHA",
               "ECDHE-ECDSA-AES128-GCM-SHA256", "PSK-AES128-CBC-SHA", "ADH-AES128-SHA", "RC4-MD5"});

  const Survey found = survey(server);

  const Numbers older(server.suites.begin() + 1, server.suites.end());
  for (const std::uint16_t version : {kTls10, kTls12}) {
    EXPECT_EQ(sorted(accepted_in(found.suites, version)), sorted(older)) << version;
    EXPECT_EQ(with_verdict(found.suites, version, Verdict::kNotKnown), Numbers{});
    EXPECT_EQ(with_verdict(found.suites, version, Verdict::kRefused).size() + older.size(),
              kelotlsctl::suites_of_version(version).size());
  }
  EXPECT_EQ(accepted_in(found.suites, kTls13), numbers({"TLS_AES_256_GCM_SHA384"}));
  for (const std::uint16_t version : kelotlsctl::kVersions) {
    EXPECT_EQ(verdict_of(found, version),
              offers(server.versions, version) ? Verdict::kAccepted : Verdict::kRefused)
        << version;
  }
}

TEST(SurveyOfSuites, ListsThoseOfOneKindInTheServersOrder) {
  FakeServer server;
  server.suites = numbers({"AES256-SHA", "RC4-SHA", "AES128-SHA", "AES256-GCM-SHA384"});

  EXPECT_EQ(accepted_in(survey(server).suites, kTls12), server.suites);
}

TEST(SurveyOfSuites, AsksNoSuiteOfAVersionThatAnAlertRefuses) {
  FakeServer server;
  server.versions = {kTls13};
  server.suites = numbers({"TLS_AES_128_GCM_SHA256"});

  const Survey found = survey(server);

  EXPECT_EQ(std::count_if(server.asked.begin(), server.asked.end(),
                          [](const Hello& hello) { return hello.version == kTls11; }),
            1);
  EXPECT_EQ(with_verdict(found.suites, kTls11, Verdict::kRefused), Numbers{});
  EXPECT_EQ(verdict_of(found, kTls11), Verdict::kRefused);
}

TEST(SurveyOfSuites, OneThatTheServerIsLostOverHidesNoOther) {
  for (const char* const name : {"AES256-SHA", "NULL-MD5", "ECDHE-RSA-NULL-SHA"}) {
    FakeServer server;
    server.lost_over = {suite_number(name)};

    const Survey found = survey(server);

    Numbers rest = server.suites;
    rest.erase(std::remove(rest.begin(), rest.end(), suite_number(name)), rest.end());
    EXPECT_EQ(sorted(accepted_in(found.suites, kTls12)), sorted(rest)) << name;
    EXPECT_EQ(with_verdict(found.suites, kTls12, Verdict::kNotKnown), numbers({name}));
    EXPECT_EQ(trial_of(found.suites, kTls12, suite_number(name)).reason, kReset);
    EXPECT_EQ(verdict_of(found, kTls12), Verdict::kAccepted);
  }
}

TEST(SurveyOfSuites, SeveralThatTheServerIsLostOverHideNoOther) {
  FakeServer server;
  server.lost_over = {suite_number("NULL-SHA"), suite_number("AES128-GCM-SHA256"),
                      suite_number("ADH-AES256-SHA")};

  const Survey found = survey(server);

  EXPECT_EQ(sorted(accepted_in(found.suites, kTls12)), sorted(server.suites));
  EXPECT_EQ(sorted(with_verdict(found.suites, kTls12, Verdict::kNotKnown)),
            Numbers(server.lost_over.begin(), server.lost_over.end()));
}

TEST(SurveyOfSuites, OneThatIsChosenInVainHidesNoOther) {
  FakeServer server;
  server.suites = numbers({"DHE-RSA-AES128-GCM-SHA256", "DHE-RSA-AES256-SHA",
                           "ECDHE-RSA-AES128-GCM-SHA256", "AES128-SHA"});
  server.chosen_in_vain = {server.suites[0]};

  const Survey found = survey(server);

  EXPECT_EQ(sorted(accepted_in(found.suites, kTls12)),
            sorted(Numbers(server.suites.begin() + 1, server.suites.end())));
  EXPECT_EQ(trial_of(found.suites, kTls12, server.suites[0]).verdict, Verdict::kRefused);
  EXPECT_EQ(verdict_of(found, kTls12), Verdict::kAccepted);
}

TEST(SurveyOfSuites, OneThatIsChosenAndLostHidesNoOther) {
  FakeServer server;
  server.chosen_and_lost = {suite_number("AES128-SHA")};

  const Survey found = survey(server);

  EXPECT_EQ(sorted(accepted_in(found.suites, kTls12)),
            sorted(numbers({"ECDHE-RSA-AES128-GCM-SHA256", "AES256-SHA"})));
  EXPECT_EQ(trial_of(found.suites, kTls12, suite_number("AES128-SHA")).verdict, Verdict::kNotKnown);
}

TEST(SurveyOfSuites, AreFoundWhereAServerBearsOnlyAFewAtATime) {
  FakeServer server;
  server.most_suites = 20;

  const Survey found = survey(server);

  EXPECT_EQ(sorted(accepted_in(found.suites, kTls12)), sorted(server.suites));
  EXPECT_EQ(with_verdict(found.suites, kTls12, Verdict::kNotKnown), Numbers{});
  EXPECT_EQ(verdict_of(found, kTls12), Verdict::kAccepted);
}

TEST(SurveyOfSuites, AVersionIsRefusedWhereAllAreThoughAnAlertToldNothing) {
  FakeServer server;
  server.most_suites = 4;
  server.suites = numbers({"TLS_AES_128_GCM_SHA256"});  // none for TLS 1.2
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        Answer answer = server.answer(hello);
        answer.is_alert = true;  // an internal error where there are too many
        return answer;
      },
      patience());

  EXPECT_EQ(verdict_of(kelotlsctl::survey(asker, nullptr, nullptr), kTls12), Verdict::kRefused);
}

TEST(SurveyOfSuites, FindsDheOfAServerThatNegotiatesItsGroup) {
  FakeServer server;
  server.suites = numbers({"DHE-RSA-AES128-GCM-SHA256", "AES128-SHA"});
  server.negotiates_dh = true;

  const Survey found = survey(server);

  EXPECT_EQ(sorted(accepted_in(found.suites, kTls12)), sorted(server.suites));
  EXPECT_EQ(found.weakest_dh_bits, 2048);
}

TEST(SurveyOfSuites, FindsTls13OfAServerThatKnowsNoRetry) {
  FakeServer server;
  server.versions = {kTls13};
  server.suites = numbers({"TLS_AES_128_GCM_SHA256", "TLS_CHACHA20_POLY1305_SHA256"});
  server.knows_retry = false;

  const Survey found = survey(server);

  EXPECT_EQ(verdict_of(found, kTls13), Verdict::kAccepted);
  EXPECT_EQ(sorted(accepted_in(found.suites, kTls13)), sorted(server.suites));
  EXPECT_EQ(sorted(accepted_in(found.groups, kTls13)), sorted(server.groups));
}

// Key exchange

TEST(SurveyOfKeys, TellsTheWeakestDhOfServersThatProveThemselves) {
  FakeServer server;
  server.suites = numbers({"ADH-AES128-SHA", "AES128-SHA"});
  server.dh_bits = 512;
  EXPECT_EQ(survey(server).weakest_dh_bits, 0);
  server.suites = numbers({"DHE-RSA-AES128-SHA", "AES128-SHA"});
  EXPECT_EQ(survey(server).weakest_dh_bits, 512);
  server.chosen_in_vain = {server.suites[0]};
  EXPECT_EQ(survey(server).weakest_dh_bits, 0);

  FakeServer uneven;
  uneven.suites = numbers({"DHE-RSA-AES128-SHA", "DHE-RSA-AES256-SHA"});
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        Answer answer = uneven.answer(hello);
        answer.dh_bits = answer.suite == uneven.suites[0] ? 3072 : answer.dh_bits == 0 ? 0 : 1024;
        return answer;
      },
      patience());
  EXPECT_EQ(kelotlsctl::survey(asker, nullptr, nullptr).weakest_dh_bits, 1024);
}

TEST(SurveyOfKeys, FindsTheGroupsOfBothGenerations) {
  FakeServer server;
  server.versions = {kTls11, kTls13};
  server.suites = numbers({"TLS_AES_128_GCM_SHA256", "ECDHE-RSA-AES128-SHA"});
  server.groups = {kX25519, kFfdhe2048, 0x6399};
  server.has_order_of_groups = true;

  const Survey found = survey(server);

  EXPECT_EQ(accepted_in(found.groups, kTls13), server.groups);  // as the server prefers them
  EXPECT_EQ(sorted(accepted_in(found.groups, kTls11)), sorted({kX25519, 0x6399}));
  EXPECT_EQ(with_verdict(found.groups, kTls13, Verdict::kNotKnown), Numbers{});
  EXPECT_EQ(trial_of(found.groups, kTls11, kP384).verdict, Verdict::kRefused);
}

TEST(SurveyOfKeys, DoesNotKnowAGroupThatTheServerKeepsToItself) {
  FakeServer server;
  server.suites = numbers({"ECDHE-RSA-AES128-SHA"});
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        Answer answer = server.answer(hello);
        answer.group = 0;
        return answer;
      },
      patience());

  const Survey found = kelotlsctl::survey(asker, nullptr, nullptr);

  EXPECT_EQ(accepted_in(found.groups, kTls12), Numbers{});
  EXPECT_EQ(trial_of(found.groups, kTls12, kP256).reason, "the server does not say what it chose");
}

TEST(SurveyOfKeys, FindsTheGroupsBesideTheCurveOfAnEcdsaCertificate) {
  FakeServer server;
  server.suites = numbers({"ECDHE-ECDSA-AES128-GCM-SHA256"});
  server.groups = {kP384, kP256, kX25519};

  const Survey found = survey(server);

  EXPECT_EQ(sorted(accepted_in(found.groups, kTls12)), sorted(server.groups));
  EXPECT_EQ(with_verdict(found.groups, kTls12, Verdict::kNotKnown), Numbers{});
  EXPECT_EQ(trial_of(found.groups, kTls12, 0x0019).verdict, Verdict::kRefused);
}

TEST(SurveyOfKeys, DoesNotKnowWhatTheServersOrderHidesBehindThatCurve) {
  FakeServer server;
  server.suites = numbers({"ECDHE-ECDSA-AES128-GCM-SHA256"});
  server.groups = {kP384, kP256, kX25519};
  server.has_order_of_groups = true;

  const Survey found = survey(server);

  EXPECT_EQ(sorted(accepted_in(found.groups, kTls12)), sorted({kP384, kP256}));
  EXPECT_EQ(trial_of(found.groups, kTls12, kX25519).verdict, Verdict::kNotKnown);
  EXPECT_EQ(trial_of(found.groups, kTls12, kX25519).reason,
            "hidden behind the curve of the server's certificate");
}

// What a server does besides

Verdict feature(const Survey& found, const char* name) {
  const auto at = found.features.find(name);
  EXPECT_NE(at, found.features.end()) << name;
  return at != found.features.end() ? at->second : Verdict::kNotKnown;
}

TEST(SurveyOfFeatures, TellsWhoseOrderCounts) {
  for (const bool has_order : {true, false}) {
    FakeServer server;
    server.has_order = has_order;

    EXPECT_EQ(feature(survey(server), kelotlsctl::kServerOrder),
              has_order ? Verdict::kAccepted : Verdict::kRefused);
  }
  FakeServer single;
  single.suites = numbers({"AES128-SHA"});
  EXPECT_EQ(survey(single).features.count(kelotlsctl::kServerOrder), 0U);
}

TEST(SurveyOfFeatures, TellsEachThatTheServerShows) {
  FakeServer server;
  const std::pair<bool Answer::*, const char*> features[] = {
      {&Answer::has_session_id, kelotlsctl::kSessionIds},
      {&Answer::compression, kelotlsctl::kCompression},
      {&Answer::session_ticket, kelotlsctl::kSessionTickets},
      {&Answer::secure_renegotiation, kelotlsctl::kSecureRenegotiation},
      {&Answer::extended_master_secret, kelotlsctl::kExtendedMasterSecret}};
  for (const auto& [shown, name] : features) {
    server.extras = Answer();
    server.extras.*shown = true;

    const Survey found = survey(server);

    for (const auto& [other, other_name] : features) {
      EXPECT_EQ(feature(found, other_name),
                name == other_name ? Verdict::kAccepted : Verdict::kRefused);
    }
  }
}

TEST(SurveyOfFeatures, AsksOnceWithAllThatAServerMayRefuseAndOnceWithout) {
  FakeServer server;
  Asker asker([&](const Hello& hello,
                  Clock::time_point) { return hello.compression ? lost() : server.answer(hello); },
              patience());

  const Survey found = kelotlsctl::survey(asker, nullptr, nullptr);

  EXPECT_EQ(feature(found, kelotlsctl::kSessionTickets), Verdict::kNotKnown);
  EXPECT_EQ(feature(found, kelotlsctl::kCompression), Verdict::kNotKnown);
  EXPECT_EQ(feature(found, kelotlsctl::kSessionIds), Verdict::kRefused);
}

TEST(SurveyOfFeatures, TellsTicketsAndCertificatesOfWholeHandshakes) {
  FakeServer server;
  server.versions = {kTls13};
  server.suites = numbers({"TLS_AES_128_GCM_SHA256"});
  FullHandshake handshake;
  int shaken = 0;
  const auto shake_hands = [&](const std::string& algorithms) {
    ++shaken;
    handshake.certificates = {algorithms.find("ECDSA") == 0 ? "ecdsa" : "other", "issuer"};
    return handshake;
  };
  const auto tickets = [&] {
    const Survey found = survey(server, shake_hands);
    EXPECT_EQ(found.certificates, (std::vector<Bytes>{"other", "ecdsa"}));
    return std::make_pair(feature(found, kelotlsctl::kTls13Tickets),
                          feature(found, kelotlsctl::kTls13StatelessTickets));
  };

  EXPECT_EQ(tickets(), std::make_pair(Verdict::kNotKnown, Verdict::kNotKnown));
  handshake.is_complete = true;
  EXPECT_EQ(tickets(), std::make_pair(Verdict::kRefused, Verdict::kRefused));
  handshake.has_ticket = true;
  handshake.longest_ticket = 32;
  EXPECT_EQ(tickets(), std::make_pair(Verdict::kAccepted, Verdict::kRefused));
  handshake.longest_ticket = 200;
  EXPECT_EQ(tickets(), std::make_pair(Verdict::kAccepted, Verdict::kAccepted));
  shaken = 0;
  server.versions = {kTls12};
  survey(server, shake_hands);
  EXPECT_EQ(shaken, 0);
}

// Servers that are hard to reach

TEST(SurveyOfAnyServer, KnowsNothingOfOneThatIsSilent) {
  Asker asker(
      [](const Hello&, Clock::time_point until) {
        std::this_thread::sleep_until(until);
        return lost(kTimedOut);
      },
      patience());
  std::size_t last = 0;
  std::size_t end = 1;

  const Survey found = kelotlsctl::survey(asker, nullptr, [&](std::size_t done, std::size_t all) {
    EXPECT_LE(last, done);
    last = done;
    end = all;
  });

  EXPECT_EQ(last, end);
  for (const std::uint16_t version : kelotlsctl::kVersions) {
    EXPECT_EQ(verdict_of(found, version), Verdict::kNotKnown) << version;
  }
  EXPECT_EQ(trial_of(found.versions, kTls12, kTls12).reason, kTimedOut);
  EXPECT_EQ(found.weakest_dh_bits, 0);
  EXPECT_TRUE(found.features.empty());
}

TEST(SurveyOfAnyServer, MissesNothingOfOneThatLosesConnections) {
  FakeServer server;
  FakeServer steady = server;
  int connections = 0;
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        return ++connections % 7 == 0 ? lost() : server.answer(hello);
      },
      patience());

  const Survey found = kelotlsctl::survey(asker, nullptr, nullptr);
  const Survey expected = survey(steady);

  const auto told = [](const std::vector<Trial>& trials) {
    std::set<std::string> lines;
    for (const Trial& trial : trials) {
      lines.insert(std::to_string(trial.version) + " " + std::to_string(trial.number) + " " +
                   std::to_string(static_cast<int>(trial.verdict)));
    }
    return lines;
  };
  EXPECT_EQ(told(found.versions), told(expected.versions));
  EXPECT_EQ(told(found.suites), told(expected.suites));
  EXPECT_EQ(told(found.groups), told(expected.groups));
  EXPECT_EQ(found.features, expected.features);
}

}  // namespace
}  // namespace kelotls::test
