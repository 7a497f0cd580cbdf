// Owns what the process that reads packets tells the one that keeps the record, which does not
// trust it: each message is checked.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "clients/records.h"
#include "recording/packets.h"

namespace kelotlsctl {

struct CaptureMessage {
  enum class Kind : std::uint8_t {
    kReady,        ///< nothing but reading packets is left to do
    kHello,        ///< text: the message
    kUnread,       ///< more connections of a service that gave no hello
    kKernelDrops,  ///< number: how many more packets the kernel could not keep
    kEnd,          ///< all was read. number: how many packets; first and last: when they came
    kFault         ///< text: why it cannot go on
  } kind = Kind::kReady;
  std::size_t service = 0;
  std::time_t first = 0;  ///< of a hello: when it came
  std::time_t last = 0;
  std::uint64_t number = 0;
  UnreadConnections unread;
  NetworkAddress source;
  std::string text;
};

/// 9999-12-31T23:59:59Z, or the last second that this machine can count to.
constexpr std::int64_t kMostMessageTime =
    std::min<std::int64_t>(253402300799, std::numeric_limits<std::time_t>::max());

/// No message takes more.
constexpr std::size_t kMostMessageBytes = (std::size_t{64} << 10) + 256;

std::string encode_message(const CaptureMessage& message);

/// Nothing where the bytes are no message about one of so many services, or one of its values
/// cannot be: a time before 1970 or after kMostMessageTime, a count beyond four thousand millions,
/// an address that is none, a hello that is none.
std::optional<CaptureMessage> decode_message(const std::string& bytes, std::size_t services);

}  // namespace kelotlsctl
