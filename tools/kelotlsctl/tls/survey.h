// Owns what a level requests, the choice of handshakes that are worth trying with a peer, what they
// show together, and how that differs from what is requested. An offer is what a server can be used
// with, as schemas/output has it: "protocols", oldest first, "cipher-suites" (for TLS 1.2 and
// older), "tls13-suites", "groups" and "dh-bits".
#pragma once

#include <json/value.h>

#include <string>

#include "tls/client.h"
#include "tls/report.h"

namespace kelotlsctl {

struct ProtocolVersion {
  int number;
  const char* name;
  decltype(SSL_CTX_get_options(nullptr)) option;  // that switches it off
};

/// Every version that a level can request, oldest first. The names sort in this order too.
constexpr ProtocolVersion kProtocolVersions[] = {{TLS1_VERSION, "TLS 1.0", SSL_OP_NO_TLSv1},
                                                 {TLS1_1_VERSION, "TLS 1.1", SSL_OP_NO_TLSv1_1},
                                                 {TLS1_2_VERSION, "TLS 1.2", SSL_OP_NO_TLSv1_2},
                                                 {TLS1_3_VERSION, "TLS 1.3", SSL_OP_NO_TLSv1_3}};

/// "TLS 1.2" of TLS1_2_VERSION; a number that is none of ours in hexadecimal.
std::string version_name(int version);

/// 0 for a name that is none of ours.
int version_number(const Json::Value& name);

bool contains(const Json::Value& array, const Json::Value& element);
void append_once(Json::Value& array, const Json::Value& element);

/// A hello that is accepted with the group alone. In versions before TLS 1.3 an ECDSA certificate's
/// own curve has to be among the client's groups, so there only RSA serves.
Hello hello_for_group(int version, const std::string& group);

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

// Differences are an array as schemas/output has it, in the order of protocol versions, DH
// parameters, suites, groups.

/// Of a context, whose settings tell a cause, and handshakes with them lifted confirm it.
Json::Value context_differences(const Client& client, SSL_CTX* context,
                                const kelotls::Profile& profile, const Json::Value& survey);

/// The settings of a running server are not known. What a context made on this machine for the same
/// service lacks as well gets the cause that was found there; null: there is no such context.
Json::Value server_differences(const kelotls::Profile& profile, const Json::Value& survey,
                               const Json::Value& of_context);

}  // namespace kelotlsctl
