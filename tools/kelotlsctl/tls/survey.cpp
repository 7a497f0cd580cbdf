// Owns the list of known clients, the choice of handshakes, and reading their outcomes as an offer.
#include "tls/survey.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>
#include <utility>

#include "output/console.h"

namespace kelotlsctl {

namespace {

using Names = std::vector<std::string>;

struct KnownClient {
  const char* name;
  int newest_version;
  const char* suites;  // those that decide, with an RSA certificate; for TLS 1.2 and older
};

// The suites by which generations of clients are told apart.
constexpr char kBeforeAes[] = "DES-CBC3-SHA";
constexpr char kAesCbc[] = "AES128-SHA:DES-CBC3-SHA";
constexpr char kAesGcm[] = "ECDHE-RSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-SHA:AES128-SHA";
constexpr char kAes256Gcm[] = "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-RSA-AES128-SHA:AES128-SHA";
// Schannel before Windows 10 has no ECDHE-RSA with GCM.
constexpr char kDheGcm[] = "DHE-RSA-AES256-GCM-SHA384:ECDHE-RSA-AES128-SHA:AES128-SHA";

// A row for each family, from its oldest client on. The versions are those of Mozilla's server-side
// TLS recommendations, and between them the first client that does without DES-CBC3-SHA.
// clang-format off
constexpr KnownClient kFamilies[][4] = {
    {{"Firefox 1", TLS1_VERSION, kAesCbc},             {"Firefox 27", TLS1_2_VERSION, kAesGcm},          {"Firefox 63", TLS1_3_VERSION, kAesGcm}},
    {{"Android 2.3", TLS1_VERSION, kAesCbc},           {"Android 4.4.2", TLS1_2_VERSION, kAesGcm},       {"Android 10", TLS1_3_VERSION, kAesGcm}},
    {{"Chrome 1", TLS1_VERSION, kAesCbc},              {"Chrome 31", TLS1_2_VERSION, kAesGcm},           {"Chrome 70", TLS1_3_VERSION, kAesGcm}},
    {{"Edge 12", TLS1_2_VERSION, kAes256Gcm},          {"Edge 75", TLS1_3_VERSION, kAes256Gcm}},
    {{"IE 8 on Windows XP", TLS1_VERSION, kBeforeAes}, {"IE 7 on Windows Vista", TLS1_VERSION, kAesCbc}, {"IE 11 on Windows 7", TLS1_2_VERSION, kDheGcm}},
    {{"Java 6", TLS1_VERSION, kAesCbc},                {"Java 8u31", TLS1_2_VERSION, kAesGcm},           {"Java 11", TLS1_3_VERSION, kAesGcm}},
    {{"OpenSSL 0.9.8", TLS1_VERSION, kAesCbc},         {"OpenSSL 1.0.1", TLS1_2_VERSION, kAesGcm},       {"OpenSSL 1.1.1", TLS1_3_VERSION, kAesGcm}},
    {{"Opera 5", TLS1_VERSION, kBeforeAes},            {"Opera 9", TLS1_VERSION, kAesCbc},               {"Opera 20", TLS1_2_VERSION, kAesGcm},           {"Opera 57", TLS1_3_VERSION, kAesGcm}},
    {{"Safari 1", TLS1_VERSION, kBeforeAes},           {"Safari 5 on OS X 10.6", TLS1_VERSION, kAesCbc}, {"Safari 9", TLS1_2_VERSION, kAesGcm},           {"Safari 12.1", TLS1_3_VERSION, kAesGcm}},
};
// clang-format on

/// The names of an OpenSSL list, where they are separated by colons.
Json::Value names_in(const char* list) {
  Json::Value names(Json::arrayValue);
  std::istringstream stream(list);
  for (std::string name; std::getline(stream, name, ':');) {
    names.append(name);
  }
  return names;
}

std::string joined(const Names& names) {
  std::string list;
  for (const std::string& name : names) {
    list += (list.empty() ? "" : ":") + name;
  }
  return list;
}

/// Null for 0 and for the empty text.
template <typename Value>
Json::Value or_null(const Value& value) {
  return value != Value() ? Json::Value(value) : Json::Value();
}

bool connects(const KnownClient& client, const Json::Value& offer) {
  const Json::Value& protocols = offer["protocols"];
  if (client.newest_version == TLS1_3_VERSION && contains(protocols, "TLS 1.3") &&
      !offer["tls13-suites"].empty()) {
    return true;
  }
  const std::string newest = version_name(std::min(client.newest_version, TLS1_2_VERSION));
  const Json::Value suites = names_in(client.suites);
  return !protocols.empty() && protocols[0].asString() <= newest &&
         std::any_of(suites.begin(), suites.end(), [&](const Json::Value& suite) {
           return contains(offer["cipher-suites"], suite);
         });
}

/// Which of an offer's lists holds what the handshake tried.
const char* list_for(const Json::Value& handshake) {
  return handshake["tries"] == "group"       ? "groups"
         : handshake["version"] == "TLS 1.3" ? "tls13-suites"
                                             : "cipher-suites";
}

/// Tries handshakes with one peer, and reports each as a step.
class Surveyor {
 public:
  Surveyor(const Client& client, const ShakeHands& shake_hands, const kelotls::Profile& profile,
           const Progress& progress)
      : shake_hands_(shake_hands), requested_(requested_by(profile)), progress_(progress) {
    for (const char* const list : {"certificates", "handshakes", "not-testable"}) {
      survey_[list] = Json::Value(Json::arrayValue);
    }
    for (const ProtocolVersion& version : kProtocolVersions) {
      suites_[version.number] = client.suites(version.number);
      steps_ += suites_[version.number].size();
    }
    steps_ += names_in(kTriedGroups).size();
  }

