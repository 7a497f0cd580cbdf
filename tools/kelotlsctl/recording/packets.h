// Owns the headers of packets: from what a capture gives to the segment of TCP in it.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <list>
#include <optional>
#include <string>
#include <string_view>

#include "recording/pieces.h"

namespace kelotlsctl {

struct NetworkAddress {
  std::uint8_t version = 0;                  ///< 4 or 6
  std::array<std::uint8_t, 16> octets = {};  ///< IPv4: the first four

  bool operator==(const NetworkAddress& other) const {
    return version == other.version && octets == other.octets;
  }
};

struct Segment {
  NetworkAddress source;
  NetworkAddress destination;
  std::uint16_t source_port = 0;
  std::uint16_t destination_port = 0;
  std::uint32_t sequence = 0;
  bool is_syn = false;
  bool is_ack = false;
  bool is_fin = false;
  bool is_reset = false;
  std::string_view payload;  ///< as much of it as was captured
};

/// The links whose headers it reads, by libpcap's numbers (DLT_...).
bool is_known_link(int link);

/// Reads packets of one link. Checksums are not looked at: where the network card computes them,
/// what is captured has none.
class PacketReader {
 public:
  explicit PacketReader(int link) : link_(link) {}

  /// The segment, valid until the next call; nothing for other packets, for fragments that do not
  /// complete one, and where a header does not fit.
  std::optional<Segment> read(std::string_view packet, std::time_t when);

  std::size_t cost() const { return cost_; }

 private:
  /// A datagram that comes in fragments.
  struct Datagram {
    NetworkAddress source;
    NetworkAddress destination;
    std::uint32_t identification = 0;
    std::time_t begun = 0;
    std::size_t size = 0;  // of all; 0: the last fragment has not come
    std::uint8_t protocol = 0;
    Pieces pieces;
  };

  struct Fragment {
    std::uint32_t identification = 0;
    std::size_t offset = 0;
    bool is_last = false;
    std::uint8_t protocol = 0;
  };

  std::optional<Segment> read_ipv4(std::string_view packet, std::time_t when);
  std::optional<Segment> read_ipv6(std::string_view packet, std::time_t when);
  std::optional<Segment> read_behind_ipv6(Segment segment, std::uint8_t protocol,
                                          std::string_view rest, std::time_t when);
  std::list<Datagram>::iterator datagram_of(const Segment& segment, std::uint32_t identification,
                                            std::time_t when);
  /// The whole content, once it is there, in whole_.
  bool complete(const Segment& segment, const Fragment& fragment, std::string_view bytes,
                std::time_t when);
  void drop(std::list<Datagram>::iterator datagram);

  int link_;
  std::list<Datagram> datagrams_;  // oldest first
  std::size_t cost_ = 0;
  std::uint8_t whole_protocol_ = 0;
  std::string whole_;
};

}  // namespace kelotlsctl
