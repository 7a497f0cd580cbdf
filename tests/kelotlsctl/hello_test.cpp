// Hellos as OpenSSL reads them, and the one that OpenSSL no longer reads byte by byte.
#include "tls/hello.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include "levels/survey.h"
#include "peers/context_server.h"
#include "tls/openssl.h"

namespace kelotls::test {
namespace {

using kelotlsctl::Answer;
using kelotlsctl::BioOwner;
using kelotlsctl::Bytes;
using kelotlsctl::ContextOwner;
using kelotlsctl::Hello;
using kelotlsctl::kSsl2;
using kelotlsctl::kSsl3;
using kelotlsctl::kTls10;
using kelotlsctl::kTls11;
using kelotlsctl::kTls12;
using kelotlsctl::kTls13;
using kelotlsctl::Numbers;
using kelotlsctl::SslOwner;
using kelotlsctl::Verdict;
using kelotlsctl::write_hello;

constexpr std::uint16_t kP256 = 0x0017;
constexpr std::uint16_t kP384 = 0x0018;
constexpr std::uint16_t kX25519 = 0x001d;
constexpr std::uint16_t kX448 = 0x001e;
constexpr std::uint16_t kEcdheRsaAes128Gcm = 0xc02f;
constexpr std::uint16_t kRsaAes128 = 0x002f;
constexpr std::uint16_t kAes128Gcm = 0x1301;

/// What OpenSSL has read out of a hello.
struct Parsed {
  bool is_read = false;
  unsigned version = 0;
  Bytes random;
  Bytes session_id;
  Bytes suites;
  Bytes compressions;
  std::map<int, Bytes> extensions;
};

Bytes text_of(const unsigned char* data, std::size_t size) {
  return Bytes(reinterpret_cast<const char*>(data), size);
}

template <typename Get>
Bytes field(SSL* server, const Get& get) {
  const unsigned char* data = nullptr;
  const std::size_t size = get(server, &data);
  return text_of(data, size);
}

int note_hello(SSL* server, int*, void* argument) {
  auto& parsed = *static_cast<Parsed*>(argument);
  parsed.is_read = true;
  parsed.version = SSL_client_hello_get0_legacy_version(server);
  parsed.random = field(server, SSL_client_hello_get0_random);
  parsed.session_id = field(server, SSL_client_hello_get0_session_id);
  parsed.suites = field(server, SSL_client_hello_get0_ciphers);
  parsed.compressions = field(server, SSL_client_hello_get0_compression_methods);
  int* kinds = nullptr;
  std::size_t count = 0;
  EXPECT_EQ(SSL_client_hello_get1_extensions_present(server, &kinds, &count), 1);
  for (std::size_t index = 0; index < count; ++index) {
    const unsigned char* data = nullptr;
    std::size_t size = 0;
    EXPECT_EQ(SSL_client_hello_get0_ext(server, static_cast<unsigned>(kinds[index]), &data, &size),
              1);
    parsed.extensions[kinds[index]] = text_of(data, size);
  }
  OPENSSL_free(kinds);
  return SSL_CLIENT_HELLO_SUCCESS;
}

/// Takes every version and suite that this OpenSSL has.
ContextOwner make_server() {
  ContextOwner context(SSL_CTX_new(TLS_server_method()));
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), 0);
  SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0");
  return context;
}

Parsed parse(const Hello& hello) {
  Parsed parsed;
  const ContextOwner context = make_server();
  SSL_CTX_set_client_hello_cb(context.get(), note_hello, &parsed);
  kelotlsctl::ask_context(context.get(), hello);
  return parsed;
}

Answer ask(const Hello& hello) { return kelotlsctl::ask_context(make_server().get(), hello); }

Bytes list_of(const Numbers& numbers) {
  Bytes list;
  for (const std::uint16_t number : numbers) {
    list += static_cast<char>(number >> 8);
    list += static_cast<char>(number);
  }
  return list;
}

