// Verdicts on surveys that differ from a level in one point each.
#include "levels/comparison.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "loopback_server.h"
#include "tls/registry.h"

namespace kelotls::test {
namespace {

using kelotlsctl::group_number;
using kelotlsctl::kSsl2;
using kelotlsctl::kSsl3;
using kelotlsctl::kTls10;
using kelotlsctl::kTls11;
using kelotlsctl::kTls12;
using kelotlsctl::kTls13;
using kelotlsctl::Missing;
using kelotlsctl::suite_number;
using kelotlsctl::Survey;
using kelotlsctl::Trial;
using kelotlsctl::Verdict;

constexpr char kReason[] = "the server closed the connection";

Trial trial(std::uint16_t version, std::uint16_t number, Verdict verdict = Verdict::kAccepted) {
  return {version, number, verdict, verdict == Verdict::kNotKnown ? kReason : ""};
}

/// Every suite and group of the registry, those of the level accepted.
Survey exactly(int level) {
  const kelotlsctl::Offer offer = kelotlsctl::requested_by(profile_of_level(level));
  const auto verdict = [](bool is_accepted) {
    return is_accepted ? Verdict::kAccepted : Verdict::kRefused;
  };
  Survey survey;
  for (const std::uint16_t version : kelotlsctl::kVersions) {
    const bool is_served = kelotlsctl::contains(offer.versions, version);
    survey.versions.push_back(trial(version, version, verdict(is_served)));
    if (!is_served) {
      continue;
    }
    for (const std::uint16_t suite : kelotlsctl::suites_of_version(version)) {
      const bool is_requested =
          kelotlsctl::contains(version == kTls13 ? offer.tls13_suites : offer.suites, suite);
      survey.suites.push_back(
          trial(version, suite, verdict(is_requested && kelotlsctl::is_usable(suite, version))));
    }
  }
  for (const std::uint16_t version : {kTls12, kTls13}) {
    for (const std::uint16_t group : kelotlsctl::groups_of_version(version)) {
      if (kelotlsctl::contains(offer.versions, version)) {
        survey.groups.push_back(
            trial(version, group, verdict(kelotlsctl::contains(offer.groups, group))));
      }
    }
  }
  survey.weakest_dh_bits = offer.dh_bits;
  survey.certificates = {certificate_in_der("rsa"), certificate_in_der("ecdsa")};
  survey.features = {{kelotlsctl::kSessionIds, Verdict::kAccepted},
                     {kelotlsctl::kServerOrder, Verdict::kRefused},
                     {kelotlsctl::kCompression, Verdict::kRefused}};
  return survey;
}

void set(std::vector<Trial>& trials, std::uint16_t version, std::uint16_t number, Verdict verdict) {
  const auto found = std::find_if(trials.begin(), trials.end(), [&](const Trial& one) {
    return one.version == version && one.number == number;
  });
  ASSERT_NE(found, trials.end());
  *found = trial(version, number, verdict);
}

void set_suite(Survey& survey, const char* name, Verdict verdict, std::uint16_t version = kTls12) {
  set(survey.suites, version, suite_number(name), verdict);
}

void set_group(Survey& survey, const char* name, Verdict verdict, std::uint16_t version = kTls13) {
  set(survey.groups, version, group_number(name), verdict);
}

void set_version(Survey& survey, std::uint16_t version, Verdict verdict) {
  set(survey.versions, version, version, verdict);
}

/// What a server says that refuses all of a version.
void drop_version(Survey& survey, std::uint16_t version) {
  set_version(survey, version, Verdict::kRefused);
  for (std::vector<Trial>* const trials : {&survey.suites, &survey.groups}) {
    trials->erase(std::remove_if(trials->begin(), trials->end(),
                                 [&](const Trial& one) { return one.version == version; }),
                  trials->end());
  }
}

/// A server tells no cause of what it refuses, and none of what is not known.
Json::Value server_cause(const std::string&, const Missing& missing) {
  const bool is_told =
      missing.unclear.empty() && (missing.kind != Missing::Kind::kDhe || missing.version != 0);
  return is_told ? kelotlsctl::cause_of("other", "refused") : Json::Value();
}

/// "verdict; what kind, ...; not known: what, ...".
std::string told(const Survey& survey, int level = 2,
                 const kelotlsctl::FindCause& find_cause = server_cause) {
  const Json::Value compared = kelotlsctl::compare(profile_of_level(level), survey, find_cause);
  std::string text = compared["verdict"].asString();
  for (const Json::Value& difference : compared["differences"]) {
    text += "; " + difference["what"].asString() + " " + difference["kind"].asString();
  }
  for (const Json::Value& entry : compared["not-known"]) {
    text += "; ? " + entry["what"].asString() + ": " + entry["text"].asString();
  }
  for (const Json::Value& note : compared["notes"]) {
    text += "; note: " + note.asString();
  }
  return text;
}

struct Case {
  const char* told;
  std::function<void(Survey& survey)> change;
};

void expect_told(const std::vector<Case>& cases) {
  for (const Case& one : cases) {
    Survey survey = exactly(2);
    one.change(survey);
    EXPECT_EQ(told(survey), one.told);
  }
}

const std::string kUnknown = std::string(": ") + kReason;

TEST(Compared, AgreesWithExactlyWhatEachLevelAsksFor) {
  for (const int level : {1, 2, 3}) {
    EXPECT_EQ(told(exactly(level), level), "agrees") << level;
  }
  EXPECT_NE(told(exactly(3), 2), "agrees");
  EXPECT_NE(told(exactly(2), 3), "agrees");
}

TEST(Compared, DiffersByVersions) {
  expect_told({{"differs; TLS 1.1 extra",
                [](Survey& survey) { set_version(survey, kTls11, Verdict::kAccepted); }},
               {"differs; SSL 2 extra; SSL 3 extra",
                [](Survey& survey) {
                  set_version(survey, kSsl2, Verdict::kAccepted);
                  set_version(survey, kSsl3, Verdict::kAccepted);
                }},
               {"differs; TLS 1.3 missing", [](Survey& survey) { drop_version(survey, kTls13); }},
               {"differs; TLS 1.2 missing", [](Survey& survey) {
                  drop_version(survey, kTls12);
                  survey.weakest_dh_bits = 0;
                }}});
}

TEST(Compared, TellsNoSuitesOfAVersionThatIsExtraItself) {
  Survey survey = exactly(2);
  set_version(survey, kTls10, Verdict::kAccepted);
  survey.suites.push_back(trial(kTls10, suite_number("RC4-MD5")));

  EXPECT_EQ(told(survey), "differs; TLS 1.0 extra");
}

TEST(Compared, DiffersBySuites) {
  expect_told({{"differs; AES128-SHA extra",
                [](Survey& survey) { set_suite(survey, "AES128-SHA", Verdict::kAccepted); }},
               {"differs; TLS_AES_128_CCM_SHA256 extra",
                [](Survey& survey) {
                  set_suite(survey, "TLS_AES_128_CCM_SHA256", Verdict::kAccepted, kTls13);
                }},
               {"differs; ADH-AES128-SHA extra; PSK-AES128-CBC-SHA extra",
                [](Survey& survey) {
                  set_suite(survey, "ADH-AES128-SHA", Verdict::kAccepted);
                  set_suite(survey, "PSK-AES128-CBC-SHA", Verdict::kAccepted);
                }},
               {"differs; ECDHE-RSA-AES128-GCM-SHA256 missing",
                [](Survey& survey) {
                  set_suite(survey, "ECDHE-RSA-AES128-GCM-SHA256", Verdict::kRefused);
                }},
               {"differs; TLS_AES_256_GCM_SHA384 missing", [](Survey& survey) {
                  set_suite(survey, "TLS_AES_256_GCM_SHA384", Verdict::kRefused, kTls13);
                }}});
}

TEST(Compared, NamesTheVersionWhereOnlyOneOfSeveralRefusesASuite) {
  Survey survey = exactly(3);
  set_suite(survey, "AES128-SHA", Verdict::kRefused, kTls11);
  EXPECT_EQ(told(survey, 3), "differs; AES128-SHA with TLS 1.1 missing");

  set_suite(survey, "AES128-SHA", Verdict::kRefused, kTls10);
  set_suite(survey, "AES128-SHA", Verdict::kRefused, kTls12);
  EXPECT_EQ(told(survey, 3), "differs; AES128-SHA missing");
}

TEST(Compared, AsksForNoSuiteThatNeedsACertificateThatTheServerLacks) {
  const auto refuse = [](Survey& survey, const char* part) {
    for (Trial& one : survey.suites) {
      if (one.version == kTls12 &&
          kelotlsctl::suite_name(one.number).find(part) != std::string::npos) {
        one.verdict = Verdict::kRefused;
      }
    }
  };
  Survey rsa = exactly(2);
  rsa.certificates = {certificate_in_der("rsa")};
  refuse(rsa, "ECDSA");
  EXPECT_EQ(told(rsa), "agrees");

  Survey ecdsa = exactly(2);
  ecdsa.certificates = {certificate_in_der("ecdsa")};
  ecdsa.weakest_dh_bits = 0;
  refuse(ecdsa, "RSA");
  EXPECT_EQ(told(ecdsa), "agrees");

  ecdsa.certificates.push_back(certificate_in_der("rsa"));
  EXPECT_EQ(told(ecdsa),
            "differs; 2048-bit DH missing; ECDHE-RSA-AES128-GCM-SHA256 missing; "
            "ECDHE-RSA-AES256-GCM-SHA384 missing; ECDHE-RSA-CHACHA20-POLY1305 missing");
}

TEST(Compared, DiffersByGroups) {
  expect_told(
      {{"differs; X25519 extra",
        [](Survey& survey) { set_group(survey, "X25519", Verdict::kAccepted); }},
       {"differs; brainpoolP256r1 extra",
        [](Survey& survey) { set_group(survey, "brainpoolP256r1", Verdict::kAccepted, kTls12); }},
       {"differs; secp521r1 with TLS 1.2 missing",
        [](Survey& survey) { set_group(survey, "secp521r1", Verdict::kRefused, kTls12); }},
       {"differs; secp521r1 missing", [](Survey& survey) {
          set_group(survey, "secp521r1", Verdict::kRefused, kTls12);
          set_group(survey, "secp521r1", Verdict::kRefused, kTls13);
        }}});
}

TEST(Compared, TakesStrongerDhForANoteAndWeakerForADifference) {
  const auto dhe = [](Survey& survey, Verdict verdict) {
    set_suite(survey, "DHE-RSA-AES128-GCM-SHA256", verdict);
    set_suite(survey, "DHE-RSA-AES256-GCM-SHA384", verdict);
  };
  expect_told(
      {{"agrees; note: DHE is done with 4096-bit parameters, stronger than the 2048 bits that "
        "the level asks for.",
        [](Survey& survey) { survey.weakest_dh_bits = 4096; }},
       {"differs; 2048-bit DH missing", [](Survey& survey) { survey.weakest_dh_bits = 1024; }},
       {"differs; 2048-bit DH missing", [&](Survey& survey) {
          survey.weakest_dh_bits = 0;
          dhe(survey, Verdict::kRefused);
        }}});
  Survey old = exactly(3);
  old.weakest_dh_bits = 2048;
  EXPECT_EQ(told(old, 3),
            "agrees; note: DHE is done with 2048-bit parameters, stronger than the 1024 bits that "
            "the level asks for.");
  old.weakest_dh_bits = 768;
  EXPECT_EQ(told(old, 3), "differs; 1024-bit DH missing");
}

TEST(Compared, CannotTellWhereDheIsNotKnown) {
  Survey survey = exactly(2);
  survey.weakest_dh_bits = 0;
  set_suite(survey, "DHE-RSA-AES128-GCM-SHA256", Verdict::kNotKnown);
  set_suite(survey, "DHE-RSA-AES256-GCM-SHA384", Verdict::kNotKnown);

  const std::string text = told(survey);

  EXPECT_EQ(text.find("cannot-tell; ? "), 0U) << text;
  EXPECT_EQ(text.find("missing"), std::string::npos) << text;
}

TEST(Compared, CannotTellWhereSomethingIsNotKnown) {
  const std::vector<std::pair<std::string, std::function<void(Survey&)>>> cases = {
      {"TLS 1.3", [](Survey& survey) { set_version(survey, kTls13, Verdict::kNotKnown); }},
      {"TLS 1.0", [](Survey& survey) { set_version(survey, kTls10, Verdict::kNotKnown); }},
      {"SSL 2", [](Survey& survey) { set_version(survey, kSsl2, Verdict::kNotKnown); }},
      {"ECDHE-RSA-AES128-GCM-SHA256",
       [](Survey& survey) {
         set_suite(survey, "ECDHE-RSA-AES128-GCM-SHA256", Verdict::kNotKnown);
       }},
      {"RC4-MD5", [](Survey& survey) { set_suite(survey, "RC4-MD5", Verdict::kNotKnown); }},
      {"X25519", [](Survey& survey) {
         set_group(survey, "X25519", Verdict::kNotKnown, kTls12);
         set_group(survey, "X25519", Verdict::kNotKnown, kTls13);
       }}};
  for (const auto& [what, change] : cases) {
    Survey survey = exactly(2);
    change(survey);
    EXPECT_EQ(told(survey), "cannot-tell; ? " + what + kUnknown);
  }
}

TEST(Compared, TellsNoSuitesOfAVersionThatIsNotKnownItself) {
  Survey survey = exactly(2);
  set_version(survey, kTls12, Verdict::kNotKnown);
  survey.weakest_dh_bits = 0;
  for (Trial& one : survey.suites) {
    if (one.version == kTls12) {
      one = trial(kTls12, one.number, Verdict::kNotKnown);
    }
  }

  EXPECT_EQ(told(survey), "cannot-tell; ? TLS 1.2" + kUnknown);
}

TEST(Compared, SeesInOneVersionTheGroupThatAnotherHides) {
  Survey survey = exactly(2);
  set_group(survey, "X25519", Verdict::kNotKnown, kTls12);
  set_group(survey, "secp384r1", Verdict::kNotKnown, kTls12);

  EXPECT_EQ(told(survey), "agrees");
}

TEST(Compared, LetsADifferenceOutweighWhatIsNotKnown) {
  Survey survey = exactly(2);
  set_suite(survey, "RC4-MD5", Verdict::kAccepted);
  set_version(survey, kTls13, Verdict::kNotKnown);
  set_group(survey, "X25519", Verdict::kNotKnown, kTls12);
  set_group(survey, "X25519", Verdict::kNotKnown, kTls13);

  EXPECT_EQ(told(survey), "differs; RC4-MD5 extra; ? TLS 1.3" + kUnknown + "; ? X25519" + kUnknown);
}

TEST(Compared, TellsWhatIsNotKnownAsMissingWhereThisMachineLacksItAnyway) {
  Survey survey = exactly(2);
  set_version(survey, kTls13, Verdict::kNotKnown);
  std::string unclear;
  const auto lacks_it = [&](const std::string& name, const Missing& missing) {
    unclear = name + ": " + missing.unclear;
    return kelotlsctl::cause_of("maximum-version", "text");
  };

  EXPECT_EQ(told(survey, 2, lacks_it), "differs; TLS 1.3 missing");
  EXPECT_EQ(unclear, "TLS 1.3" + kUnknown);
}

TEST(Compared, ForbidsCompressionAndStatelessTicketsAlone) {
  for (const char* const feature :
       {kelotlsctl::kServerOrder, kelotlsctl::kCompression, kelotlsctl::kSessionIds,
        kelotlsctl::kSessionTickets, kelotlsctl::kSecureRenegotiation,
        kelotlsctl::kExtendedMasterSecret, kelotlsctl::kTls13Tickets,
        kelotlsctl::kTls13StatelessTickets}) {
    const std::string name = feature;
    const bool is_forbidden =
        name == "compression" || name == "session-tickets" || name == "tls13-stateless-tickets";
    Survey survey = exactly(2);
    survey.features[feature] = Verdict::kAccepted;
    EXPECT_EQ(told(survey), is_forbidden ? "differs; " + name + " extra" : "agrees");
    EXPECT_STREQ(kelotlsctl::requested_feature(name), is_forbidden ? "no" : "open");
    survey.features[feature] = Verdict::kRefused;
    EXPECT_EQ(told(survey), "agrees") << name;
  }
}

}  // namespace
}  // namespace kelotls::test
