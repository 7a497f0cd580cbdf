// Owns the choice of handshakes, and the reading of their outcomes as an offer.
#include "survey.h"

#include <algorithm>
#include <map>
#include <utility>

namespace kelotlsctl {

namespace {

void add_once(Names& names, const std::string& name) {
  if (!name.empty() && !contains(names, name)) {
    names.push_back(name);
  }
}

/// The trials so far, and how many there will be.
class Surveyor {
 public:
  Surveyor(const Client& client, const LevelProfile& profile, const Progress& progress)
      : wish_(wish_of(profile)), progress_(progress) {
    for (const ProtocolVersion& version : protocol_versions()) {
      suites_[version.number] = client.suites(version.number);
      all_ += suites_[version.number].size();
      for (const Suite& suite : suites_[version.number]) {
        add_once(survey_.known_suites, suite.name);
        if (suite.dhe) {
          add_once(survey_.dhe_suites, suite.name);
        }
      }
    }
    all_ += std::size(kTriedGroups);
  }

  const std::vector<Suite>& suites(int version) { return suites_[version]; }
  Survey& survey() { return survey_; }

  void record_suite(int version, const std::string& suite, const Outcome& outcome) {
    Trial trial = trial_of(version, outcome);
    trial.suite = suite;
    trial.intended = asks_for(version, suite);
    survey_.trials.push_back(trial);
    step();
  }

  void record_group(int version, const std::string& group, const Outcome& outcome) {
    Trial trial = trial_of(version, outcome);
    trial.tries_group = true;
    trial.suite = outcome.suite;
    trial.group = group;
    trial.intended = wish_.has_version(version) && contains(wish_.groups, group);
    survey_.trials.push_back(trial);
    step();
  }

  /// Leaves out what the level asks for but the server's certificate cannot show.
  void leave_out(int version, const Suite& suite) {
    if (asks_for(version, suite.name) && !is_noted(suite.name)) {
      survey_.untested.push_back({suite.name, "It needs an " + suite.certificate_kind +
                                                  " certificate, which the server did not show."});
    }
    step();
  }

  void note_suites_unknown_here() {
    for (const std::string& suite : wish_.cipher_suites) {
      if (!contains(survey_.known_suites, suite)) {
        survey_.untested.push_back({suite, "This machine's OpenSSL does not have it."});
      }
    }
  }

  void leave_out_groups() {
    for (const char* group : kTriedGroups) {
      if (contains(wish_.groups, group)) {
        survey_.untested.push_back({group, "To try it takes TLS 1.3, or an RSA certificate."});
      }
      step();
    }
  }

  bool accepted_any(int version) const {
    return std::any_of(survey_.trials.begin(), survey_.trials.end(), [&](const Trial& trial) {
      return trial.version == version && trial.accepted;
    });
  }

 private:
  static Trial trial_of(int version, const Outcome& outcome) {
    Trial trial;
    trial.version = version;
    trial.group = outcome.group;
    trial.dh_bits = outcome.dh_bits;
    trial.accepted = outcome.accepted;
    return trial;
  }

  bool asks_for(int version, const std::string& suite) const {
    return wish_.has_version(version) &&
           contains(version == TLS1_3_VERSION ? wish_.tls13_suites : wish_.cipher_suites, suite);
  }

  bool is_noted(const std::string& what) const {
    return std::any_of(survey_.untested.begin(), survey_.untested.end(),
                       [&](const Untested& untested) { return untested.what == what; });
  }

  void step() {
    ++done_;
    if (progress_) {
      progress_(done_, all_);
    }
  }

  const Offer wish_;
  const Progress& progress_;
  std::map<int, std::vector<Suite>> suites_;
  std::size_t done_ = 0;
  std::size_t all_ = 0;
  Survey survey_;
};

/// Groups are tried with TLS 1.3, whose certificates do not depend on them; in older versions an
/// ECDSA certificate's own curve has to be among the client's groups, so there only RSA serves.
void try_groups(Surveyor& surveyor, Peer& peer) {
  Hello hello;
  for (const ProtocolVersion& version : protocol_versions()) {
    if (surveyor.accepted_any(version.number)) {
      hello.version = version.number;
    }
  }
  const bool has_tls13 = hello.version == TLS1_3_VERSION;
  if (!has_tls13 && !contains(surveyor.survey().certificate_kinds, "RSA")) {
    surveyor.leave_out_groups();
    return;
  }
  if (!has_tls13) {
    hello.suites = "ECDHE+aRSA";
  }
  for (const char* group : kTriedGroups) {
    hello.groups = group;
    surveyor.record_group(hello.version, group, peer.shake_hands(hello));
  }
}

/// The kinds of certificate that the server has: it is asked for each by signature algorithm.
Names certificate_kinds(Peer& server) {
  Names kinds;
  for (const char* signatures : {kRsaSignatures, kEcdsaSignatures}) {
    Hello hello;
    hello.signature_algorithms = signatures;
    add_once(kinds, server.shake_hands(hello).certificate_kind);
  }
  return kinds;
}

void eliminate_suites(Surveyor& surveyor, Peer& server, int version, Names remaining) {
  while (!remaining.empty()) {
    Hello hello;
    hello.version = version;
    hello.suites = list_of(remaining);
    const Outcome outcome = server.shake_hands(hello);
    const auto chosen = std::find(remaining.begin(), remaining.end(), outcome.suite);
    if (!outcome.accepted || chosen == remaining.end()) {
      break;
    }
    remaining.erase(chosen);
    surveyor.record_suite(version, outcome.suite, outcome);
  }
  for (const std::string& suite : remaining) {
    surveyor.record_suite(version, suite, Outcome());
  }
}

}  // namespace

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

Survey survey_context(const Client& client, ContextPeer& peer, const LevelProfile& profile,
                      const Progress& progress) {
  Surveyor surveyor(client, profile, progress);
  surveyor.survey().certificate_kinds = {"RSA", "ECDSA"};
  for (const ProtocolVersion& version : protocol_versions()) {
    for (const Suite& suite : surveyor.suites(version.number)) {
      Hello hello;
      hello.version = version.number;
      hello.suites = suite.name;
      surveyor.record_suite(version.number, suite.name, peer.shake_hands(hello));
    }
  }
  try_groups(surveyor, peer);
  return std::move(surveyor.survey());
}

Survey survey_server(const Client& client, Peer& server, const LevelProfile& profile,
                     const Progress& progress) {
  Surveyor surveyor(client, profile, progress);
  const Names kinds = certificate_kinds(server);
  surveyor.survey().certificate_kinds = kinds;
  for (const ProtocolVersion& version : protocol_versions()) {
    Names testable;
    for (const Suite& suite : surveyor.suites(version.number)) {
      if (suite.certificate_kind.empty() || contains(kinds, suite.certificate_kind)) {
        testable.push_back(suite.name);
      } else {
        surveyor.leave_out(version.number, suite);
      }
    }
    eliminate_suites(surveyor, server, version.number, testable);
  }
  surveyor.note_suites_unknown_here();
  try_groups(surveyor, server);
  return std::move(surveyor.survey());
}

}  // namespace kelotlsctl
