// Owns why a context does not accept something: read from its settings, each claim confirmed by a
// hello.
#pragma once

#include <openssl/ssl.h>

#include "levels/comparison.h"

namespace kelotlsctl {

/// Finds the cause of what is missing in the context, which has to outlive it. Reads the level's DH
/// parameter file when DHE is missing.
FindCause causes_in(SSL_CTX* context, const kelotls::Profile& profile);

/// The names of the context's suites, in its order of preference.
Json::Value suites_of(SSL_CTX* context);

}  // namespace kelotlsctl
