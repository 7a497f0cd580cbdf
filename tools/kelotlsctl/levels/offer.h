// Owns what a server can be used with: what a level asks for, what a survey found, and the clients
// that either serves.
#pragma once

#include <json/value.h>

#include "levels/survey.h"
#include "profile.h"

namespace kelotlsctl {

struct Offer {
  Numbers versions;  ///< oldest first
  Numbers suites;    ///< for TLS 1.2 and older
  Numbers tls13_suites;
  Numbers groups;
  int dh_bits = 0;  ///< 0: no DHE
};

bool contains(const Json::Value& array, const Json::Value& element);
void append_once(Json::Value& array, const Json::Value& element);

/// "TLS 1.2" of kTls12; a number that is none of ours in hexadecimal.
std::string version_name(std::uint16_t version);

/// The offer of the level in full.
Offer requested_by(const kelotls::Profile& profile);

/// What is accepted in any version.
Offer offer_of(const Survey& survey);

/// {"protocols", "cipher-suites", "tls13-suites", "groups", "dh-bits"}, as schemas/output has it.
Json::Value offer_json(const Offer& offer);

/// The version of the published guideline that the levels' suites and the lists of oldest clients
/// are from.
constexpr char kGuideline[] = "5.6";

/// The oldest client of each family that can connect, given an RSA certificate; without those that
/// can connect to the other offer too.
Json::Value oldest_clients(const Offer& offer, const Offer& other = {});

}  // namespace kelotlsctl
