// Any packets on any link; any segments of one connection, cut, ordered and overlapping as the
// input says; and any message of the process that reads packets. What is followed stays small, a
// hello is one, and of segments comes what comes of the same bytes in one piece.
//
// The first byte chooses among the three, the second the link or the protocol before TLS. Packets
// follow their lengths in two bytes, segments their place in two and their length in one.
#include <pcap/dlt.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "clients/client_hello.h"
#include "harness.h"
#include "peers/starttls.h"
#include "recording/channel.h"
#include "recording/streams.h"

namespace kelotls::fuzz {
namespace {

using kelotlsctl::Opening;
using kelotlsctl::Segment;
using kelotlsctl::Sighting;
using kelotlsctl::Streams;

constexpr int kLinks[] = {DLT_EN10MB, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_NULL,
                          DLT_LOOP,   DLT_PPP,       DLT_RAW};
constexpr std::time_t kWhen = 1794830400;
constexpr std::size_t kMostSegments = 200;  // with more a connection is given up
constexpr std::uint32_t kStart = 0xffffff00;

std::size_t take_number(std::string_view& input, std::size_t length) {
  std::size_t number = 0;
  for (std::size_t i = 0; i < length && !input.empty(); ++i) {
    number = number << 8 | static_cast<std::uint8_t>(input[0]);
    input.remove_prefix(1);
  }
  return number;
}

std::string_view take_bytes(std::string_view& input, std::size_t size) {
  const std::string_view bytes = input.substr(0, size);
  input.remove_prefix(bytes.size());
  return bytes;
}

void require_sense(const Sighting& sighting) {
  require((sighting.what == Opening::kHello) == !sighting.hello.empty(),
          "a hello is given where there is one");
  require(sighting.hello.empty() || !kelotlsctl::comparison_key(sighting.hello).empty(),
          "a hello that is given can be read");
  require(sighting.hello.size() <= kelotlsctl::kMostHelloBytes, "a hello is small");
}

void read_packets(int link, const std::string& protocol, std::string_view input) {
  kelotlsctl::PacketReader reader(link);
  Streams streams({{443, {}, protocol}}, require_sense);
  while (!input.empty()) {
    const std::string_view packet = take_bytes(input, take_number(input, 2));
    const std::optional<Segment> segment = reader.read(packet, kWhen);
    if (segment) {
      require(segment->payload.size() <= 65535, "a segment is no larger than what it came in");
      streams.take(*segment, kWhen);
    }
    require(streams.cost() <= Streams::kMostBytes + 65535, "what is followed stays small");
  }
  streams.end(kWhen);
  require(streams.cost() == 0, "nothing is left at the end");
}

Segment segment_of(std::uint32_t sequence, std::string_view payload) {
  Segment segment;
  segment.source.version = segment.destination.version = 4;
  segment.source_port = 40000;
  segment.destination_port = 443;
  segment.sequence = sequence;
  segment.payload = payload;
  return segment;
}

void read_segments(const std::string& protocol, std::string_view input) {
  std::vector<Sighting> sightings;
  Streams streams({{443, {}, protocol}}, [&](const Sighting& one) {
    require_sense(one);
    sightings.push_back(one);
  });
  Segment syn = segment_of(kStart - 1, "");
  syn.is_syn = true;
  streams.take(syn, kWhen);
  std::map<std::size_t, char> bytes;  // the second writing: which byte came first to each place
  for (std::size_t i = 0; i < kMostSegments && !input.empty(); ++i) {
    const std::size_t at = take_number(input, 2);
    const std::string_view payload = take_bytes(input, take_number(input, 1));
    streams.take(segment_of(kStart + static_cast<std::uint32_t>(at), payload), kWhen);
    for (std::size_t place = 0; place < payload.size(); ++place) {
      bytes.emplace(at + place, payload[place]);
    }
  }
  streams.end(kWhen);
  std::string whole;
  for (const auto& [place, byte] : bytes) {
    if (place != whole.size()) {
      break;
    }
    whole += byte;
  }
  const kelotlsctl::OpeningResult expected = kelotlsctl::read_opening(whole, protocol);
  require(sightings.size() == (bytes.empty() ? 0 : 1), "a connection is seen once");
  require(sightings.empty() || sightings[0].what == expected.what,
          "segments give what their bytes give in one piece");
  require(sightings.empty() || sightings[0].hello == expected.hello, "the hello is the same");
}

void read_message(std::string_view input) {
  const std::string bytes(input);
  const auto message = kelotlsctl::decode_message(bytes, 2);
  require(!message || kelotlsctl::encode_message(*message) == bytes,
          "a message that is taken is the only writing of what it says");
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls::fuzz;
  std::string_view input = text_of(data, size);
  const std::size_t kind = take_number(input, 1) % 3;
  const std::size_t choice = take_number(input, 1);
  const auto& protocols = kelotlsctl::starttls_protocols();
  const std::size_t protocol = choice / std::size(kLinks) % (protocols.size() + 1);
  const std::string name = protocol == 0 ? "" : protocols[protocol - 1];
  if (kind == 0) {
    read_packets(kLinks[choice % std::size(kLinks)], name, input);
  } else if (kind == 1) {
    read_segments(name, input);
  } else {
    read_message(input);
  }
  return 0;
}
