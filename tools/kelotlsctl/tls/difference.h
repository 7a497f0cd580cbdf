// Owns the comparison of what was measured with what a level requests, and finding out why
// something is missing. Differences are an array as schemas/output has it, in the order of protocol
// versions, DH parameters, suites, groups.
#ifndef KELOTLSCTL_TLS_DIFFERENCE_H
#define KELOTLSCTL_TLS_DIFFERENCE_H

#include "tls/survey.h"

namespace kelotlsctl {

/// Causes are found by experiment: the same handshake with one setting after another lifted.
Json::Value context_differences(const Client& client, SSL_CTX* context,
                                const kelotls::Profile& profile, const Json::Value& survey);

/// The settings of a running server cannot be lifted. What a context made on this machine for the
/// same service lacks as well gets the cause that was found there; null: there is no such context.
Json::Value server_differences(const kelotls::Profile& profile, const Json::Value& survey,
                               const Json::Value& of_context);

}  // namespace kelotlsctl

#endif
