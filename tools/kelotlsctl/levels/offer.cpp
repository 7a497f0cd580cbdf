// Owns offers, and the list of known clients.
#include "levels/offer.h"

#include <algorithm>
#include <sstream>

#include "output/console.h"
#include "tls/registry.h"

namespace kelotlsctl {

namespace {

struct KnownClient {
  const char* name;
  std::uint16_t newest_version;
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
    {{"Firefox 1", kTls10, kAesCbc},             {"Firefox 27", kTls12, kAesGcm},          {"Firefox 63", kTls13, kAesGcm}},
    {{"Android 2.3", kTls10, kAesCbc},           {"Android 4.4.2", kTls12, kAesGcm},       {"Android 10", kTls13, kAesGcm}},
    {{"Chrome 1", kTls10, kAesCbc},              {"Chrome 31", kTls12, kAesGcm},           {"Chrome 70", kTls13, kAesGcm}},
    {{"Edge 12", kTls12, kAes256Gcm},          {"Edge 75", kTls13, kAes256Gcm}},
    {{"IE 8 on Windows XP", kTls10, kBeforeAes}, {"IE 7 on Windows Vista", kTls10, kAesCbc}, {"IE 11 on Windows 7", kTls12, kDheGcm}},
    {{"Java 6", kTls10, kAesCbc},                {"Java 8u31", kTls12, kAesGcm},           {"Java 11", kTls13, kAesGcm}},
    {{"OpenSSL 0.9.8", kTls10, kAesCbc},         {"OpenSSL 1.0.1", kTls12, kAesGcm},       {"OpenSSL 1.1.1", kTls13, kAesGcm}},
    {{"Opera 5", kTls10, kBeforeAes},            {"Opera 9", kTls10, kAesCbc},               {"Opera 20", kTls12, kAesGcm},           {"Opera 57", kTls13, kAesGcm}},
    {{"Safari 1", kTls10, kBeforeAes},           {"Safari 5 on OS X 10.6", kTls10, kAesCbc}, {"Safari 9", kTls12, kAesGcm},           {"Safari 12.1", kTls13, kAesGcm}},
};
// clang-format on

/// The numbers of an OpenSSL list, where names are separated by colons.
Numbers numbers_in(const char* list, std::uint16_t (*number)(const std::string& name)) {
  Numbers numbers;
  std::istringstream stream(list != nullptr ? list : "");
  for (std::string name; std::getline(stream, name, ':');) {
    numbers.push_back(number(name));
  }
  return numbers;
}

bool connects(const KnownClient& client, const Offer& offer) {
  if (client.newest_version == kTls13 && contains(offer.versions, kTls13) &&
      !offer.tls13_suites.empty()) {
    return true;
  }
  const Numbers suites = numbers_in(client.suites, suite_number);
  return !offer.versions.empty() &&
         offer.versions.front() <= std::min(client.newest_version, kTls12) &&
         std::any_of(suites.begin(), suites.end(),
                     [&](std::uint16_t suite) { return contains(offer.suites, suite); });
}

void add_once(Numbers& numbers, std::uint16_t number) {
  if (!contains(numbers, number)) {
    numbers.push_back(number);
  }
}

}  // namespace

bool contains(const Json::Value& array, const Json::Value& element) {
  return std::find(array.begin(), array.end(), element) != array.end();
}

void append_once(Json::Value& array, const Json::Value& element) {
  if (!contains(array, element)) {
    array.append(element);
  }
}

std::string version_name(std::uint16_t version) {
  switch (version) {
    case kSsl2:
      return "SSL 2";
    case kSsl3:
      return "SSL 3";
    case kTls10:
    case kTls11:
    case kTls12:
    case kTls13:
      return "TLS 1." + std::to_string(version - kTls10);
    default:
      return "version " + hexadecimal(version);
  }
}

Offer requested_by(const kelotls::Profile& profile) {
  Offer requested;
  for (const std::uint16_t version : kVersions) {
    if (version >= profile.oldest_version) {
      requested.versions.push_back(version);
    }
  }
  requested.suites = numbers_in(profile.cipher_list, suite_number);
  requested.tls13_suites = numbers_in(profile.ciphersuites, suite_number);
  requested.groups = numbers_in(profile.groups, group_number);
  requested.dh_bits = profile.dh_bits;
  return requested;
}

Offer offer_of(const Survey& survey) {
  Offer offer;
  for (const std::uint16_t version : kVersions) {
    if (serves(survey, version)) {
      offer.versions.push_back(version);
    }
    for (const std::uint16_t suite : accepted_in(survey.suites, version)) {
      add_once(version == kTls13 ? offer.tls13_suites : offer.suites, suite);
    }
    for (const std::uint16_t group : accepted_in(survey.groups, version)) {
      add_once(offer.groups, group);
    }
  }
  offer.dh_bits = survey.weakest_dh_bits;
  return offer;
}

Json::Value offer_json(const Offer& offer) {
  return object({{"protocols", list_of(offer.versions, version_name)},
                 {"cipher-suites", list_of(offer.suites, suite_name)},
                 {"tls13-suites", list_of(offer.tls13_suites, suite_name)},
                 {"groups", list_of(offer.groups, group_name)},
                 {"dh-bits", offer.dh_bits != 0 ? Json::Value(offer.dh_bits) : Json::Value()}});
}

Json::Value oldest_clients(const Offer& offer, const Offer& other) {
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

}  // namespace kelotlsctl
