// Hellos of clients: what is read out of one, and which of them are taken for the same client's.
#include <gtest/gtest.h>

#include "clients/client_hello.h"
#include "tls/hello.h"

namespace kelotls::test {
namespace {

using kelotlsctl::Bytes;
using kelotlsctl::ClientHello;
using kelotlsctl::comparison_key;
using kelotlsctl::Hello;
using kelotlsctl::is_grease;
using kelotlsctl::Numbers;
using kelotlsctl::read_client_hello;

constexpr std::size_t kRecordHeader = 5;

Bytes number(std::size_t value, int length) {
  Bytes bytes;
  for (int shift = 8 * (length - 1); shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
  return bytes;
}

Bytes vector_of(const Bytes& bytes, int length) { return number(bytes.size(), length) + bytes; }

Bytes extension(std::uint16_t kind, const Bytes& body) {
  return number(kind, 2) + vector_of(body, 2);
}

/// The parts of a hello that tests vary.
struct Parts {
  char random = 'r';
  Bytes session_id;
  Bytes suites = number(0x1301, 2) + number(0xc02f, 2);
  Bytes compressions = Bytes(1, '\0');
  std::vector<Bytes> extensions;
};

Bytes message_of(const Parts& parts) {
  Bytes list;
  for (const Bytes& one : parts.extensions) {
    list += one;
  }
  const Bytes body = number(0x0303, 2) + Bytes(32, parts.random) + vector_of(parts.session_id, 1) +
                     vector_of(parts.suites, 2) + vector_of(parts.compressions, 1) +
                     vector_of(list, 2);
  return Bytes(1, '\1') + vector_of(body, 3);
}

Bytes with(const std::vector<Bytes>& extensions) {
  Parts parts;
  parts.extensions = extensions;
  return message_of(parts);
}

Bytes server_name(const std::string& name) {
  return extension(0, vector_of(Bytes(1, '\0') + vector_of(name, 2), 2));
}

Bytes groups(const Numbers& numbers) {
  Bytes list;
  for (const std::uint16_t one : numbers) {
    list += number(one, 2);
  }
  return extension(10, vector_of(list, 2));
}

Bytes key_share(std::uint16_t group, const Bytes& key) {
  return extension(51, vector_of(number(group, 2) + vector_of(key, 2), 2));
}

TEST(ClientHelloReading, GivesWhatWasWritten) {
  Hello hello;
  hello.version = kelotlsctl::kTls13;
  hello.suites = {0x1301, 0x1302};
  hello.groups = {0x001d, 0x0017};
  hello.key_shares = {0x001d};
  hello.server_name = "a.example";
  hello.alpn = {"h2", "http/1.1"};

  const auto read = read_client_hello(kelotlsctl::write_hello(hello).substr(kRecordHeader));

  ASSERT_TRUE(read);
  EXPECT_EQ(read->version, kelotlsctl::kTls12);
  EXPECT_EQ(read->suites, hello.suites);
  EXPECT_EQ(read->versions, Numbers{kelotlsctl::kTls13});
  EXPECT_EQ(read->groups, hello.groups);
  EXPECT_EQ(read->signature_algorithms, hello.signature_algorithms);
  EXPECT_EQ(read->alpn, hello.alpn);
  EXPECT_EQ(read->server_name, "a.example");
  ASSERT_EQ(read->key_shares.size(), 1U);
  EXPECT_EQ(read->key_shares[0].group, 0x001d);
  EXPECT_EQ(read->key_shares[0].key.size(), 32U);
  EXPECT_EQ(read->compressions, Bytes(1, '\0'));
  EXPECT_TRUE(read->has_extensions);
}

TEST(ClientHelloReading, TakesHellosFromBeforeExtensions) {
  Hello hello;
  hello.version = kelotlsctl::kSsl3;
  hello.suites = {0x000a};
  const auto read = read_client_hello(kelotlsctl::write_hello(hello).substr(kRecordHeader));
  ASSERT_TRUE(read);
  EXPECT_FALSE(read->has_extensions);
  EXPECT_EQ(read->suites, (Numbers{0x000a, 0x00ff}));
}

TEST(ClientHelloReading, RefusesEveryCutAndEveryByteTooMany) {
  const Bytes whole = with({server_name("a.example"), groups({0x001d})});
  ASSERT_TRUE(read_client_hello(whole));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(read_client_hello(whole.substr(0, size))) << size;
  }
  EXPECT_FALSE(read_client_hello(whole + "x"));
}

TEST(ClientHelloReading, RefusesWhatIsNoHello) {
  Bytes other = with({});
  other[0] = 2;
  EXPECT_FALSE(read_client_hello(other));

  Parts parts;
  parts.suites = "";
  EXPECT_FALSE(read_client_hello(message_of(parts))) << "no suites";
  parts.suites = "odd";
  EXPECT_FALSE(read_client_hello(message_of(parts))) << "half a suite";
  parts.suites = number(0x1301, 2);
  parts.compressions = "";
  EXPECT_FALSE(read_client_hello(message_of(parts))) << "no compression";
  parts.compressions = Bytes(1, '\0');
  parts.session_id = Bytes(33, 's');
  EXPECT_FALSE(read_client_hello(message_of(parts))) << "a session id that is too long";
  parts.session_id = "";
  parts.extensions = {number(0, 2)};
  EXPECT_FALSE(read_client_hello(message_of(parts))) << "half an extension";
}

TEST(ClientHelloReading, GivesNothingOfAnExtensionWithoutSense) {
  const auto read = read_client_hello(with({extension(10, "x"), extension(51, "yyy")}));
  ASSERT_TRUE(read);
  EXPECT_TRUE(read->groups.empty());
  EXPECT_TRUE(read->key_shares.empty());
}

TEST(ClientHelloReading, KnowsTheSixteenNumbersOfGrease) {
  int known = 0;
  for (unsigned value = 0; value <= 0xffff; ++value) {
    known += is_grease(static_cast<std::uint16_t>(value)) ? 1 : 0;
  }
  EXPECT_EQ(known, 16);
  EXPECT_TRUE(is_grease(0x0a0a));
  EXPECT_TRUE(is_grease(0xfafa));
  EXPECT_FALSE(is_grease(0x0a1a));
}

/// Two hellos of one client, and what differs in them.
struct Pair {
  const char* what;
  Bytes one;
  Bytes other;
};

Parts varied(char random, const Bytes& session_id, std::uint16_t grease) {
  Parts parts;
  parts.random = random;
  parts.session_id = session_id;
  parts.suites = number(grease, 2) + number(0x1301, 2);
  return parts;
}

TEST(ComparisonKey, IsTheSameForOneClient) {
  const Pair pairs[] = {
      {"random and session id", message_of(varied('a', "", 0x0a0a)),
       message_of(varied('b', Bytes(32, 's'), 0x0a0a))},
      {"a suite of GREASE", message_of(varied('a', "", 0x0a0a)),
       message_of(varied('a', "", 0x3a3a))},
      {"an extension of GREASE", with({extension(0x1a1a, "")}), with({extension(0xfafa, "\1")})},
      {"a group of GREASE", with({groups({0x2a2a, 0x001d})}), with({groups({0x6a6a, 0x001d})})},
      {"a version of GREASE", with({extension(43, vector_of(number(0x2a2a, 2), 1))}),
       with({extension(43, vector_of(number(0x0a0a, 2), 1))})},
      {"a key", with({key_share(0x001d, Bytes(32, 'a'))}),
       with({key_share(0x001d, Bytes(32, 'b'))})},
      {"the name", with({server_name("a.example")}), with({server_name("b.example.org")})},
      {"a ticket", with({extension(35, "")}), with({extension(35, "ticket")})},
      {"a pre-shared key", with({extension(41, "one")}), with({extension(41, "another")})},
      {"padding", with({extension(21, Bytes(9, '\0'))}), with({})},
      {"what is encrypted", with({extension(0xfe0d, "one")}), with({extension(0xfe0d, "other")})},
      {"the order of extensions", with({groups({0x001d}), server_name("a")}),
       with({server_name("a"), groups({0x001d})})},
  };
  for (const Pair& pair : pairs) {
    EXPECT_NE(comparison_key(pair.one), "") << pair.what;
    EXPECT_EQ(comparison_key(pair.one), comparison_key(pair.other)) << pair.what;
  }
}

TEST(ComparisonKey, DiffersWhereOffersDo) {
  Parts more;
  more.suites += number(0xc030, 2);
  Parts compressing;
  compressing.compressions = Bytes("\1\0", 2);
  const Pair pairs[] = {
      {"suites", message_of(more), with({})},
      {"compressions", message_of(compressing), with({})},
      {"a name or none", with({server_name("a")}), with({})},
      {"a ticket or none", with({extension(35, "")}), with({})},
      {"the order of groups", with({groups({0x001d, 0x0017})}), with({groups({0x0017, 0x001d})})},
      {"the group of a key", with({key_share(0x001d, "k")}), with({key_share(0x0017, "k")})},
      {"the length of a key", with({key_share(0x001d, "k")}), with({key_share(0x001d, "kk")})},
      {"GREASE or none", with({extension(0x1a1a, "")}), with({})},
      {"an extension that we do not know", with({extension(0x7777, "a")}),
       with({extension(0x7777, "b")})},
  };
  for (const Pair& pair : pairs) {
    EXPECT_NE(comparison_key(pair.one), comparison_key(pair.other)) << pair.what;
  }
}

TEST(ComparisonKey, IsEmptyForWhatIsNoHello) {
  EXPECT_EQ(comparison_key(""), "");
  EXPECT_EQ(comparison_key("GET / HTTP/1.1\r\n\r\n"), "");
}

}  // namespace
}  // namespace kelotls::test