/// The bytes after their length in two.
Bytes counted(const Bytes& bytes) {
  return list_of({static_cast<std::uint16_t>(bytes.size())}) + bytes;
}

Bytes from_hex(const std::string& digits) {
  Bytes bytes;
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

Hello hello_of(std::uint16_t version, const Numbers& suites = {kEcdheRsaAes128Gcm, kRsaAes128}) {
  Hello hello;
  hello.version = version;
  hello.suites = suites;
  hello.groups = {kP256, kX25519};
  return hello;
}

TEST(WrittenHello, OffersItsVersionAndSuitesInTheirOrder) {
  for (const std::uint16_t version : {kTls10, kTls11, kTls12, kTls13}) {
    const Parsed parsed = parse(hello_of(version, {0x1301, 0xfefe, 0x0005}));

    ASSERT_TRUE(parsed.is_read) << version;
    EXPECT_EQ(parsed.version, std::min(version, kTls12));
    EXPECT_EQ(parsed.suites, list_of({0x1301, 0xfefe, 0x0005})) << version;
    EXPECT_EQ(parsed.compressions, Bytes(1, '\0')) << version;
    EXPECT_EQ(parsed.session_id, "") << version;
    EXPECT_EQ(parsed.random.size(), 32U) << version;
  }
}

TEST(WrittenHello, AsksForSecureRenegotiationByASuiteInSsl3) {
  const Parsed parsed = parse(hello_of(kSsl3, {0x000a, 0x0005}));

  ASSERT_TRUE(parsed.is_read);
  EXPECT_EQ(parsed.version, kSsl3);
  EXPECT_EQ(parsed.suites, list_of({0x000a, 0x0005, 0x00ff}));
}

TEST(WrittenHello, HasARandomValueOfItsOwn) {
  EXPECT_NE(parse(hello_of(kTls12)).random, parse(hello_of(kTls12)).random);
}

TEST(WrittenHello, SaysInItsRecordTheVersionThatEveryServerReads) {
  for (const std::uint16_t version : {kSsl3, kTls10, kTls11, kTls12, kTls13}) {
    const Bytes bytes = write_hello(hello_of(version));

    EXPECT_EQ(bytes.substr(0, 3), from_hex(version == kSsl3 ? "160300" : "160301"));
    EXPECT_EQ(bytes.substr(3, 2), list_of({static_cast<std::uint16_t>(bytes.size() - 5)}));
  }
}

TEST(WrittenHello, HasNoExtensionsInSsl3) {
  const Parsed parsed = parse(hello_of(kSsl3));

  EXPECT_TRUE(parsed.is_read);
  EXPECT_TRUE(parsed.extensions.empty());
}

TEST(WrittenHello, HasTheExtensionsOfItsVersionAndNoOthers) {
  const auto kinds_of = [](const Hello& hello) {
    std::string kinds;
    for (const auto& [kind, body] : parse(hello).extensions) {
      kinds += (kinds.empty() ? "" : " ") + std::to_string(kind);
    }
    return kinds;
  };
  EXPECT_EQ(kinds_of(hello_of(kTls10)), "10 11 65281");
  EXPECT_EQ(kinds_of(hello_of(kTls11)), "10 11 65281");
  EXPECT_EQ(kinds_of(hello_of(kTls12)), "10 11 13 65281");
  EXPECT_EQ(kinds_of(hello_of(kTls13)), "10 13 43 45 51");
  Hello all = hello_of(kTls12, {0xc01d});  // a suite that needs a user's name
  all.server_name = "a.example";
  all.alpn = {"h2"};
  all.session_ticket = true;
  all.extended_master_secret = true;
  EXPECT_EQ(kinds_of(all), "0 10 11 12 13 16 23 35 65281");
}

TEST(WrittenHello, IsAnsweredByOpenSslInEachVersionThatItServes) {
  for (const std::uint16_t version : {kTls10, kTls11, kTls12, kTls13}) {
    const std::uint16_t suite = version == kTls13 ? kAes128Gcm : kRsaAes128;

    const Answer answer = ask(hello_of(version, {suite}));

    EXPECT_EQ(answer.verdict, Verdict::kAccepted) << version << answer.reason;
    EXPECT_EQ(answer.version, version);
    EXPECT_EQ(answer.suite, suite);
  }
}

TEST(WrittenHello, NamesTheServer) {
  std::string name;
  const ContextOwner context = make_server();
  SSL_CTX_set_tlsext_servername_arg(context.get(), &name);
  SSL_CTX_set_tlsext_servername_callback(
      context.get(), +[](SSL* server, int*, void* argument) {
        const char* const asked = SSL_get_servername(server, TLSEXT_NAMETYPE_host_name);
        *static_cast<std::string*>(argument) = asked != nullptr ? asked : "none";
        return SSL_TLSEXT_ERR_OK;
      });
  Hello hello = hello_of(kTls12);
  hello.server_name = "mail.example.org";

  kelotlsctl::ask_context(context.get(), hello);
  EXPECT_EQ(name, "mail.example.org");
  kelotlsctl::ask_context(context.get(), hello_of(kTls12));
  EXPECT_EQ(name, "none");
}

TEST(WrittenHello, OffersApplicationProtocols) {
  Bytes offered;
  const ContextOwner context = make_server();
  SSL_CTX_set_alpn_select_cb(
      context.get(),
      +[](SSL*, const unsigned char**, unsigned char*, const unsigned char* protocols,
          unsigned length, void* argument) {
        *static_cast<Bytes*>(argument) = text_of(protocols, length);
        return SSL_TLSEXT_ERR_NOACK;
      },
      &offered);
  Hello hello = hello_of(kTls12);
  hello.alpn = {"h2", "http/1.1"};

  const Answer answer = kelotlsctl::ask_context(context.get(), hello);

  EXPECT_EQ(answer.verdict, Verdict::kAccepted);
  EXPECT_EQ(offered, std::string("\2h2\x08http/1.1"));
}

TEST(WrittenHello, OffersGroupsInTheirOrderAndPointsAsTheyAre) {
  for (const std::uint16_t version : {kTls10, kTls12, kTls13}) {
    Hello hello = hello_of(version);
    hello.groups = {kX448, 0x0100, 0x6399};

    const Parsed parsed = parse(hello);

    EXPECT_EQ(parsed.extensions.at(10), counted(list_of({kX448, 0x0100, 0x6399})));
  }
  EXPECT_EQ(parse(hello_of(kTls12)).extensions.at(11), Bytes("\1\0", 2));
  Hello without = hello_of(kTls12);
  without.groups.clear();
  EXPECT_EQ(parse(without).extensions.count(10), 0U);
  EXPECT_EQ(parse(without).extensions.count(11), 0U);
}

TEST(WrittenHello, HasOpenSslChooseAmongTheGroups) {
  for (const std::uint16_t group : {kP256, kP384, kX25519, kX448}) {
    Hello hello = hello_of(kTls12, {kEcdheRsaAes128Gcm});
    hello.groups = {group};

    EXPECT_EQ(ask(hello).group, group);
  }
}

TEST(WrittenHello, OffersSignatureAlgorithmsFromTls12On) {
  Hello hello = hello_of(kTls12);
  EXPECT_EQ(parse(hello).extensions.at(13),
            counted(list_of(kelotlsctl::all_signature_algorithms())));
  hello.signature_algorithms = {0x0403};
  EXPECT_EQ(parse(hello).extensions.at(13), counted(list_of({0x0403})));
  hello.suites = {0xc02b, kEcdheRsaAes128Gcm};
  EXPECT_EQ(ask(hello).suite, 0xc02b);  // ECDSA alone can be signed with
  hello.signature_algorithms = {0x0401};
  EXPECT_EQ(ask(hello).suite, kEcdheRsaAes128Gcm);
}

TEST(WrittenHello, SharesKeysThatOpenSslTakes) {
  for (const std::uint16_t group : {kP256, kX25519, kX448}) {
    Hello hello = hello_of(kTls13, {kAes128Gcm});
    hello.groups = {group};
    hello.key_shares = {group};

    const Answer with = ask(hello);
    hello.key_shares.clear();
    const Answer without = ask(hello);

    EXPECT_EQ(with.verdict, Verdict::kAccepted) << group << with.reason;
    EXPECT_FALSE(with.wants_key_share);
    EXPECT_EQ(with.group, group);
    EXPECT_EQ(without.verdict, Verdict::kAccepted) << group << without.reason;
    EXPECT_TRUE(without.wants_key_share);
    EXPECT_EQ(without.group, group);
  }
}

TEST(WrittenHello, LeavesOutTheSharesOfGroupsThatItHasNoPointOf) {
  Hello hello = hello_of(kTls13, {kAes128Gcm});
  hello.groups = {kP384, kX25519};
  hello.key_shares = {kP384, kX25519};

  const Bytes shares = parse(hello).extensions.at(51);

  EXPECT_EQ(shares, counted(list_of({kX25519}) + counted('\x09' + Bytes(31, '\0'))));
}

TEST(WrittenHello, OffersTls13AloneWithForwardSecrecy) {
  const Parsed parsed = parse(hello_of(kTls13));

  EXPECT_EQ(parsed.extensions.at(43), from_hex("020304"));
  EXPECT_EQ(parsed.extensions.at(45), from_hex("0101"));
}

TEST(WrittenHello, OffersWhatItIsToldAndNothingElse) {
  Hello hello = hello_of(kTls12);
  const Answer plain = ask(hello);
  hello.session_ticket = true;
  hello.extended_master_secret = true;
  hello.compression = true;
  const Answer full = ask(hello);

  EXPECT_FALSE(plain.session_ticket);
  EXPECT_FALSE(plain.extended_master_secret);
  EXPECT_TRUE(plain.secure_renegotiation);
  EXPECT_TRUE(full.session_ticket);
  EXPECT_TRUE(full.extended_master_secret);
  EXPECT_EQ(parse(hello).compressions, Bytes("\1\0", 2));
  EXPECT_EQ(parse(hello).extensions.at(35), "");
  EXPECT_EQ(parse(hello).extensions.at(23), "");
}

TEST(WrittenHello, NamesAUserOnlyToSuitesThatNeedOne) {
  EXPECT_EQ(parse(hello_of(kTls12, {0xc01a})).extensions.at(12), "\4user");
  EXPECT_EQ(parse(hello_of(kTls12, {0xc022})).extensions.count(12), 1U);
  EXPECT_EQ(parse(hello_of(kTls12, {0xc019, 0xc023})).extensions.count(12), 0U);
}

TEST(WrittenHello, HasRoomForAllThatThereIs) {
  for (const std::uint16_t version : {kTls12, kTls13}) {
    Hello hello = hello_of(version, kelotlsctl::suites_of_version(version));
    hello.groups = kelotlsctl::groups_of_version(version);
    hello.key_shares = hello.groups;
    hello.server_name = std::string(255, 'a');

    EXPECT_EQ(parse(hello).suites, list_of(hello.suites));
    EXPECT_EQ(ask(hello).verdict, Verdict::kAccepted);
  }
}

TEST(WrittenHello, IsInItsOwnFormInSsl2) {
  const Bytes bytes = write_hello(hello_of(kSsl2));

  // Length; CLIENT-HELLO of version 2; 21 bytes of cipher kinds, no session, 16 of challenge.
  EXPECT_EQ(bytes.substr(0, 11), from_hex("802e01000200150000"
                                          "0010"));
  EXPECT_EQ(bytes.substr(11, 21), from_hex("010080"
                                           "020080"
                                           "030080"
                                           "040080"
                                           "050080"
                                           "060040"
                                           "0700c0"));
  EXPECT_EQ(bytes.size(), 2U + 0x2e);
  EXPECT_NE(bytes.substr(32), write_hello(hello_of(kSsl2)).substr(32));
}

}  // namespace
}  // namespace kelotls::test
