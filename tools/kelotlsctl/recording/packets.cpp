// Owns reading the headers of packets.
#include "recording/packets.h"

#include <pcap/dlt.h>

#include <algorithm>
#include <iterator>

namespace kelotlsctl {

namespace {

constexpr std::uint16_t kIpv4 = 0x0800;
constexpr std::uint16_t kIpv6 = 0x86dd;
constexpr std::uint16_t kPppOverEthernet = 0x8864;

constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kHopByHop = 0;
constexpr std::uint8_t kRouting = 43;
constexpr std::uint8_t kFragment = 44;
constexpr std::uint8_t kAuthentication = 51;
constexpr std::uint8_t kDestinationOptions = 60;

constexpr std::size_t kMostDatagrams = 64;
constexpr std::size_t kMostDatagramBytes = 65535;
constexpr std::time_t kMostDatagramSeconds = 60;

std::size_t number(std::string_view bytes, std::size_t at, std::size_t length) {
  std::size_t value = 0;
  for (std::size_t i = at; i < at + length; ++i) {
    value = value << 8 | static_cast<std::uint8_t>(bytes[i]);
  }
  return value;
}

std::string_view behind(std::string_view bytes, std::size_t size) {
  return bytes.substr(std::min(size, bytes.size()));
}

/// What a link carries.
struct Content {
  std::uint16_t kind = 0;  // as in Ethernet; 0 where it cannot be told
  std::string_view bytes;
};

/// Where nothing says what it is, its version does.
Content by_version(std::string_view bytes) {
  const int version = bytes.empty() ? 0 : static_cast<std::uint8_t>(bytes[0]) >> 4;
  return {version == 4 ? kIpv4 : version == 6 ? kIpv6 : std::uint16_t{0}, bytes};
}

/// Tags of virtual networks, one or several, and what dials in.
Content without_tags(std::uint16_t kind, std::string_view bytes) {
  constexpr std::size_t kTag = 4;
  while ((kind == 0x8100 || kind == 0x88a8 || kind == 0x9100) && bytes.size() >= kTag) {
    kind = static_cast<std::uint16_t>(number(bytes, 2, 2));
    bytes = bytes.substr(kTag);
  }
  return kind == kPppOverEthernet ? by_version(behind(bytes, 8)) : Content{kind, bytes};
}

/// A header of this size, with the kind of what follows in it.
Content behind_header(std::string_view packet, std::size_t size, std::size_t kind_at) {
  return packet.size() < size ? Content()
                              : without_tags(static_cast<std::uint16_t>(number(packet, kind_at, 2)),
                                             packet.substr(size));
}

Content behind_ppp(std::string_view packet) {
  const bool has_address = packet.size() >= 2 && number(packet, 0, 2) == 0xff03;
  return by_version(behind(packet, has_address ? 4 : 2));
}

Content content_of(int link, std::string_view packet) {
  switch (link) {
    case DLT_EN10MB:
      return behind_header(packet, 14, 12);
    case DLT_LINUX_SLL:
      return behind_header(packet, 16, 14);
    case DLT_LINUX_SLL2:
      return behind_header(packet, 20, 0);
    case DLT_NULL:
    case DLT_LOOP:
      return by_version(behind(packet, 4));
    case DLT_PPP:
      return behind_ppp(packet);
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
      return by_version(packet);
    default:
      return {};
  }
}

NetworkAddress address_at(std::string_view packet, std::size_t at, std::size_t size) {
  NetworkAddress address;
  address.version = size == 4 ? 4 : 6;
  std::copy_n(packet.begin() + static_cast<std::ptrdiff_t>(at), size, address.octets.begin());
  return address;
}

std::optional<Segment> read_tcp(Segment segment, std::string_view bytes) {
  constexpr std::size_t kHeader = 20;
  const std::size_t header = bytes.size() < kHeader ? 0 : number(bytes, 12, 1) / 16 * 4;
  if (header < kHeader || header > bytes.size()) {
    return std::nullopt;
  }
  const std::size_t flags = number(bytes, 13, 1);
  segment.source_port = static_cast<std::uint16_t>(number(bytes, 0, 2));
  segment.destination_port = static_cast<std::uint16_t>(number(bytes, 2, 2));
  segment.sequence = static_cast<std::uint32_t>(number(bytes, 4, 4));
  segment.is_fin = (flags & 1) != 0;
  segment.is_syn = (flags & 2) != 0;
  segment.is_reset = (flags & 4) != 0;
  segment.is_ack = (flags & 16) != 0;
  segment.payload = bytes.substr(header);
  return segment;
}

}  // namespace

bool is_known_link(int link) {
  constexpr int kKnown[] = {DLT_EN10MB, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_NULL, DLT_LOOP,
                            DLT_PPP,    DLT_RAW,       DLT_IPV4,       DLT_IPV6};
  return std::find(std::begin(kKnown), std::end(kKnown), link) != std::end(kKnown);
}

std::optional<Segment> PacketReader::read(std::string_view packet, std::time_t when) {
  const Content content = content_of(link_, packet);
  return content.kind == kIpv4   ? read_ipv4(content.bytes, when)
         : content.kind == kIpv6 ? read_ipv6(content.bytes, when)
                                 : std::nullopt;
}

std::optional<Segment> PacketReader::read_ipv4(std::string_view packet, std::time_t when) {
  constexpr std::size_t kHeader = 20;
  const std::size_t header = packet.size() < kHeader ? 0 : (number(packet, 0, 1) & 15) * 4;
  if (header < kHeader || header > packet.size() || number(packet, 0, 1) >> 4 != 4) {
    return std::nullopt;
  }
  // What a network card will cut to size has no length yet. What is behind the length is padding.
  const std::size_t size = number(packet, 2, 2);
  packet = packet.substr(0, size == 0 ? packet.size() : std::max(size, header));
  Segment segment;
  segment.source = address_at(packet, 12, 4);
  segment.destination = address_at(packet, 16, 4);
  const auto protocol = static_cast<std::uint8_t>(number(packet, 9, 1));
  const std::size_t place = number(packet, 6, 2);
  const std::string_view bytes = packet.substr(header);
  const bool is_fragment = (place & 0x3fff) != 0;
  if (protocol != kTcp) {
    return std::nullopt;
  }
  if (!is_fragment) {
    return read_tcp(segment, bytes);
  }
  const Fragment fragment = {static_cast<std::uint32_t>(number(packet, 4, 2)), (place & 0x1fff) * 8,
                             (place & 0x2000) == 0, protocol};
  return complete(segment, fragment, bytes, when) ? read_tcp(segment, whole_) : std::nullopt;
}

std::optional<Segment> PacketReader::read_ipv6(std::string_view packet, std::time_t when) {
  constexpr std::size_t kHeader = 40;
  if (packet.size() < kHeader || number(packet, 0, 1) >> 4 != 6) {
    return std::nullopt;
  }
  const std::size_t size = number(packet, 4, 2);
  Segment segment;
  segment.source = address_at(packet, 8, 16);
  segment.destination = address_at(packet, 24, 16);
  const std::string_view rest = packet.substr(kHeader);
  return read_behind_ipv6(segment, static_cast<std::uint8_t>(number(packet, 6, 1)),
                          rest.substr(0, size == 0 ? rest.size() : size), when);
}

std::optional<Segment> PacketReader::read_behind_ipv6(Segment segment, std::uint8_t protocol,
                                                      std::string_view rest, std::time_t when) {
  constexpr std::size_t kLeast = 8;
  while (protocol != kTcp && rest.size() >= kLeast) {
    const auto next = static_cast<std::uint8_t>(number(rest, 0, 1));
    if (protocol == kFragment) {
      const std::size_t place = number(rest, 2, 2);
      const Fragment fragment = {static_cast<std::uint32_t>(number(rest, 4, 4)), place & 0xfff8,
                                 (place & 1) == 0, next};
      if (!complete(segment, fragment, rest.substr(kLeast), when)) {
        return std::nullopt;
      }
      // A fragment within a fragment is nothing that is sent.
      return whole_protocol_ == kFragment
                 ? std::nullopt
                 : read_behind_ipv6(segment, whole_protocol_, whole_, when);
    }
    const bool is_authentication = protocol == kAuthentication;
    if (!is_authentication && protocol != kHopByHop && protocol != kRouting &&
        protocol != kDestinationOptions) {
      return std::nullopt;
    }
    const std::size_t length = number(rest, 1, 1);
    rest = behind(rest, is_authentication ? (length + 2) * 4 : (length + 1) * 8);
    protocol = next;
  }
  return protocol == kTcp ? read_tcp(segment, rest) : std::nullopt;
}

std::list<PacketReader::Datagram>::iterator PacketReader::datagram_of(const Segment& segment,
                                                                      std::uint32_t identification,
                                                                      std::time_t when) {
  const auto known = std::find_if(datagrams_.begin(), datagrams_.end(), [&](const Datagram& one) {
    return one.identification == identification && one.source == segment.source &&
           one.destination == segment.destination;
  });
  if (known != datagrams_.end() && when <= known->begun + kMostDatagramSeconds) {
    return known;
  }
  if (known != datagrams_.end()) {
    drop(known);
  } else if (datagrams_.size() == kMostDatagrams) {
    drop(datagrams_.begin());
  }
  datagrams_.push_back({segment.source, segment.destination, identification, when, 0, 0, {}});
  return std::prev(datagrams_.end());
}

bool PacketReader::complete(const Segment& segment, const Fragment& fragment,
                            std::string_view bytes, std::time_t when) {
  const auto datagram = datagram_of(segment, fragment.identification, when);
  cost_ -= datagram->pieces.cost();
  const std::size_t end = fragment.offset + bytes.size();
  const bool fits = end <= kMostDatagramBytes && datagram->pieces.insert(fragment.offset, bytes);
  cost_ += datagram->pieces.cost();
  datagram->size = fragment.is_last && datagram->size == 0 ? end : datagram->size;
  datagram->protocol = fragment.offset == 0 ? fragment.protocol : datagram->protocol;
  const bool is_whole =
      fits && datagram->size != 0 && datagram->pieces.beginning().size() >= datagram->size;
  if (is_whole) {
    whole_ = datagram->pieces.beginning().substr(0, datagram->size);
    whole_protocol_ = datagram->protocol;
  }
  if (is_whole || !fits) {
    drop(datagram);
  }
  return is_whole;
}

void PacketReader::drop(std::list<Datagram>::iterator datagram) {
  cost_ -= datagram->pieces.cost();
  datagrams_.erase(datagram);
}

}  // namespace kelotlsctl
