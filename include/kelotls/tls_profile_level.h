// The TLS security levels, and the two results that share their value space.
#ifndef KELOTLS_TLS_PROFILE_LEVEL_H
#define KELOTLS_TLS_PROFILE_LEVEL_H

#include <cstdint>

namespace kelotls {

/// A service's TLS security level, after the three tiers of Mozilla's server-side TLS
/// recommendations. Stored as a JSON integer; never range-checked. Any other value of 0 and above
/// that is left once the default has been followed counts as intermediate.
enum TlsProfileLevel : std::int32_t {
  TLS_PROFILE_LEVEL_DEFAULT = 0,       ///< follow the appliance-wide default level
  TLS_PROFILE_LEVEL_MODERN = 1,        ///< TLS 1.3 only
  TLS_PROFILE_LEVEL_INTERMEDIATE = 2,  ///< TLS 1.2 and 1.3
  TLS_PROFILE_LEVEL_OLD = 3,           ///< TLS 1.0 to 1.3
};

/// In place of a level: the service has no entry in the data store. Never stored.
constexpr int kServiceNotJoined = -1;

/// In place of a level: the data store is missing, unreadable or invalid. Never stored.
constexpr int kDataStoreUnavailable = -2;

}  // namespace kelotls

#endif
