// Owns the tables of levels and clients.
#include "level_profile.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <cstdio>

namespace kelotlsctl {

namespace {

constexpr char kTls13Suites[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr char kGroups[] = "prime256v1:secp384r1:secp521r1";

constexpr char kIntermediateSuites[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384";

constexpr char kOldSuites[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:DHE-RSA-CHACHA20-POLY1305:"
    "ECDHE-ECDSA-AES128-SHA256:ECDHE-RSA-AES128-SHA256:"
    "ECDHE-ECDSA-AES128-SHA:ECDHE-RSA-AES128-SHA:"
    "ECDHE-ECDSA-AES256-SHA384:ECDHE-RSA-AES256-SHA384:"
    "ECDHE-ECDSA-AES256-SHA:ECDHE-RSA-AES256-SHA:"
    "DHE-RSA-AES128-SHA256:DHE-RSA-AES256-SHA256:"
    "AES128-GCM-SHA256:AES256-GCM-SHA384:AES128-SHA256:AES256-SHA256:"
    "AES128-SHA:AES256-SHA:DES-CBC3-SHA";

constexpr char kDh1024File[] = "/usr/kelo/etc/ssl/dh1024.pem";
constexpr char kDh2048File[] = "/usr/kelo/etc/ssl/dh2048.pem";

// clang-format off
constexpr LevelProfile kModern       = {1, "modern",       TLS1_3_VERSION, "",                  kTls13Suites, kGroups, nullptr,     0};
constexpr LevelProfile kIntermediate = {2, "intermediate", TLS1_2_VERSION, kIntermediateSuites, kTls13Suites, kGroups, kDh2048File, 2048};
constexpr LevelProfile kOld          = {3, "old",          TLS1_VERSION,   kOldSuites,          kTls13Suites, kGroups, kDh1024File, 1024};
// clang-format on

struct KnownClient {
  const char* family;
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

// Each family from its oldest client on. The versions are those of Mozilla's server-side TLS
// recommendations, and between them the first client that does without DES-CBC3-SHA.
// clang-format off
constexpr KnownClient kClients[] = {
    {"Firefox",           "Firefox 1",               TLS1_VERSION,   kAesCbc},
    {"Firefox",           "Firefox 27",              TLS1_2_VERSION, kAesGcm},
    {"Firefox",           "Firefox 63",              TLS1_3_VERSION, kAesGcm},
    {"Android",           "Android 2.3",             TLS1_VERSION,   kAesCbc},
    {"Android",           "Android 4.4.2",           TLS1_2_VERSION, kAesGcm},
    {"Android",           "Android 10",              TLS1_3_VERSION, kAesGcm},
    {"Chrome",            "Chrome 1",                TLS1_VERSION,   kAesCbc},
    {"Chrome",            "Chrome 31",               TLS1_2_VERSION, kAesGcm},
    {"Chrome",            "Chrome 70",               TLS1_3_VERSION, kAesGcm},
    {"Edge",              "Edge 12",                 TLS1_2_VERSION, kAes256Gcm},
    {"Edge",              "Edge 75",                 TLS1_3_VERSION, kAes256Gcm},
    {"Internet Explorer", "IE 8 on Windows XP",      TLS1_VERSION,   kBeforeAes},
    {"Internet Explorer", "IE 7 on Windows Vista",   TLS1_VERSION,   kAesCbc},
    {"Internet Explorer", "IE 11 on Windows 7",      TLS1_2_VERSION, kDheGcm},
    {"Java",              "Java 6",                  TLS1_VERSION,   kAesCbc},
    {"Java",              "Java 8u31",               TLS1_2_VERSION, kAesGcm},
    {"Java",              "Java 11",                 TLS1_3_VERSION, kAesGcm},
    {"OpenSSL",           "OpenSSL 0.9.8",           TLS1_VERSION,   kAesCbc},
    {"OpenSSL",           "OpenSSL 1.0.1",           TLS1_2_VERSION, kAesGcm},
    {"OpenSSL",           "OpenSSL 1.1.1",           TLS1_3_VERSION, kAesGcm},
    {"Opera",             "Opera 5",                 TLS1_VERSION,   kBeforeAes},
    {"Opera",             "Opera 9",                 TLS1_VERSION,   kAesCbc},
    {"Opera",             "Opera 20",                TLS1_2_VERSION, kAesGcm},
    {"Opera",             "Opera 57",                TLS1_3_VERSION, kAesGcm},
    {"Safari",            "Safari 1",                TLS1_VERSION,   kBeforeAes},
    {"Safari",            "Safari 5 on OS X 10.6",   TLS1_VERSION,   kAesCbc},
    {"Safari",            "Safari 9",                TLS1_2_VERSION, kAesGcm},
    {"Safari",            "Safari 12.1",             TLS1_3_VERSION, kAesGcm},
};
// clang-format on

bool have_common(const Names& left, const Names& right) {
  return std::any_of(left.begin(), left.end(),
                     [&](const std::string& name) { return contains(right, name); });
}

bool connects(const KnownClient& client, const Offer& offer) {
  if (client.newest_version >= TLS1_3_VERSION && offer.has_version(TLS1_3_VERSION) &&
      !offer.tls13_suites.empty()) {
    return true;
  }
  const int newest = std::min(client.newest_version, TLS1_2_VERSION);
  return std::any_of(offer.versions.begin(), offer.versions.end(),
                     [&](int version) { return version <= newest; }) &&
         have_common(names_in(client.suites), offer.cipher_suites);
}

}  // namespace

const std::vector<ProtocolVersion>& protocol_versions() {
  static const std::vector<ProtocolVersion> versions = {{TLS1_VERSION, "TLS 1.0"},
                                                        {TLS1_1_VERSION, "TLS 1.1"},
                                                        {TLS1_2_VERSION, "TLS 1.2"},
                                                        {TLS1_3_VERSION, "TLS 1.3"}};
  return versions;
}

std::string version_name(int version) {
  for (const ProtocolVersion& known : protocol_versions()) {
    if (known.number == version) {
      return known.name;
    }
  }
  char text[32];
  static_cast<void>(
      std::snprintf(text, sizeof text, "version 0x%04x", static_cast<unsigned int>(version)));
  return text;
}

const LevelProfile& profile_of(int level) {
  for (const LevelProfile* profile : {&kModern, &kOld}) {
    if (profile->level == level) {
      return *profile;
    }
  }
  return kIntermediate;
}

Names names_in(const std::string& list) {
  Names names;
  for (std::size_t start = 0; start < list.size();) {
    const std::size_t end = std::min(list.find(':', start), list.size());
    names.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

std::string list_of(const Names& names) {
  std::string list;
  for (const std::string& name : names) {
    list += (list.empty() ? "" : ":") + name;
  }
  return list;
}

bool contains(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

bool Offer::has_version(int version) const {
  return std::find(versions.begin(), versions.end(), version) != versions.end();
}

Offer wish_of(const LevelProfile& profile) {
  Offer wish;
  for (const ProtocolVersion& version : protocol_versions()) {
    if (version.number >= profile.oldest_version) {
      wish.versions.push_back(version.number);
    }
  }
  wish.cipher_suites = names_in(profile.cipher_list);
  wish.tls13_suites = names_in(profile.tls13_suites);
  wish.groups = names_in(profile.groups);
  wish.dh_bits = profile.dh_bits;
  return wish;
}

Names oldest_clients(const Offer& offer) {
  Names clients;
  const char* served_family = "";
  for (const KnownClient& client : kClients) {
    if (std::string(client.family) != served_family && connects(client, offer)) {
      clients.emplace_back(client.name);
      served_family = client.family;
    }
  }
  return clients;
}

Names lost_clients(const Offer& wanted, const Offer& given) {
  Names lost;
  const Names wanted_clients = oldest_clients(wanted);
  for (const KnownClient& client : kClients) {
    if (contains(wanted_clients, client.name) && !connects(client, given)) {
      lost.emplace_back(client.name);
    }
  }
  return lost;
}

}  // namespace kelotlsctl
