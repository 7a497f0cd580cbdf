// From packets to hellos: links, headers, fragments, segments in any order, and what opens a
// connection.
#include <gtest/gtest.h>
#include <pcap/dlt.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <numeric>
#include <random>

#include "packets.h"
#include "peers/starttls.h"
#include "recording/channel.h"
#include "recording/packets.h"
#include "recording/pieces.h"
#include "recording/recorder.h"
#include "recording/streams.h"
#include "tls/hello.h"

namespace kelotls::test {
namespace {

using kelotlsctl::CaptureMessage;
using kelotlsctl::Opening;
using kelotlsctl::PacketReader;
using kelotlsctl::Pieces;
using kelotlsctl::read_opening;
using kelotlsctl::Sighting;
using kelotlsctl::Streams;
using kelotlsctl::WatchedService;

constexpr std::size_t kRecordHeader = 5;
constexpr std::uint32_t kStart = 0xfffffff0;  // the numbers begin anew within the hello
constexpr std::time_t kWhen = 1794830400;

/// A record with a hello that takes about so many bytes.
std::string record_of(std::size_t size) {
  kelotlsctl::Hello hello;
  hello.version = kelotlsctl::kTls13;
  hello.suites = {0x1301};
  hello.groups = {0x001d};
  hello.key_shares = {0x001d};
  while (size > 300 + 250 * hello.alpn.size()) {
    hello.alpn.emplace_back(249, 'a');
  }
  return kelotlsctl::write_hello(hello);
}

std::string message_of(const std::string& record) { return record.substr(kRecordHeader); }

/// The message in records of at most so many bytes.
std::string in_records(const std::string& message, std::size_t size) {
  std::string records;
  for (std::size_t at = 0; at < message.size(); at += size) {
    const std::string part = message.substr(at, size);
    records += number(0x160301, 3) + number(part.size(), 2) + part;
  }
  return records;
}

/// What packets of a link give.
class Watching {
 public:
  explicit Watching(int link = DLT_EN10MB, const std::string& starttls = "")
      : reader_(link), streams_({WatchedService{443, {}, starttls}}, [this](const Sighting& one) {
          sightings.push_back(one);
        }) {}

  void see(const std::string& packet, std::time_t when = kWhen) {
    const auto segment = reader_.read(packet, when);
    if (segment) {
      streams_.take(*segment, when);
    }
  }
  void end() { streams_.end(kWhen); }

  /// One segment in its simplest packet.
  void say(const TcpSegment& segment) { see(ethernet(ipv4(tcp(segment)))); }
  void begin(std::uint16_t port = 40000) {
    TcpSegment syn;
    syn.sequence = kStart - 1;
    syn.flags = TcpSegment::kSyn;
    syn.source_port = port;
    say(syn);
  }
  void say(std::size_t offset, const std::string& payload, unsigned flags = TcpSegment::kAck,
           std::uint16_t port = 40000) {
    say({kStart + static_cast<std::uint32_t>(offset), payload, flags, port, 443, ""});
  }

  const Streams& streams() const { return streams_; }
  const PacketReader& reader() const { return reader_; }

  std::vector<Sighting> sightings;

