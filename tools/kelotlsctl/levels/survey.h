// Owns the questions that are worth asking a server, and what its answers show together: the whole
// of what it serves.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "peers/asker.h"
#include "peers/full_handshake.h"

namespace kelotlsctl {

using Progress = std::function<void(std::size_t done, std::size_t all)>;

/// Every version that a server could serve, oldest first.
constexpr std::uint16_t kVersions[] = {kSsl2, kSsl3, kTls10, kTls11, kTls12, kTls13};

/// What was tried of a version, a suite in a version, or a group in one.
struct Trial {
  std::uint16_t version = 0;
  std::uint16_t number = 0;
  Verdict verdict = Verdict::kNotKnown;
  std::string reason;  ///< why it was not accepted
};

// What a server does beside its suites and groups.
constexpr char kServerOrder[] = "server-order";  ///< its order of suites counts, not the client's
constexpr char kCompression[] = "compression";
constexpr char kSessionIds[] = "session-ids";
constexpr char kSessionTickets[] = "session-tickets";  ///< stateless, up to TLS 1.2
constexpr char kSecureRenegotiation[] = "secure-renegotiation";
constexpr char kExtendedMasterSecret[] = "extended-master-secret";
constexpr char kTls13Tickets[] = "tls13-tickets";  ///< of either kind
constexpr char kTls13StatelessTickets[] = "tls13-stateless-tickets";

struct Survey {
  std::vector<Trial> versions;  ///< each once, in their order
  std::vector<Trial> suites;    ///< by version; those accepted first, as the server chose them
  std::vector<Trial> groups;    ///< likewise, in TLS 1.3 and in one version before it
  int weakest_dh_bits = 0;      ///< of DHE with a certificate; 0: none was seen
  std::map<std::string, Verdict> features;  ///< without those that no version has that is served
  std::vector<Bytes> certificates;          ///< DER, each once, without those of their issuers
};

bool contains(const Numbers& numbers, std::uint16_t number);

/// Whether the version is accepted.
bool serves(const Survey& survey, std::uint16_t version);

/// The numbers of the suites or groups that are accepted in the version.
Numbers accepted_in(const std::vector<Trial>& trials, std::uint16_t version);

/// A whole handshake with these signature algorithms.
using ShakeHands = std::function<FullHandshake(const std::string& signature_algorithms)>;

/// Without shake_hands nothing is told that only whole handshakes show.
Survey survey(Asker& asker, const ShakeHands& shake_hands, const Progress& progress);

/// The suites of TLS 1.3, or of all earlier versions, in the registry's order.
Numbers suites_of_version(std::uint16_t version);

/// The groups that a hello of the version offers: all, but those of RFC 7919 only in TLS 1.3.
Numbers groups_of_version(std::uint16_t version);

}  // namespace kelotlsctl
