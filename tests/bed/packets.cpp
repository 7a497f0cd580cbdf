// Packets and files of them.
#include "packets.h"

namespace kelotls::test {
namespace {

constexpr std::uint32_t kNoon = 1794830400;
constexpr std::uint32_t kHour = 3600;

/// In the order of the machine that this runs on, or of the other.
std::string word(std::uint64_t value, int length, bool is_other_order) {
  std::string bytes = number(value, length);
  return is_other_order ? bytes : std::string(bytes.rbegin(), bytes.rend());
}

std::string padded(std::string bytes) {
  return bytes + std::string((4 - bytes.size() % 4) % 4, '\0');
}

std::string block(std::uint32_t kind, const std::string& body) {
  const std::string size = word(body.size() + 12, 4, false);
  return word(kind, 4, false) + size + body + size;
}

std::string next_generation(const std::vector<std::string>& packets, int link) {
  std::string file = block(0x0a0d0d0a, word(0x1a2b3c4d, 4, false) + word(1, 2, false) +
                                           word(0, 2, false) + std::string(8, '\xff'));
  file += block(1, word(static_cast<std::uint64_t>(link), 2, false) + word(0, 2, false) +
                       word(262144, 4, false));
  std::uint64_t when = std::uint64_t{kNoon} * 1000000;
  for (const std::string& packet : packets) {
    const std::string size = word(packet.size(), 4, false);
    file += block(6, word(0, 4, false) + word(when >> 32, 4, false) +
                         word(when & 0xffffffff, 4, false) + size + size + padded(packet));
    when += std::uint64_t{kHour} * 1000000;
  }
  return file;
}

}  // namespace

std::string number(std::uint64_t value, int length) {
  std::string bytes;
  for (int shift = 8 * (length - 1); shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
  return bytes;
}

std::string octets(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::string hexadecimal(const std::string& octets) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char octet : octets) {
    text += kDigits[static_cast<unsigned char>(octet) >> 4];
    text += kDigits[static_cast<unsigned char>(octet) & 15];
  }
  return text;
}

std::string tcp(const TcpSegment& segment) {
  const std::size_t words = 5 + segment.options.size() / 4;
  return number(segment.source_port, 2) + number(segment.destination_port, 2) +
         number(segment.sequence, 4) + number(0, 4) + number(words << 4, 1) +
         number(segment.flags, 1) + number(65535, 2) + number(0, 4) + segment.options +
         segment.payload;
}

std::string ipv4(const std::string& content, const Ipv4Header& header) {
  const std::size_t size = 20 + header.options.size();
  return number(0x40 | size / 4, 1) + number(0, 1) + number(size + content.size(), 2) +
         number(header.identification, 2) +
         number((header.is_more ? 0x2000U : 0U) | header.offset / 8, 2) + number(64, 1) +
         number(header.protocol, 1) + number(0, 2) + header.source + header.destination +
         header.options + content;
}

std::string ipv6(const std::string& content, unsigned kind) {
  const std::string network = number(0x20010db8, 4) + std::string(11, '\0');
  return number(0x60000000, 4) + number(content.size(), 2) + number(kind, 1) + number(64, 1) +
         network + number(7, 1) + network + number(1, 1) + content;
}

std::string ipv6_option(unsigned next, std::size_t size) {
  return number(next, 1) + number(size / 8 - 1, 1) + std::string(size - 2, '\0');
}

std::string ipv6_fragment(unsigned next, unsigned offset, bool is_more, unsigned identification) {
  return number(next, 1) + number(0, 1) + number(offset | (is_more ? 1U : 0U), 2) +
         number(identification, 4);
}

std::string ethernet(const std::string& content, unsigned kind) {
  return std::string(12, '\2') + number(kind, 2) + content;
}

std::string capture_file(const std::vector<std::string>& packets, int link, CaptureFormat format) {
  if (format == CaptureFormat::kNextGeneration) {
    return next_generation(packets, link);
  }
  const bool is_other = format == CaptureFormat::kOtherByteOrder;
  const std::uint32_t magic = format == CaptureFormat::kNanoseconds ? 0xa1b23c4d : 0xa1b2c3d4;
  std::string file = word(magic, 4, is_other) + word(2, 2, is_other) + word(4, 2, is_other) +
                     word(0, 8, is_other) + word(262144, 4, is_other) +
                     word(static_cast<std::uint64_t>(link), 4, is_other);
  std::uint32_t when = kNoon;
  for (const std::string& packet : packets) {
    file += word(when, 4, is_other) + word(999999, 4, is_other) + word(packet.size(), 4, is_other) +
            word(packet.size(), 4, is_other) + packet;
    when += kHour;
  }
  return file;
}

std::vector<std::string> connection(const std::string& said, std::uint16_t source_port,
                                    std::uint16_t destination_port) {
  constexpr std::uint32_t kStart = 1000;
  const auto packet = [&](std::uint32_t sequence, const std::string& payload, unsigned flags) {
    return ethernet(
        ipv4(tcp({sequence, payload, flags, source_port, destination_port, std::string()})));
  };
  return {packet(kStart - 1, "", TcpSegment::kSyn), packet(kStart, said, TcpSegment::kAck),
          packet(kStart + static_cast<std::uint32_t>(said.size()), "",
                 TcpSegment::kFin | TcpSegment::kAck)};
}

}  // namespace kelotls::test
