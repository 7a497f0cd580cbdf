// Owns encoding and checking messages.
#include "recording/channel.h"

#include <algorithm>

#include "clients/client_hello.h"
#include "recording/opening.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kNumbers = 9;
constexpr std::size_t kNumberBytes = 8;
constexpr std::size_t kHead = kNumbers * kNumberBytes + 17;
constexpr std::uint64_t kMostCount = 0xffffffff;
constexpr auto kMostTime = static_cast<std::uint64_t>(kMostMessageTime);
constexpr std::size_t kMostFault = 1000;

void append(std::string& bytes, std::uint64_t number) {
  for (std::size_t i = 0; i < kNumberBytes; ++i) {
    bytes += static_cast<char>(number >> 8 * i);
  }
}

std::uint64_t number_at(const std::string& bytes, std::size_t index) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < kNumberBytes; ++i) {
    number |= std::uint64_t{static_cast<std::uint8_t>(bytes[index * kNumberBytes + i])} << 8 * i;
  }
  return number;
}

bool has_usable_text(const CaptureMessage& message) {
  switch (message.kind) {
    case CaptureMessage::Kind::kHello:
      return message.text.size() <= kMostHelloBytes && read_client_hello(message.text) &&
             (message.source.version == 4 || message.source.version == 6);
    case CaptureMessage::Kind::kFault:
      return message.text.size() <= kMostFault;
    default:
      return message.text.empty();
  }
}

}  // namespace

std::string encode_message(const CaptureMessage& message) {
  std::string bytes;
  bytes.reserve(kHead + message.text.size());
  for (const std::uint64_t number :
       {static_cast<std::uint64_t>(message.kind), std::uint64_t{message.service},
        static_cast<std::uint64_t>(message.first), static_cast<std::uint64_t>(message.last),
        message.number, message.unread.not_tls, message.unread.ssl2, message.unread.incomplete,
        message.unread.too_large}) {
    append(bytes, number);
  }
  bytes += static_cast<char>(message.source.version);
  bytes.append(message.source.octets.begin(), message.source.octets.end());
  return bytes + message.text.substr(0, kMostMessageBytes - kHead);
}

std::optional<CaptureMessage> decode_message(const std::string& bytes, std::size_t services) {
  if (bytes.size() < kHead || bytes.size() > kMostMessageBytes) {
    return std::nullopt;
  }
  const std::uint64_t most[kNumbers] = {static_cast<std::uint64_t>(CaptureMessage::Kind::kFault),
                                        services - 1,
                                        kMostTime,
                                        kMostTime,
                                        kMostCount,
                                        kMostCount,
                                        kMostCount,
                                        kMostCount,
                                        kMostCount};
  std::uint64_t numbers[kNumbers];
  for (std::size_t i = 0; i < kNumbers; ++i) {
    numbers[i] = number_at(bytes, i);
    if (numbers[i] > most[i]) {
      return std::nullopt;
    }
  }
  CaptureMessage message;
  message.kind = static_cast<CaptureMessage::Kind>(numbers[0]);
  message.service = static_cast<std::size_t>(numbers[1]);
  message.first = static_cast<std::time_t>(numbers[2]);
  message.last = static_cast<std::time_t>(numbers[3]);
  message.number = numbers[4];
  message.unread = {numbers[5], numbers[6], numbers[7], numbers[8]};
  message.source.version = static_cast<std::uint8_t>(bytes[kNumbers * kNumberBytes]);
  std::copy_n(bytes.begin() + kNumbers * kNumberBytes + 1, message.source.octets.size(),
              message.source.octets.begin());
  message.text = bytes.substr(kHead);
  return has_usable_text(message) ? std::optional<CaptureMessage>(message) : std::nullopt;
}

}  // namespace kelotlsctl
