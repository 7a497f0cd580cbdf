// Owns the list of known clients, the choice of handshakes, and reading their outcomes as an offer.
#include "tls/survey.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

namespace kelotlsctl {

namespace {

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
Names names_in(const std::string& list) {
  Names names;
  for (std::size_t start = 0; start < list.size();) {
    const std::size_t end = std::min(list.find(':', start), list.size());
    names.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

bool connects(const KnownClient& client, const Offer& offer) {
  if (client.newest_version >= TLS1_3_VERSION && offer.has_version(TLS1_3_VERSION) &&
      !offer.tls13_suites.empty()) {
    return true;
  }
  const int newest = std::min(client.newest_version, TLS1_2_VERSION);
  const Names suites = names_in(client.suites);
  return std::any_of(offer.versions.begin(), offer.versions.end(),
                     [&](int version) { return version <= newest; }) &&
         std::any_of(suites.begin(), suites.end(), [&](const std::string& suite) {
           return contains(offer.cipher_suites, suite);
         });
}

/// The family's oldest client that connects, or null.
const KnownClient* oldest_of(const KnownClient (&family)[4], const Offer& offer) {
  const auto* const found = std::find_if(
      std::begin(family), std::end(family),
      [&](const KnownClient& client) { return client.name != nullptr && connects(client, offer); });
  return found != std::end(family) ? found : nullptr;
}

using ShakeHands = std::function<Outcome(const Hello&)>;

/// Tries handshakes with one peer, and reports each as a step.
class Surveyor {
 public:
  Surveyor(const Client& client, ShakeHands shake_hands, const kelotls::Profile& profile,
           const Progress& progress)
      : shake_hands_(std::move(shake_hands)),
        requested_(requested_by(profile)),
        progress_(progress) {
    for (const ProtocolVersion& version : kProtocolVersions) {
      const std::vector<Suite>& suites = suites_[version.number] = client.suites(version.number);
      steps_ += suites.size();
      for (const Suite& suite : suites) {
        add_once(survey_.known_suites, suite.name);
        add_once(survey_.dhe_suites, suite.is_dhe ? suite.name : "");
      }
    }
    steps_ += names_in(kTriedGroups).size();
  }

  Survey try_one_by_one() {
    survey_.certificate_kinds = {"RSA", "ECDSA"};
    for (const auto& [version, suites] : suites_) {
      for (const Suite& suite : suites) {
        record_suite(version, suite.name, shake_hands_({version, suite.name, {}, {}}));
      }
    }
    try_groups();
    return std::move(survey_);
  }

  Survey try_by_elimination() {
    ask_for_certificates();
    for (const auto& [version, suites] : suites_) {
      eliminate_suites(version, testable(version, suites));
    }
    for (const std::string& suite : requested_.cipher_suites) {
      if (!contains(survey_.known_suites, suite)) {
        survey_.untested.push_back({suite, "This machine's OpenSSL does not have it."});
      }
    }
    try_groups();
    return std::move(survey_);
  }

 private:
  /// Finds the kinds of certificate that the server has, by signature algorithm.
  void ask_for_certificates() {
    for (const char* signatures : {kRsaSignatures, kEcdsaSignatures}) {
      add_once(survey_.certificate_kinds, shake_hands_({0, {}, {}, signatures}).certificate_kind);
    }
  }

  /// The suites that the server's certificates can show.
  Names testable(int version, const std::vector<Suite>& suites) {
    Names names;
    for (const Suite& suite : suites) {
      if (suite.certificate_kind.empty() ||
          contains(survey_.certificate_kinds, suite.certificate_kind)) {
        names.push_back(suite.name);
      } else {
        leave_out(suite.name, requests(version, suite.name),
                  "It needs an " + suite.certificate_kind +
                      " certificate, which the server did not show.");
      }
    }
    return names;
  }

  void eliminate_suites(int version, Names remaining) {
    while (!remaining.empty()) {
      const Outcome outcome = shake_hands_({version, list_of(remaining), {}, {}});
      const auto chosen = std::find(remaining.begin(), remaining.end(), outcome.suite);
      if (!outcome.accepted || chosen == remaining.end()) {
        break;
      }
      remaining.erase(chosen);
      record_suite(version, outcome.suite, outcome);
    }
    for (const std::string& suite : remaining) {
      record_suite(version, suite, Outcome());
    }
  }

  /// Groups are tried with TLS 1.3, whose certificates do not depend on them. In older versions an
  /// ECDSA certificate's own curve has to be among the client's groups, so there only RSA serves.
  void try_groups() {
    const std::vector<int> versions = survey_.offer().versions;
    const int newest = versions.empty() ? 0 : versions.back();
    const bool has_tls13 = newest == TLS1_3_VERSION;
    const bool can_try = has_tls13 || contains(survey_.certificate_kinds, "RSA");
    for (const std::string& group : names_in(kTriedGroups)) {
      if (can_try) {
        const char* const suites = has_tls13 ? "" : "ECDHE+aRSA";
        record_group(newest, group, shake_hands_({newest, suites, group, {}}));
      } else {
        leave_out(group, contains(requested_.groups, group),
                  "To try it takes TLS 1.3, or an RSA certificate.");
      }
    }
  }

  void record_suite(int version, const std::string& suite, const Outcome& outcome) {
    survey_.trials.push_back({false, version, suite, outcome.group, outcome.dh_bits,
                              requests(version, suite), outcome.accepted});
    step();
  }

  void record_group(int version, const std::string& group, const Outcome& outcome) {
    const bool is_requested = requested_.has_version(version) && contains(requested_.groups, group);
    survey_.trials.push_back(
        {true, version, outcome.suite, group, outcome.dh_bits, is_requested, outcome.accepted});
    step();
  }

  /// Noted once for a suite, which several versions may have.
  void leave_out(const std::string& what, bool is_requested, const std::string& why) {
    const auto same = [&](const Untested& untested) { return untested.what == what; };
    if (is_requested && std::none_of(survey_.untested.begin(), survey_.untested.end(), same)) {
      survey_.untested.push_back({what, why});
    }
    step();
  }

  bool requests(int version, const std::string& suite) const {
    return requested_.has_version(version) &&
           contains(version == TLS1_3_VERSION ? requested_.tls13_suites : requested_.cipher_suites,
                    suite);
  }

  void step() {
    ++done_;
    if (progress_) {
      progress_(done_, steps_);
    }
  }

  const ShakeHands shake_hands_;
  const Offer requested_;
  const Progress& progress_;
  std::map<int, std::vector<Suite>> suites_;  // of each version
  std::size_t done_ = 0;
  std::size_t steps_ = 0;
  Survey survey_;
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

bool contains(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

void add_once(Names& names, const std::string& name) {
  if (!name.empty() && !contains(names, name)) {
    names.push_back(name);
  }
}

std::string list_of(const Names& names, const char* separator) {
  std::string list;
  for (const std::string& name : names) {
    list += (list.empty() ? "" : separator) + name;
  }
  return list;
}

bool Offer::has_version(int version) const {
  return std::find(versions.begin(), versions.end(), version) != versions.end();
}

Offer requested_by(const kelotls::Profile& profile) {
  Offer requested;
  for (const ProtocolVersion& version : kProtocolVersions) {
    if (version.number >= profile.oldest_version) {
      requested.versions.push_back(version.number);
    }
  }
  requested.cipher_suites = names_in(profile.cipher_list != nullptr ? profile.cipher_list : "");
  requested.tls13_suites = names_in(profile.ciphersuites);
  requested.groups = names_in(profile.groups);
  requested.dh_bits = profile.dh_bits;
  return requested;
}

Names oldest_clients(const Offer& offer) {
  Names clients;
  for (const auto& family : kFamilies) {
    if (const KnownClient* const oldest = oldest_of(family, offer)) {
      clients.emplace_back(oldest->name);
    }
  }
  return clients;
}

Names lost_clients(const Offer& requested, const Offer& offered) {
  Names lost;
  for (const auto& family : kFamilies) {
    const KnownClient* const oldest = oldest_of(family, requested);
    if (oldest != nullptr && !connects(*oldest, offered)) {
      lost.emplace_back(oldest->name);
    }
  }
  return lost;
}

Offer Survey::offer() const {
  Offer offer;
  for (const Trial& trial : trials) {
    if (!trial.accepted) {
      continue;
    }
    if (!offer.has_version(trial.version)) {
      offer.versions.push_back(trial.version);
    }
    if (trial.tries_group) {
      add_once(offer.groups, trial.group);
    } else {
      add_once(trial.version == TLS1_3_VERSION ? offer.tls13_suites : offer.cipher_suites,
               trial.suite);
    }
    offer.dh_bits = std::max(offer.dh_bits, trial.dh_bits);
  }
  return offer;
}

Survey survey_context(const Client& client, SSL_CTX* context, const kelotls::Profile& profile,
                      const Progress& progress) {
  const auto shake_hands = [&](const Hello& hello) { return client.shake_hands(context, hello); };
  return Surveyor(client, shake_hands, profile, progress).try_one_by_one();
}

Survey survey_server(const Client& client, const Server& server, const kelotls::Profile& profile,
                     const Progress& progress) {
  const auto shake_hands = [&](const Hello& hello) { return server.shake_hands(hello); };
  return Surveyor(client, shake_hands, profile, progress).try_by_elimination();
}

}  // namespace kelotlsctl