 private:
  PacketReader reader_;
  Streams streams_;
};

/// The one hello that was seen, and nothing else.
std::string only_hello(const Watching& watching) {
  EXPECT_EQ(watching.sightings.size(), 1U);
  return watching.sightings.size() == 1 && watching.sightings[0].what == Opening::kHello
             ? watching.sightings[0].hello
             : "";
}

// Links and headers.

struct Link {
  const char* name;
  int link;
  std::string head;
  bool is_ipv6;
};

TEST(PacketReading, SeesThroughEveryLink) {
  const std::string cooked(14, '\0');
  const std::string cooked2(18, '\0');
  const Link links[] = {
      {"Ethernet", DLT_EN10MB, std::string(12, '\1') + number(0x0800, 2), false},
      {"Ethernet, IPv6", DLT_EN10MB, std::string(12, '\1') + number(0x86dd, 2), true},
      {"a tag", DLT_EN10MB, std::string(12, '\1') + number(0x810000070800, 6), false},
      {"two tags", DLT_EN10MB,
       std::string(12, '\1') + number(0x88a80007, 4) + number(0x8100000786dd, 6), true},
      {"PPP over Ethernet", DLT_EN10MB,
       std::string(12, '\1') + number(0x8864, 2) + number(0x1100000100400021, 8), false},
      {"Linux's own", DLT_LINUX_SLL, cooked + number(0x0800, 2), false},
      {"Linux's own, with a tag", DLT_LINUX_SLL, cooked + number(0x8100000786dd, 6), true},
      {"Linux's own, second version", DLT_LINUX_SLL2, number(0x86dd, 2) + cooked2, true},
      {"raw", DLT_RAW, "", false},
      {"raw, IPv6", DLT_RAW, "", true},
      {"IPv4 alone", DLT_IPV4, "", false},
      {"IPv6 alone", DLT_IPV6, "", true},
      {"BSD's loopback", DLT_NULL, number(0x02000000, 4), false},
      {"OpenBSD's loopback", DLT_LOOP, number(24, 4), true},
      {"PPP", DLT_PPP, number(0xff030021, 4), false},
      {"PPP, short", DLT_PPP, number(0x0057, 2), true},
  };
  const std::string segment = tcp({7, "payload", TcpSegment::kAck, 40000, 443, ""});
  for (const Link& link : links) {
    EXPECT_TRUE(kelotlsctl::is_known_link(link.link)) << link.name;
    PacketReader reader(link.link);
    const std::string packet = link.head + (link.is_ipv6 ? ipv6(segment) : ipv4(segment));
    const std::string padded = packet + (link.is_ipv6 ? "" : "padding");
    const auto read = reader.read(padded, kWhen);
    ASSERT_TRUE(read) << link.name;
    EXPECT_EQ(read->payload, "payload") << link.name;
    EXPECT_EQ(read->destination_port, 443) << link.name;
    EXPECT_EQ(kelotlsctl::address_text_of(read->source),
              link.is_ipv6 ? "2001:db8::7" : "192.0.2.7");
    for (std::size_t size = 0; size + 7 < packet.size(); ++size) {
      EXPECT_FALSE(reader.read(packet.substr(0, size), kWhen)) << link.name << ", " << size;
    }
  }
  EXPECT_FALSE(kelotlsctl::is_known_link(DLT_IEEE802_11));
}

TEST(PacketReading, PassesOverOptionsAndHeaders) {
  TcpSegment segment;
  segment.payload = "payload";
  segment.options = std::string(12, '\1');
  PacketReader reader(DLT_RAW);
  Ipv4Header with_options;
  with_options.options = std::string(8, '\1');
  const std::string version_4 = ipv4(tcp(segment), with_options);
  const auto read_4 = reader.read(version_4, kWhen);
  ASSERT_TRUE(read_4);
  EXPECT_EQ(read_4->payload, "payload");

  const std::string authentication = number(6, 1) + number(4, 1) + std::string(22, '\0');
  const std::string headers = ipv6_option(43, 8) + ipv6_option(60, 24) + ipv6_option(51, 16);
  const std::string version_6 = ipv6(headers + authentication + tcp(segment), 0);
  const auto read_6 = reader.read(version_6, kWhen);
  ASSERT_TRUE(read_6);
  EXPECT_EQ(read_6->payload, "payload");
}

TEST(PacketReading, GivesNothingOfOtherProtocols) {
  PacketReader reader(DLT_RAW);
  Ipv4Header udp;
  udp.protocol = 17;
  EXPECT_FALSE(reader.read(ipv4(tcp({}), udp), kWhen));
  EXPECT_FALSE(reader.read(ipv6(tcp({}), 17), kWhen));
  EXPECT_FALSE(reader.read(ipv6(ipv6_option(58, 8) + tcp({}), 0), kWhen));
  EXPECT_FALSE(PacketReader(DLT_EN10MB).read(ethernet(ipv4(tcp({})), 0x0806), kWhen));
}

/// A segment in fragments of IPv4 or IPv6, of 16 bytes each. What follows, the first of them says.
std::vector<std::string> fragments_of(const std::string& segment, bool is_ipv6, unsigned number) {
  constexpr unsigned kSize = 16;
  std::vector<std::string> packets;
  for (unsigned at = 0; at < segment.size(); at += kSize) {
    const bool is_more = at + kSize < segment.size();
    const std::string part = segment.substr(at, kSize);
    Ipv4Header header;
    header.identification = number;
    header.offset = at;
    header.is_more = is_more;
    packets.push_back(is_ipv6
                          ? ipv6(ipv6_fragment(at == 0 ? 60 : 59, at, is_more, number) + part, 44)
                          : ipv4(part, header));
  }
  return packets;
}

TEST(PacketReading, PutsFragmentsTogetherInAnyOrder) {
  std::mt19937 random(1);
  const std::string payload(100, 'p');
  for (int round = 0; round < 200; ++round) {
    const bool is_ipv6 = round % 2 == 1;
    const std::string segment =
        (is_ipv6 ? ipv6_option(6, 8) : "") + tcp({7, payload, TcpSegment::kAck, 40000, 443, ""});
    std::vector<std::string> packets = fragments_of(segment, is_ipv6, 7);
    packets.push_back(packets[0]);
    std::shuffle(packets.begin(), packets.end(), random);
    PacketReader reader(DLT_RAW);
    int whole = 0;
    for (const std::string& packet : packets) {
      const auto read = reader.read(packet, kWhen);
      whole += read && read->payload == payload ? 1 : 0;
      EXPECT_TRUE(!read || read->payload == payload);
    }
    EXPECT_EQ(whole, 1);
  }
}

/// A fragment of IPv4 at this place.
std::string fragment_at(unsigned offset, const std::string& part, bool is_more) {
  Ipv4Header header;
  header.offset = offset;
  header.is_more = is_more;
  return ipv4(part, header);
}

TEST(PacketReading, PutsFragmentsTogetherUpToTheLargestDatagram) {
  const std::string payload(60000, 'p');
  const std::string segment = tcp({7, payload, TcpSegment::kAck, 40000, 443, ""});
  PacketReader reader(DLT_RAW);

  EXPECT_FALSE(reader.read(fragment_at(0, segment.substr(0, 32768), true), kWhen));
  const auto read = reader.read(fragment_at(32768, segment.substr(32768), false), kWhen);

  ASSERT_TRUE(read);
  EXPECT_EQ(read->payload, payload);
}

TEST(PacketReading, TakesTheFirstEndOfADatagramForItsEnd) {
  const std::string segment = tcp({7, "payload!", TcpSegment::kAck, 40000, 443, ""});
  PacketReader reader(DLT_RAW);

  EXPECT_FALSE(reader.read(fragment_at(16, segment.substr(16), false), kWhen));
  EXPECT_FALSE(reader.read(fragment_at(40, "more", false), kWhen));
  const auto read = reader.read(fragment_at(0, segment.substr(0, 16), true), kWhen);

  ASSERT_TRUE(read);
  EXPECT_EQ(read->payload, "payload!");
}

TEST(PacketReading, ForgetsFragmentsThatNothingCompletes) {
  PacketReader reader(DLT_RAW);
  const std::string segment = tcp({7, std::string(100, 'p'), TcpSegment::kAck, 40000, 443, ""});
  for (unsigned i = 0; i < 10000; ++i) {
    EXPECT_FALSE(reader.read(fragments_of(segment, false, i)[1], kWhen));
  }
  EXPECT_LE(reader.cost(), 64U * 1000);
  // A number that comes again a day later is another datagram.
  const auto packets = fragments_of(segment, false, 7);
  const auto others =
      fragments_of(tcp({7, std::string(100, 'q'), TcpSegment::kAck, 40000, 443, ""}), false, 7);
  EXPECT_FALSE(reader.read(packets[1], kWhen));
  bool is_read = false;
  for (const std::string& packet : others) {
    const auto read = reader.read(packet, kWhen + 86400);
    is_read = is_read || (read && read->payload == std::string(100, 'q'));
  }
  EXPECT_TRUE(is_read);
}

// Segments.

TEST(PiecesOfBytes, KeepTheBytesThatCameFirst) {
  Pieces pieces;
  EXPECT_TRUE(pieces.insert(4, "efgh"));
  EXPECT_TRUE(pieces.insert(10, "kl"));
  EXPECT_TRUE(pieces.insert(2, "XXXXXXXXXXXX"));
  EXPECT_EQ(pieces.beginning(), "");
  EXPECT_TRUE(pieces.insert(0, "ab"));
  EXPECT_EQ(pieces.beginning(), "abXXefghXXklXX");
  EXPECT_EQ(pieces.cost(), 14U);
}

TEST(PiecesOfBytes, RefuseWhatNobodySendsByChance) {
  Pieces pieces;
  std::size_t inserted = 0;
  while (inserted < 10000 && pieces.insert(2 * inserted + 1, "x")) {
    ++inserted;
  }
  EXPECT_EQ(inserted, 256U);
}

/// One segment of a stream: where it begins, and how long it is.
struct Cut {
  std::size_t at;
  std::size_t size;
};

/// The whole cut somewhere, then pieces of it that were there already, in any order.
std::vector<Cut> random_cuts(std::size_t size, std::mt19937& random) {
  const auto below = [&](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
  };
  std::vector<std::size_t> places = {0, size};
  for (std::size_t i = below(20); i > 0; --i) {
    places.push_back(below(size));
  }
  std::sort(places.begin(), places.end());
  std::vector<Cut> cuts;
  for (std::size_t i = 1; i < places.size(); ++i) {
    cuts.push_back({places[i - 1], places[i] - places[i - 1]});
  }
  for (std::size_t i = below(10); i > 0; --i) {
    const std::size_t at = below(size);
    cuts.push_back({at, 1 + below(size - at)});
  }
  std::shuffle(cuts.begin(), cuts.end(), random);
  return cuts;
}

TEST(FollowingStreams, AreNotEndedByWhatWasBeforeThem) {
  const std::string hello = record_of(300);
  Watching watching;
  watching.begin();
  watching.say(0, hello.substr(0, 20));
  watching.say({kStart - 5, "begin", TcpSegment::kAck | TcpSegment::kFin, 40000, 443, ""});
  watching.say(20, hello.substr(20));
  EXPECT_EQ(only_hello(watching), message_of(hello));
}

TEST(FollowingStreams, GivesTheSameHelloHoweverItIsCut) {
  constexpr int kRounds = 5000;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < kRounds; ++round) {
    const std::string message = message_of(record_of(200 + random() % 3000));
    const std::string said = in_records(message, 1 + random() % 4000) + "what follows";
    Watching watching;
    watching.begin();
    for (const Cut& cut : random_cuts(said.size(), random)) {
      watching.say(cut.at, said.substr(cut.at, cut.size));
    }
    watching.end();
    ASSERT_EQ(only_hello(watching), message) << "round " << round;
  }
}

TEST(FollowingStreams, KeepsOfOverlappingBytesTheFirst) {
  constexpr int kRounds = 2000;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string said = record_of(600);
  const std::string other(said.size(), 'X');
  for (int round = 0; round < kRounds; ++round) {
    Watching watching;
    watching.begin();
    std::vector<bool> is_there(said.size());
    for (const Cut& cut : random_cuts(said.size(), random)) {
      // What has come already is repeated with other bytes, which must not count.
      std::string payload = other.substr(cut.at, cut.size);
      for (std::size_t i = 0; i < cut.size; ++i) {
        payload[i] = is_there[cut.at + i] ? payload[i] : said[cut.at + i];
        is_there[cut.at + i] = true;
      }
      watching.say(cut.at, payload);
    }
    ASSERT_EQ(only_hello(watching), message_of(said)) << "round " << round;
  }
}

TEST(FollowingStreams, CountsEachConnectionOnce) {
  const std::string said = record_of(300);
  Watching watching;
  watching.begin();
  watching.begin();
  watching.say(0, said);
  watching.say(0, said);
  watching.begin();
  watching.say(0, said);
  watching.say(said.size(), "more", TcpSegment::kFin | TcpSegment::kAck);
  watching.end();
  EXPECT_EQ(watching.sightings.size(), 1U);

  watching.say({5, "", TcpSegment::kSyn, 40000, 443, ""});
  watching.say({6, said, TcpSegment::kAck, 40000, 443, ""});
  EXPECT_EQ(watching.sightings.size(), 2U) << "the port was used again";
}

TEST(FollowingStreams, TakesDataThatComesWithTheSyn) {
  const std::string said = record_of(300);
  Watching watching;
  watching.say({kStart - 1, said.substr(0, 100), TcpSegment::kSyn, 40000, 443, ""});
  watching.say(100, said.substr(100));
  EXPECT_EQ(only_hello(watching), message_of(said));
}

TEST(FollowingStreams, TellsWhatBrokeOff) {
  const std::string said = record_of(300);
  for (const unsigned flag : {TcpSegment::kFin | TcpSegment::kAck, TcpSegment::kReset}) {
    Watching watching;
    watching.begin();
    watching.say(0, said.substr(0, 100), flag);
    ASSERT_EQ(watching.sightings.size(), 1U);
    EXPECT_EQ(watching.sightings[0].what, Opening::kUnfinished);
  }
  Watching open;
  open.begin();
  open.say(0, said.substr(0, 100));
  EXPECT_TRUE(open.sightings.empty());
  open.end();
  EXPECT_EQ(open.sightings.size(), 1U);
}

TEST(FollowingStreams, WaitsForWhatCameBeforeTheEnd) {
  const std::string said = record_of(300);
  Watching watching;
  watching.begin();
  watching.say(100, said.substr(100), TcpSegment::kFin | TcpSegment::kAck);
  EXPECT_TRUE(watching.sightings.empty());
  watching.say(0, said.substr(0, 100));
  EXPECT_EQ(only_hello(watching), message_of(said));
}

TEST(FollowingStreams, CountsNobodyWhoSaysNothingOrWhoseBeginningWasNotSeen) {
  Watching watching;
  watching.begin();
  watching.say(0, "", TcpSegment::kFin | TcpSegment::kAck);
  watching.begin(40001);
  watching.say(0, "", TcpSegment::kReset, 40001);
  watching.begin(40002);
  watching.say(0, record_of(300), TcpSegment::kAck, 40003);
  watching.end();
  EXPECT_TRUE(watching.sightings.empty());
}

TEST(FollowingStreams, LeavesOtherPortsAddressesAndDirectionsAlone) {
  const std::string said = record_of(300);
  std::vector<Sighting> sightings;
  kelotlsctl::NetworkAddress here;
  here.version = 4;
  here.octets = {198, 51, 100, 1};
  Streams streams({WatchedService{443, {here}, ""}, WatchedService{444, {}, ""}},
                  [&](const Sighting& one) { sightings.push_back(one); });
  PacketReader reader(DLT_RAW);
  const auto see = [&](const TcpSegment& segment, const std::string& destination) {
    Ipv4Header header;
    header.destination = destination;
    streams.take(*reader.read(ipv4(tcp(segment), header), kWhen), kWhen);
  };
  const std::string at_here = "\xc6\x33\x64\x01";
  const std::string elsewhere = "\xc6\x33\x64\x02";
  for (const std::string& destination : {at_here, elsewhere}) {
    for (const std::uint16_t port : std::initializer_list<std::uint16_t>{443, 444, 445}) {
      see({6, "", TcpSegment::kSyn, 40000, port, ""}, destination);
      see({7, said, TcpSegment::kAck, 40000, port, ""}, destination);
    }
  }
  see({6, "", TcpSegment::kSyn | TcpSegment::kAck, 40001, 443, ""}, at_here);
  see({7, said, TcpSegment::kAck, 40001, 443, ""}, at_here);
  ASSERT_EQ(sightings.size(), 3U);
  EXPECT_EQ(sightings[0].service, 0U);
  EXPECT_EQ(sightings[1].service, 1U);
  EXPECT_EQ(sightings[2].service, 1U);
}

TEST(FollowingStreams, GivesUpTheOldestWhereThereAreTooMany) {
  Watching watching;
  const std::string said = record_of(300);
  for (std::size_t i = 0; i < Streams::kMostOpen + 10; ++i) {
    watching.begin(static_cast<std::uint16_t>(i + 1));
  }
  EXPECT_EQ(watching.sightings.size(), 10U);
  EXPECT_EQ(watching.streams().open_count(), Streams::kMostOpen);
  watching.say(0, said, TcpSegment::kAck, 1);
  EXPECT_EQ(watching.sightings.size(), 10U) << "it was given up";
  watching.say(0, said, TcpSegment::kAck, 100);
  EXPECT_EQ(watching.sightings.back().hello, message_of(said));
}

TEST(FollowingStreams, TakesLittleMemoryWhateverComes) {
  Watching watching;
  const std::string half =
      number(0x1603014000, 5) + number(0x01003ff0, 4) + std::string(15000, 'x');
  std::size_t most = 0;
  for (unsigned i = 0; i < 20000; ++i) {
    const auto port = static_cast<std::uint16_t>(i + 1);
    watching.begin(port);
    watching.say(0, half, TcpSegment::kAck, port);
    most = std::max(most, watching.streams().cost());
  }
  EXPECT_LE(most, Streams::kMostBytes + half.size());
  EXPECT_LE(watching.streams().known_count(), Streams::kMostKnown + 1);
}

TEST(FollowingStreams, EndsWithWhoSendsSingleBytesToBeReadAgainAndAgain) {
  Watching watching(DLT_EN10MB, "smtp");
  watching.begin();
  for (std::size_t i = 0; i < 2000; ++i) {
    watching.say(i, "\n");
  }
  ASSERT_EQ(watching.sightings.size(), 1U);
  EXPECT_EQ(watching.sightings[0].what, Opening::kUnfinished);
}

// What opens a connection.

TEST(ReadingOpenings, NeedsNoMoreThanTheHello) {
  const std::string record = record_of(500);
  for (std::size_t size = 0; size < record.size(); ++size) {
    const auto result = read_opening(record.substr(0, size), "");
    ASSERT_EQ(result.what, Opening::kUnfinished) << size;
    EXPECT_GT(result.needed, size);
    EXPECT_LE(result.needed, record.size());
  }
  EXPECT_EQ(read_opening(record + "anything", "").hello, message_of(record));
}

TEST(ReadingOpenings, LooksForTlsBehindSoMuchPlainAndNoMore) {
  const std::string element = "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";
  const std::string hello = record_of(300);
  const auto behind_spaces = [&](std::size_t count) {
    return read_opening(element + std::string(count, ' ') + hello, "xmpp").what;
  };
  EXPECT_EQ(behind_spaces(100), Opening::kHello);
  EXPECT_EQ(behind_spaces(std::size_t{1} << 16), Opening::kNotTls);
}

TEST(ReadingOpenings, TellsWhatIsNoTls) {
  std::string bad_length = record_of(300);
  bad_length[kRecordHeader + 40] = '\x7f';
  const std::string openings[] = {
      "GET / HTTP/1.1\r\n",
      "SSH-2.0-a\r\n",
      number(0x15030100020228, 7),     // an alert
      number(0x1602, 2),               // no version
      number(0x1603010000, 5),         // a record of nothing
      number(0x1603014001, 5),         // one that is too long
      octets("160301000402000000"),    // what a server says
      octets("16030100010115030100"),  // a hello, and then something else
      bad_length,
      std::string(1, '\0'),
  };
  for (const std::string& opening : openings) {
    EXPECT_EQ(read_opening(opening, "").what, Opening::kNotTls) << opening;
  }
}

TEST(ReadingOpenings, KnowsHellosInTheFormOfSsl2) {
  kelotlsctl::Hello hello;
  hello.version = kelotlsctl::kSsl2;
  EXPECT_EQ(read_opening(kelotlsctl::write_hello(hello), "").what, Opening::kSsl2Hello);
  EXPECT_EQ(read_opening(number(0x802e010301, 5), "").what, Opening::kSsl2Hello);
  EXPECT_EQ(read_opening(number(0x802e040301, 5), "").what, Opening::kNotTls);
  EXPECT_EQ(read_opening(number(0x802e01, 3), "").what, Opening::kUnfinished);
}

TEST(ReadingOpenings, GivesUpWhatIsTooLarge) {
  EXPECT_EQ(read_opening(octets("160301000401010000"), "").what, Opening::kTooLarge);
  EXPECT_EQ(read_opening(octets("16030100040100fffc"), "").what, Opening::kUnfinished);
  EXPECT_EQ(read_opening(octets("16030100040100fffd"), "").what, Opening::kTooLarge);
}

struct Dialogue {
  const char* protocol;
  std::string said;
};

const Dialogue kDialogues[] = {
    {"smtp", "EHLO a.example\r\nSTARTTLS\r\n"},
    {"smtp", "ehlo a\r\nNOOP\r\nstarttls \r\n"},
    {"imap", "a1 CAPABILITY\r\na2 StartTLS\r\n"},
    {"pop3", "CAPA\r\nSTLS\r\n"},
    {"ftp", "FEAT\r\nAUTH TLS\r\n"},
    {"ftp", "AUTH SSL\r\n"},
    {"sieve", "STARTTLS\r\n"},
    {"nntp", "CAPABILITIES\r\nSTARTTLS\r\n"},
    {"xmpp",
     "<?xml version='1.0'?><stream:stream to='a'>"
     "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"},
    {"xmpp", "<stream:stream to='a'><starttls xmlns='urn'></starttls>\n "},
    {"ldap", octets("301d02010177188016") + "1.3.6.1.4.1.1466.20037"},
    {"ldap", octets("300c020101600702010304008000") + octets("308400000020020102") +
                 number(0x771b8016, 4) + "1.3.6.1.4.1.1466.20037" + number(0x810101, 3)},
    {"postgres", number(0x0000000804d2162f, 8)},
    {"postgres", number(0x0000000804d21630, 8) + number(0x0000000804d2162f, 8)},
    {"mysql", number(0x20000001, 4) + number(0x008a0000, 4) + std::string(28, '\0')},
};

TEST(ReadingOpenings, FindsTheHelloBehindEveryPlainPart) {
  const std::string record = record_of(300);
  std::map<std::string, int> spoken;
  for (const Dialogue& dialogue : kDialogues) {
    const std::string said = dialogue.said + record;
    EXPECT_EQ(read_opening(said, dialogue.protocol).hello, message_of(record)) << dialogue.said;
    for (std::size_t size = 0; size < said.size(); ++size) {
      const auto result = read_opening(said.substr(0, size), dialogue.protocol);
      ASSERT_EQ(result.what, Opening::kUnfinished) << dialogue.said << ", " << size;
      ASSERT_GT(result.needed, size) << dialogue.said;
      ASSERT_LE(result.needed, said.size()) << dialogue.said;
    }
    EXPECT_EQ(read_opening(record, dialogue.protocol).hello, message_of(record))
        << "without a plain part";
    ++spoken[dialogue.protocol];
  }
  for (const std::string& protocol : kelotlsctl::starttls_protocols()) {
    EXPECT_GT(spoken[protocol], 0) << protocol;
  }
}

TEST(ReadingOpenings, TakesNoPlainPartOfAnotherProtocolForItsOwn) {
  const std::string record = record_of(300);
  const auto kind_of = [](const std::string& protocol) {
    return protocol == "sieve" || protocol == "nntp" ? "smtp" : protocol;
  };
  for (const Dialogue& dialogue : kDialogues) {
    for (const std::string& protocol : kelotlsctl::starttls_protocols()) {
      if (kind_of(protocol) != kind_of(dialogue.protocol)) {
        EXPECT_NE(read_opening(dialogue.said + record, protocol).what, Opening::kHello)
            << dialogue.said << protocol;
      }
    }
  }
}

TEST(ReadingOpenings, IsNotMisledByTheWordsAlone) {
  const std::string record = record_of(300);
  const Dialogue dialogues[] = {
      {"smtp", "MAIL FROM:<STARTTLS>\r\n"},
      {"imap", "a1 LOGIN STARTTLS x\r\n"},
      {"ldap", octets("301d02010163188016") + "1.3.6.1.4.1.1466.20037"},
      {"postgres", number(0x0000000800030000, 8)},
      {"mysql", number(0x20000001, 4) + number(0x00020000, 4) + std::string(28, '\0')},
  };
  for (const Dialogue& dialogue : dialogues) {
    EXPECT_NE(read_opening(dialogue.said + record, dialogue.protocol).what, Opening::kHello)
        << dialogue.said;
  }
  EXPECT_EQ(read_opening("STARTTLS\r\nMAIL FROM:<a>\r\n", "smtp").what, Opening::kNotTls);
}

TEST(ReadingOpenings, ReadsOfAPlainPartNoMoreThanAFewKibibytes) {
  std::string said;
  while (said.size() < kelotlsctl::kMostPlainBytes) {
    said += "NOOP\r\n";
  }
  for (const std::string& protocol : kelotlsctl::starttls_protocols()) {
    EXPECT_EQ(read_opening(said + "STARTTLS\r\n" + record_of(300), protocol).what, Opening::kNotTls)
        << protocol;
  }
}

// What the process that reads packets may say.

TEST(CaptureMessages, SayWhatWasMeant) {
  CaptureMessage message;
  message.kind = CaptureMessage::Kind::kHello;
  message.service = 1;
  message.first = message.last = kWhen;
  message.source.version = 4;
  message.source.octets = {192, 0, 2, 7};
  message.text = message_of(record_of(300));
  const auto read = kelotlsctl::decode_message(kelotlsctl::encode_message(message), 2);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->kind, message.kind);
  EXPECT_EQ(read->service, 1U);
  EXPECT_EQ(read->first, kWhen);
  EXPECT_TRUE(read->source == message.source);
  EXPECT_EQ(read->text, message.text);

