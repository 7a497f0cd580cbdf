// Owns the choice of handshakes that are worth trying with a peer, and what they show together.
#ifndef KELOTLSCTL_TLS_SURVEY_H
#define KELOTLSCTL_TLS_SURVEY_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tls/client.h"

namespace kelotlsctl {

using Progress = std::function<void(std::size_t done, std::size_t all)>;

struct ProtocolVersion {
  int number;
  const char* name;
};

/// Every version that a level can request, oldest first.
constexpr ProtocolVersion kProtocolVersions[] = {{TLS1_VERSION, "TLS 1.0"},
                                                 {TLS1_1_VERSION, "TLS 1.1"},
                                                 {TLS1_2_VERSION, "TLS 1.2"},
                                                 {TLS1_3_VERSION, "TLS 1.3"}};

/// "TLS 1.2" of TLS1_2_VERSION; a number that is none of ours in hexadecimal.
std::string version_name(int version);

bool contains(const Names& names, const std::string& name);

/// Adds a name that is not empty and not there yet.
void add_once(Names& names, const std::string& name);

std::string list_of(const Names& names, const char* separator = ":");

/// What a server can be used with: as a level requests it, or as measured.
struct Offer {
  std::vector<int> versions;
  Names cipher_suites;  // for TLS 1.2 and older
  Names tls13_suites;
  Names groups;
  int dh_bits = 0;

  bool has_version(int version) const;
};

/// The level in full.
Offer requested_by(const kelotls::Profile& profile);

/// The oldest client of each family that can connect, given an RSA certificate.
Names oldest_clients(const Offer& offer);

/// The oldest clients of what is requested that cannot connect to what is offered.
Names lost_clients(const Offer& requested, const Offer& offered);

/// One suite with one version, or one group.
struct Trial {
  bool tries_group;
  int version;
  std::string suite;
  std::string group;
  int dh_bits;
  bool requested;
  bool accepted;
};

/// Something that the level requests and that could not be tried.
struct Untested {
  std::string what;
  std::string text;
};

struct Survey {
  std::vector<Trial> trials;
  std::vector<Untested> untested;
  Names certificate_kinds;
  Names known_suites;  // all that the client can offer with any version
  Names dhe_suites;    // those of them with DHE

  /// What was accepted, suites in the order of the trials.
  Offer offer() const;
};

/// Tries each suite in a handshake of its own: exact, and cheap in memory.
Survey survey_context(const Client& client, SSL_CTX* context, const kelotls::Profile& profile,
                      const Progress& progress);

/// Tries all suites at once, then without the one that the server chose, until it refuses: every
/// refusal may take as long as the timeout, and so there is only one for each version.
Survey survey_server(const Client& client, const Server& server, const kelotls::Profile& profile,
                     const Progress& progress);

}  // namespace kelotlsctl

#endif
