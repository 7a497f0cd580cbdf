// Packets written byte by byte, and files of them, as a capture would hold them.
#ifndef KELOTLS_TESTS_BED_PACKETS_H
#define KELOTLS_TESTS_BED_PACKETS_H

#include <cstdint>
#include <string>
#include <vector>

namespace kelotls::test {

/// A number in network order.
std::string number(std::uint64_t value, int length);

/// "160301": three octets; and back.
std::string octets(const std::string& hex);
std::string hexadecimal(const std::string& octets);

/// One segment of TCP from a client to a service.
struct TcpSegment {
  std::uint32_t sequence = 0;
  std::string payload;
  unsigned flags = kAck;
  std::uint16_t source_port = 40000;
  std::uint16_t destination_port = 443;
  std::string options;

  static constexpr unsigned kFin = 1;
  static constexpr unsigned kSyn = 2;
  static constexpr unsigned kReset = 4;
  static constexpr unsigned kAck = 16;
};

std::string tcp(const TcpSegment& segment);

struct Ipv4Header {
  std::string source = std::string("\xc0\0\x02\x07", 4);  // 192.0.2.7
  std::string destination = "\xc6\x33\x64\x01";           // 198.51.100.1
  std::string options;
  unsigned identification = 1;
  unsigned offset = 0;  // of a fragment, in bytes
  bool is_more = false;
  unsigned protocol = 6;
};
std::string ipv4(const std::string& content, const Ipv4Header& header = {});

/// From 2001:db8::7 to 2001:db8::1. kind: of the content's first header.
std::string ipv6(const std::string& content, unsigned kind = 6);

/// A header of IPv6 that stands before another one.
std::string ipv6_option(unsigned next, std::size_t size);
std::string ipv6_fragment(unsigned next, unsigned offset, bool is_more, unsigned identification);

std::string ethernet(const std::string& content, unsigned kind = 0x0800);

/// A file of packets, each an hour after the one before, from 2026-11-16T12:00:00Z on.
enum class CaptureFormat { kMicroseconds, kNanoseconds, kOtherByteOrder, kNextGeneration };
std::string capture_file(const std::vector<std::string>& packets, int link = 1,
                         CaptureFormat format = CaptureFormat::kMicroseconds);

/// A whole connection: SYN, what the client says in one segment, FIN.
std::vector<std::string> connection(const std::string& said, std::uint16_t source_port,
                                    std::uint16_t destination_port = 443);

}  // namespace kelotls::test

#endif
