// Owns what a level requests, the choice of handshakes that are worth trying with a peer, and what
// they show together. An offer is what a server can be used with, as schemas/output has it:
// "protocols", oldest first, "cipher-suites" (for TLS 1.2 and older), "tls13-suites", "groups" and
// "dh-bits".
#ifndef KELOTLSCTL_TLS_SURVEY_H
#define KELOTLSCTL_TLS_SURVEY_H

#include <json/value.h>

#include <string>

#include "tls/client.h"
#include "tls/report.h"

namespace kelotlsctl {

using ShakeHands = std::function<Outcome(const Hello&)>;

struct ProtocolVersion {
  int number;
  const char* name;
};

/// Every version that a level can request, oldest first. The names sort in this order too.
constexpr ProtocolVersion kProtocolVersions[] = {{TLS1_VERSION, "TLS 1.0"},
                                                 {TLS1_1_VERSION, "TLS 1.1"},
                                                 {TLS1_2_VERSION, "TLS 1.2"},
                                                 {TLS1_3_VERSION, "TLS 1.3"}};

/// "TLS 1.2" of TLS1_2_VERSION; a number that is none of ours in hexadecimal.
std::string version_name(int version);

/// 0 for a name that is none of ours.
int version_number(const Json::Value& name);

bool contains(const Json::Value& array, const Json::Value& element);

/// The offer of the level in full.
Json::Value requested_by(const kelotls::Profile& profile);

/// The offer that handshakes have shown, suites in the order of the handshakes.
Json::Value offer_of(const Json::Value& handshakes);

/// The oldest client of each family that can connect, given an RSA certificate; without those that
/// can connect to the other offer too.
Json::Value oldest_clients(const Json::Value& offer, const Json::Value& other = Json::Value());

/// What a handshake tried: the name of its suite or group.
const Json::Value& subject_of(const Json::Value& handshake);

// A survey holds the members "certificates", "handshakes" and "not-testable" of a report.

/// Whether the suite was tried, or could not be tried for a reason that the survey gives.
bool covers(const Json::Value& survey, const Json::Value& suite);

enum class Approach {
  kOneByOne,     ///< each suite in a handshake of its own: exact, and cheap in memory
  kElimination,  ///< all at once, then without the one that the server chose, until it refuses
};

/// Every refusal by a server may take as long as the timeout: with elimination there is only one
/// for each version.
Json::Value survey(const Client& client, const ShakeHands& shake_hands,
                   const kelotls::Profile& profile, Approach approach, const Progress& progress);

}  // namespace kelotlsctl

#endif
