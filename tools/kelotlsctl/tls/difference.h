// Owns the comparison of what was measured with what a level requests, and finding out why
// something is missing.
#ifndef KELOTLSCTL_TLS_DIFFERENCE_H
#define KELOTLSCTL_TLS_DIFFERENCE_H

#include <optional>
#include <string>
#include <vector>

#include "tls/survey.h"

namespace kelotlsctl {

struct Reason {
  const char* cause;
  std::string text;
};

struct Difference {
  std::string what;
  bool is_extra;  // accepted though not requested; otherwise missing
  Reason reason;
};

using Differences = std::vector<Difference>;

/// In the order of protocol versions, DH parameters, suites, groups. Causes are found by
/// experiment: the same handshake with one setting after another lifted.
Differences context_differences(const Client& client, SSL_CTX* context,
                                const kelotls::Profile& profile, const Survey& survey);

/// The settings of a running server cannot be lifted. What a context made on this machine for the
/// same service lacks as well gets the cause that was found there, if there is such a context.
Differences server_differences(const kelotls::Profile& profile, const Survey& survey,
                               const std::optional<Differences>& of_context);

}  // namespace kelotlsctl

#endif