  Json::Value run(Approach approach) {
    if (approach == Approach::kElimination) {
      ask_for_certificates();
    } else {
      survey_["certificates"] = names_in("RSA:ECDSA");
    }
    for (const auto& [version, suites] : suites_) {
      try_suites(version, testable(suites), approach);
    }
    for (const Json::Value& suite : requested_["cipher-suites"]) {
      if (approach == Approach::kElimination && !covers(survey_, suite)) {
        note_untested(suite, "This machine's OpenSSL does not have it.");
      }
    }
    try_groups();
    return std::move(survey_);
  }

 private:
  /// Finds the kinds of certificate that the server has, by signature algorithm.
  void ask_for_certificates() {
    for (const char* const signatures : {kRsaSignatures, kEcdsaSignatures}) {
      const std::string kind = shake_hands_({0, {}, {}, signatures}).certificate_kind;
      if (!kind.empty()) {
        append_once(survey_["certificates"], kind);
      }
    }
  }

  /// The suites that the server's certificates can show.
  Names testable(const std::vector<Suite>& suites) {
    Names names;
    for (const auto& [name, certificate_kind] : suites) {
      if (certificate_kind.empty() || contains(survey_["certificates"], certificate_kind)) {
        names.push_back(name);
      } else {
        leave_out(
            "cipher-suites", name,
            "It needs an " + certificate_kind + " certificate, which the server did not show.");
      }
    }
    return names;
  }

  void try_suites(int version, const Names& suites, Approach approach) {
    if (approach == Approach::kElimination) {
      eliminate(version, suites);
      return;
    }
    for (const std::string& suite : suites) {
      eliminate(version, {suite});
    }
  }

  void eliminate(int version, Names remaining) {
    while (!remaining.empty()) {
      const Outcome outcome = shake_hands_({version, joined(remaining), {}, {}});
      const auto chosen = std::find(remaining.begin(), remaining.end(), outcome.suite);
      if (chosen == remaining.end()) {
        break;
      }
      remaining.erase(chosen);
      record("suite", outcome.suite, version, outcome);
    }
    for (const std::string& suite : remaining) {
      record("suite", suite, version, Outcome());
    }
  }

  /// With the newest version.
  void try_groups() {
    const Json::Value versions = offer_of(survey_["handshakes"])["protocols"];
    const int newest = versions.empty() ? 0 : version_number(versions[versions.size() - 1]);
    const bool can_try = newest == TLS1_3_VERSION || contains(survey_["certificates"], "RSA");
    for (const Json::Value& group : names_in(kTriedGroups)) {
      if (can_try) {
        record("group", group, newest, shake_hands_(hello_for_group(newest, group.asString())));
      } else {
        leave_out("groups", group, "To try it takes TLS 1.3, or an RSA certificate.");
      }
    }
  }

  void record(const char* tries, const Json::Value& subject, int version, const Outcome& outcome) {
    Json::Value handshake;
    handshake["tries"] = tries;
    handshake["version"] = version_name(version);
    handshake["suite"] = or_null(outcome.suite);
    handshake["group"] = or_null(outcome.group);
    handshake["dh-bits"] = or_null(outcome.dh_bits);
    handshake[tries] = subject;
    handshake["intended"] = contains(requested_["protocols"], handshake["version"]) &&
                            contains(requested_[list_for(handshake)], subject);
    handshake["accepted"] = outcome.accepted;
    survey_["handshakes"].append(std::move(handshake));
    step();
  }