  CaptureMessage unread;
  unread.kind = CaptureMessage::Kind::kUnread;
  unread.unread = {1, 2, 3, 4};
  const auto counts = kelotlsctl::decode_message(kelotlsctl::encode_message(unread), 1);
  ASSERT_TRUE(counts);
  EXPECT_EQ(counts->unread.ssl2, 2U);
  EXPECT_EQ(counts->unread.too_large, 4U);
}

TEST(CaptureMessages, AreRefusedWhereTheyCannotBe) {
  CaptureMessage good;
  good.kind = CaptureMessage::Kind::kHello;
  good.first = good.last = kWhen;
  good.source.version = 6;
  good.text = message_of(record_of(300));
  const std::string bytes = kelotlsctl::encode_message(good);
  ASSERT_TRUE(kelotlsctl::decode_message(bytes, 1));
  const auto is_taken = [](const CaptureMessage& message) {
    return kelotlsctl::decode_message(kelotlsctl::encode_message(message), 1).has_value();
  };
  CaptureMessage bad = good;
  bad.service = 1;
  EXPECT_FALSE(is_taken(bad)) << "a service that is not recorded";
  bad = good;
  bad.kind = static_cast<CaptureMessage::Kind>(6);
  EXPECT_FALSE(is_taken(bad)) << "an unknown kind";
  bad = good;
  bad.source.version = 5;
  EXPECT_FALSE(is_taken(bad)) << "no address";
  bad = good;
  bad.first = -1;
  EXPECT_FALSE(is_taken(bad)) << "no time";
  bad = good;
  bad.text = "GET / HTTP/1.1";
  EXPECT_FALSE(is_taken(bad)) << "no hello";
  bad = good;
  bad.kind = CaptureMessage::Kind::kUnread;
  EXPECT_FALSE(is_taken(bad)) << "text where none belongs";
  bad.text = "";
  bad.unread.not_tls = std::uint64_t{1} << 32;
  EXPECT_FALSE(is_taken(bad)) << "more than anybody counts";
  bad = good;
  bad.kind = CaptureMessage::Kind::kFault;
  bad.text = std::string(1001, 'x');
  EXPECT_FALSE(is_taken(bad)) << "a long fault";
  EXPECT_FALSE(kelotlsctl::decode_message(bytes.substr(0, 80), 1)) << "cut short";
  EXPECT_FALSE(kelotlsctl::decode_message(bytes + std::string(70000, 'x'), 1)) << "too long";
}

// Addresses.

TEST(KeptAddresses, AreAsShortAsAskedFor) {
  kelotlsctl::NetworkAddress ipv4_address;
  ipv4_address.version = 4;
  ipv4_address.octets = {192, 0, 2, 255};
  kelotlsctl::NetworkAddress ipv6_address;
  ipv6_address.version = 6;
  ipv6_address.octets = {0x20, 1, 0xd, 0xb8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  using kelotlsctl::kept_address;
  EXPECT_EQ(kept_address(ipv4_address, {}), "192.0.2.255");
  EXPECT_EQ(kept_address(ipv4_address, {true, 24, 64}), "192.0.2.0/24");
  EXPECT_EQ(kept_address(ipv4_address, {true, 28, 64}), "192.0.2.240/28");
  EXPECT_EQ(kept_address(ipv4_address, {true, 0, 64}), "0.0.0.0/0");
  EXPECT_EQ(kept_address(ipv6_address, {true, 24, 64}), "2001:db8:102:304::/64");
  EXPECT_EQ(kept_address(ipv6_address, {}), "2001:db8:102:304:506:708:90a:b0c");
  EXPECT_EQ(kept_address(ipv6_address, {false, 32, 128}), "");
}

}  // namespace
}  // namespace kelotls::test
