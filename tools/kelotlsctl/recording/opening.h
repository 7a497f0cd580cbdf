// Owns the beginning of what a client says: whether it is a ClientHello, at once or behind the
// plain part of a protocol.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tls/hello.h"

namespace kelotlsctl {

/// A hello that is longer is counted and not kept; nothing that is sent comes near it.
constexpr std::size_t kMostHelloBytes = std::size_t{64} << 10;
/// What a client may say before it asks for TLS.
constexpr std::size_t kMostPlainBytes = std::size_t{8} << 10;
/// No more of a connection is ever looked at: a hello in records of 64 bytes, say.
constexpr std::size_t kMostOpeningBytes =
    kMostHelloBytes + kMostPlainBytes + (std::size_t{8} << 10);

enum class Opening { kUnfinished, kHello, kNotTls, kSsl2Hello, kTooLarge };

struct OpeningResult {
  Opening what = Opening::kUnfinished;
  std::size_t needed = 0;  ///< of kUnfinished: with fewer bytes the answer stays the same
  Bytes hello;             ///< the handshake message, without the headers of records
};

/// bytes: all that the client has said so far. starttls: as for peers/starttls, or empty. A client
/// that begins with TLS where the plain part is expected is taken at its word.
OpeningResult read_opening(std::string_view bytes, const std::string& starttls);

}  // namespace kelotlsctl