  void leave_out(const char* list, const Json::Value& what, const std::string& why) {
    if (contains(requested_[list], what)) {
      note_untested(what, why);
    }
    step();
  }

  /// Once for a suite, which several versions may have.
  void note_untested(const Json::Value& what, const std::string& why) {
    append_once(survey_["not-testable"], object({{"what", what}, {"text", why}}));
  }

  void step() {
    ++done_;
    if (progress_) {
      progress_(done_, steps_);
    }
  }

  const ShakeHands& shake_hands_;
  const Json::Value requested_;
  const Progress& progress_;
  std::map<int, std::vector<Suite>> suites_;  // of each version
  std::size_t done_ = 0;
  std::size_t steps_ = 0;
  Json::Value survey_;
};

}  // namespace

std::string version_name(int version) {
  for (const ProtocolVersion& known : kProtocolVersions) {
    if (known.number == version) {
      return known.name;
    }
  }
  char text[32];
  static_cast<void>(
      std::snprintf(text, sizeof text, "version 0x%04x", static_cast<unsigned int>(version)));
  return text;
}

int version_number(const Json::Value& name) {
  for (const ProtocolVersion& known : kProtocolVersions) {
    if (name == known.name) {
      return known.number;
    }
  }
  return 0;
}

Hello hello_for_group(int version, const std::string& group) {
  return {version, version == TLS1_3_VERSION ? "" : "ECDHE+aRSA", group, {}};
}

bool contains(const Json::Value& array, const Json::Value& element) {
  return std::find(array.begin(), array.end(), element) != array.end();
}

void append_once(Json::Value& array, const Json::Value& element) {
  if (!contains(array, element)) {
    array.append(element);
  }
}

Json::Value requested_by(const kelotls::Profile& profile) {
  Json::Value requested;
  for (const ProtocolVersion& version : kProtocolVersions) {
    if (version.number >= profile.oldest_version) {
      requested["protocols"].append(version.name);
    }
  }
  requested["cipher-suites"] = names_in(profile.cipher_list != nullptr ? profile.cipher_list : "");
  requested["tls13-suites"] = names_in(profile.ciphersuites);
  requested["groups"] = names_in(profile.groups);
  requested["dh-bits"] = or_null(profile.dh_bits);
  return requested;
}

Json::Value offer_of(const Json::Value& handshakes) {
  Json::Value offer;
  for (const char* const list : {"protocols", "cipher-suites", "tls13-suites", "groups"}) {
    offer[list] = Json::Value(Json::arrayValue);
  }
  int dh_bits = 0;
  for (const Json::Value& handshake : handshakes) {
    if (handshake["accepted"].asBool()) {
      append_once(offer["protocols"], handshake["version"]);
      append_once(offer[list_for(handshake)], subject_of(handshake));
      dh_bits = std::max(dh_bits, handshake["dh-bits"].asInt());
    }
  }
  offer["dh-bits"] = or_null(dh_bits);
  return offer;
}

Json::Value oldest_clients(const Json::Value& offer, const Json::Value& other) {
  Json::Value clients(Json::arrayValue);
  for (const auto& family : kFamilies) {
    const auto* const oldest =
        std::find_if(std::begin(family), std::end(family), [&](const KnownClient& client) {
          return client.name != nullptr && connects(client, offer);
        });
    if (oldest != std::end(family) && !connects(*oldest, other)) {
      clients.append(oldest->name);
    }
  }
  return clients;
}

const Json::Value& subject_of(const Json::Value& handshake) {
  return handshake[handshake["tries"].asString()];
}

bool covers(const Json::Value& survey, const Json::Value& suite) {
  const Json::Value& tried = survey["handshakes"];
  const Json::Value& untested = survey["not-testable"];
  return std::any_of(tried.begin(), tried.end(),
                     [&](const Json::Value& handshake) { return handshake["suite"] == suite; }) ||
         std::any_of(untested.begin(), untested.end(),
                     [&](const Json::Value& entry) { return entry["what"] == suite; });
}

Json::Value survey(const Client& client, const ShakeHands& shake_hands,
                   const kelotls::Profile& profile, Approach approach, const Progress& progress) {
  return Surveyor(client, shake_hands, profile, progress).run(approach);
}

}  // namespace kelotlsctl
