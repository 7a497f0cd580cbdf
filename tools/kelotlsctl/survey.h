// All handshakes that are worth trying with a peer, and what they show together.
#ifndef KELOTLSCTL_SURVEY_H
#define KELOTLSCTL_SURVEY_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "handshake.h"
#include "level_profile.h"

namespace kelotlsctl {

using Progress = std::function<void(std::size_t done, std::size_t all)>;

/// One suite with one version, or one group.
struct Trial {
  bool tries_group = false;
  int version = 0;
  std::string suite;
  std::string group;
  int dh_bits = 0;
  bool intended = false;
  bool accepted = false;
};

/// Something that the level asks for and that could not be tried.
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

/// Each suite in a handshake of its own: exact, and cheap in memory.
Survey survey_context(const Client& client, ContextPeer& peer, const LevelProfile& profile,
                      const Progress& progress);

/// All suites at once, then without the one that the server chose, until it refuses: every
/// refusal may cost a timeout, so that there is one of each version only.
Survey survey_server(const Client& client, Peer& server, const LevelProfile& profile,
                     const Progress& progress);

}  // namespace kelotlsctl

#endif
