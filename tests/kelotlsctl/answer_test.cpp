// What a server's first flight is read as: flights of OpenSSL, and crafted ones.
#include "tls/answer.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "levels/survey.h"
#include "loopback_server.h"
#include "tls/openssl.h"

namespace kelotls::test {
namespace {

using kelotlsctl::Answer;
using kelotlsctl::AnswerReader;
using kelotlsctl::Bytes;
using kelotlsctl::Hello;
using kelotlsctl::kClosed;
using kelotlsctl::kSsl2;
using kelotlsctl::kSsl3;
using kelotlsctl::kTls10;
using kelotlsctl::kTls12;
using kelotlsctl::kTls13;
using kelotlsctl::Verdict;

constexpr char kSilence[] = "silence";
constexpr char kMalformed[] = "the server's answer is malformed";
constexpr char kNoTls[] = "what answers does not speak TLS";

// Kinds of record.
constexpr int kChangeCipherSpec = 20;
constexpr int kAlert = 21;
constexpr int kHandshake = 22;

// Kinds of handshake message.
constexpr int kServerHello = 2;
constexpr int kCertificate = 11;
constexpr int kServerKeyExchange = 12;
constexpr int kCertificateRequest = 13;
constexpr int kServerHelloDone = 14;

constexpr std::uint16_t kEcdheRsa = 0xc02f;
constexpr std::uint16_t kDheRsa = 0x009e;
constexpr std::uint16_t kRsa = 0x002f;

// Flights

Bytes number(std::size_t value, int length) {
  Bytes bytes;
  for (int shift = 8 * (length - 1); shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
  return bytes;
}

/// The bytes after their length, which takes this many bytes itself.
Bytes counted(const Bytes& bytes, int length) { return number(bytes.size(), length) + bytes; }

Bytes record(int kind, const Bytes& body, std::size_t version = kTls12) {
  return number(static_cast<std::size_t>(kind), 1) + number(version, 2) + counted(body, 2);
}

Bytes message(int kind, const Bytes& body) {
  return number(static_cast<std::size_t>(kind), 1) + counted(body, 3);
}

Bytes extension(std::size_t kind, const Bytes& body) { return number(kind, 2) + counted(body, 2); }

const Bytes kRandom(32, 'r');

Bytes server_hello(std::size_t version, std::size_t suite, const Bytes& extensions = {},
                   const Bytes& random = kRandom) {
  return message(kServerHello, number(version, 2) + random + counted("", 1) + number(suite, 2) +
                                   number(0, 1) + counted(extensions, 2));
}

Bytes certificate(const std::vector<Bytes>& chain) {
  Bytes list;
  for (const Bytes& one : chain) {
    list += counted(one, 3);
  }
  return message(kCertificate, counted(list, 3));
}

Bytes done() { return message(kServerHelloDone, ""); }

Bytes alert(int level, int description) {
  return record(kAlert, number(static_cast<std::size_t>(level), 1) +
                            number(static_cast<std::size_t>(description), 1));
}

Bytes dh_key_exchange(const Bytes& prime) {
  return message(kServerKeyExchange,
                 counted(prime, 2) + counted("\2", 2) + counted("y", 2) + "signature");
}

/// A flight of TLS 1.2 with this key exchange.
Bytes flight(std::size_t suite, const Bytes& key_exchange) {
  return record(kHandshake,
                server_hello(kTls12, suite) + certificate({"certificate"}) + key_exchange + done());
}

// Reading

Hello hello_of(std::uint16_t version) {
  Hello hello;
  hello.version = version;
  hello.suites = kelotlsctl::suites_of_version(version);
  hello.groups = kelotlsctl::groups_of_version(version);
  return hello;
}

Answer read(const Bytes& bytes, std::uint16_t version = kTls12, const std::string& end = kSilence) {
  AnswerReader reader(hello_of(version));
  reader.take(bytes);
  return reader.finish(end);
}

auto members(const Answer& answer) {
  return std::make_tuple(answer.verdict, answer.reason, answer.version, answer.suite, answer.group,
                         answer.dh_bits, answer.is_alert, answer.is_about_version,
                         answer.wants_key_share, answer.has_session_id, answer.compression,
                         answer.session_ticket, answer.secure_renegotiation,
                         answer.extended_master_secret, answer.certificates);
}

void expect_not_known(const Answer& answer, const std::string& reason) {
  EXPECT_EQ(answer.verdict, Verdict::kNotKnown);
  EXPECT_EQ(answer.reason, reason);
}

/// The flight in two pieces, cut wherever it can be, and in single bytes.
void expect_the_same_however_it_is_cut(const Bytes& bytes, std::uint16_t version) {
  const Answer whole = read(bytes, version);
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    AnswerReader reader(hello_of(version));
    reader.take(bytes.substr(0, cut));
    reader.take(bytes.substr(cut));
    ASSERT_EQ(members(reader.finish(kSilence)), members(whole)) << cut;
  }
  AnswerReader reader(hello_of(version));
  for (const char byte : bytes) {
    reader.take(Bytes(1, byte));
  }
  EXPECT_EQ(members(reader.finish(kSilence)), members(whole));
}

/// What OpenSSL answers to the hello, byte by byte.
Bytes openssl_flight(const Hello& hello) {
  const kelotlsctl::ContextOwner context(SSL_CTX_new(TLS_server_method()));
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), 0);
  SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0");
  SSL_CTX_set_dh_auto(context.get(), 1);
  use_certificate(context.get(), "rsa");
  const kelotlsctl::SslOwner server(SSL_new(context.get()));
  BIO* const incoming = BIO_new(BIO_s_mem());
  BIO* const outgoing = BIO_new(BIO_s_mem());
  SSL_set_bio(server.get(), incoming, outgoing);
  const Bytes bytes = write_hello(hello);
  BIO_write(incoming, bytes.data(), static_cast<int>(bytes.size()));
  SSL_accept(server.get());
  return kelotlsctl::text_of(outgoing);
}

// Flights of OpenSSL

TEST(ReadAnswer, IsTheSameWhereverAFlightOfOpenSslIsCut) {
  for (const std::uint16_t version : {kTls10, kTls12, kTls13}) {
    Hello hello = hello_of(version);
    expect_the_same_however_it_is_cut(openssl_flight(hello), version);
    hello.suites = {0x1234};
    expect_the_same_however_it_is_cut(openssl_flight(hello), version);
  }
}

TEST(ReadAnswer, HoldsAllThatOpenSslSays) {
  Hello hello = hello_of(kTls12);
  hello.suites = {kDheRsa};

  const Answer answer = read(openssl_flight(hello));

  EXPECT_EQ(answer.verdict, Verdict::kAccepted);
  EXPECT_EQ(answer.reason, "");
  EXPECT_EQ(answer.version, kTls12);
  EXPECT_EQ(answer.suite, kDheRsa);
  EXPECT_EQ(answer.group, 0);
  EXPECT_EQ(answer.dh_bits, 2048);
  EXPECT_EQ(answer.certificates.size(), 1U);
  EXPECT_TRUE(answer.secure_renegotiation);
  EXPECT_FALSE(answer.is_alert);
  hello.suites = {kEcdheRsa};
  hello.groups = {0x0018};
  EXPECT_EQ(read(openssl_flight(hello)).group, 0x0018);
}

// Alerts

TEST(ReadAnswer, IsARefusalOnlyByAnAlertThatSaysSo) {
  for (int description = 0; description < 256; ++description) {
    const Answer answer = read(alert(2, description));

    const bool is_refusal = description == 40 || description == 70 || description == 71;
    EXPECT_EQ(answer.verdict, is_refusal ? Verdict::kRefused : Verdict::kNotKnown) << description;
    EXPECT_EQ(answer.is_alert, description != 0) << description;
    EXPECT_EQ(answer.is_about_version, description == 70) << description;
    EXPECT_NE(answer.reason, kSilence);
  }
  EXPECT_EQ(read(alert(2, 40)).reason, "the server's alert: handshake failure");
  EXPECT_EQ(read(alert(2, 80)).reason, "the server's alert: internal error");
  EXPECT_EQ(read(alert(1, 0)).reason, kClosed);
}

TEST(ReadAnswer, GoesOnBehindAWarning) {
  const Bytes warning = alert(1, 112);  // the name is not known

  const Answer answer = read(warning + flight(kRsa, ""));

  EXPECT_EQ(answer.verdict, Verdict::kAccepted);
  EXPECT_FALSE(answer.is_alert);
  expect_not_known(read(warning), kSilence);
  EXPECT_FALSE(read(warning).is_alert);
  EXPECT_FALSE(read(alert(1, 70)).is_about_version);
}

TEST(ReadAnswer, FindsAnAlertBehindAWarningInTheSameRecord) {
  const Answer answer = read(record(kAlert, "\1\x70\2\x28"));

  EXPECT_EQ(answer.verdict, Verdict::kRefused);
  EXPECT_EQ(answer.reason, "the server's alert: handshake failure");
}

TEST(ReadAnswer, KeepsWhatWasChosenBeforeAnAlert) {
  const Answer answer = read(record(kHandshake, server_hello(kTls12, kEcdheRsa)) + alert(2, 40));

  EXPECT_EQ(answer.verdict, Verdict::kRefused);
  EXPECT_EQ(answer.suite, kEcdheRsa);
  EXPECT_EQ(answer.version, kTls12);
}

// What ends without an answer

TEST(ReadAnswer, IsNotKnownUntilItIsWhole) {
  const Bytes whole = flight(kRsa, "");
  for (std::size_t size = 0; size < whole.size(); ++size) {
    expect_not_known(read(whole.substr(0, size)), kSilence);
    expect_not_known(read(whole.substr(0, size), kTls12, kClosed), kClosed);
  }
  EXPECT_EQ(read(whole).verdict, Verdict::kAccepted);
}

TEST(ReadAnswer, TellsWhenItIsComplete) {
  AnswerReader reader(hello_of(kTls12));
  const Bytes whole = flight(kRsa, "");

  EXPECT_FALSE(reader.take(whole.substr(0, whole.size() - 1)));
  EXPECT_TRUE(reader.take(whole.substr(whole.size() - 1)));
  EXPECT_TRUE(reader.take(alert(2, 40)));  // takes no more
  EXPECT_EQ(reader.finish(kSilence).verdict, Verdict::kAccepted);
}

TEST(ReadAnswer, IsNotKnownOfWhatDoesNotSpeakTls) {
  for (const Bytes& bytes :
       {Bytes("220 mail.example ESMTP\r\n"), Bytes("HTTP/1.1 400 Bad Request\r\n"),
        Bytes("\x16\x02\0\0\1", 5), Bytes("\x13\x03\3\0\1", 5), Bytes("\x18\x03\3\0\1", 5),
        Bytes("\0\0\0\0\0", 5)}) {
    expect_not_known(read(bytes), kNoTls);
  }
  expect_not_known(read("220 "), kSilence);  // too short to tell
}

TEST(ReadAnswer, IsNotKnownOfAFlightThatIsTooLong) {
  constexpr std::size_t kLongest = std::size_t{256} * 1024;
  const Bytes hello = record(kHandshake, server_hello(kTls12, kRsa) + "\x0b\xff\xff\xff");
  Bytes flood = hello;
  while (flood.size() < kLongest - 16389) {
    flood += record(kHandshake, Bytes(16384, 'x'));
  }
  flood += record(kHandshake, Bytes(kLongest - flood.size() - 5, 'x'));

  AnswerReader reader(hello_of(kTls12));
  EXPECT_FALSE(reader.take(flood));
  EXPECT_TRUE(reader.take("x"));
  expect_not_known(reader.finish(kSilence), "the server's answer is too long");
}

TEST(ReadAnswer, IsNotKnownWhereALengthDoesNotFit) {
  const Bytes random = kRandom;
  const Bytes start = number(kTls12, 2) + random;
  const std::vector<Bytes> hellos = {
      "",
      number(kTls12, 2),
      start,
      start + "\x20",                                    // a session longer than the message
      start + Bytes("\0\0", 2),                          // half a suite
      start + Bytes("\0\0\x2f", 3),                      // no compression
      start + Bytes("\0\0\x2f\0\0", 5),                  // half a length of extensions
      start + Bytes("\0\0\x2f\0\0\4\0\0", 8),            // fewer extensions than that
      start + Bytes("\0\0\x2f\0\0\4\0\x17\0\1", 10),     // an extension longer than all
      start + Bytes("\0\0\x2f\0\0\5\0\x2b\0\1\3", 11),   // half a version
      start + Bytes("\0\0\x2f\0\0\5\0\x33\0\1\0", 11)};  // half a group
  for (const Bytes& body : hellos) {
    expect_not_known(read(record(kHandshake, message(kServerHello, body))), kMalformed);
  }
  const Bytes hello = server_hello(kTls12, kDheRsa);
  for (const Bytes& body :
       {Bytes(), Bytes("\0\0", 2), Bytes("\0\0\1", 3), Bytes("\0\0\3\0\0\1", 6)}) {
    expect_not_known(read(record(kHandshake, hello + message(kCertificate, body))), kMalformed);
  }
  for (const Bytes& body : {Bytes(), Bytes("\1"), Bytes("\1\0p", 3)}) {
    expect_not_known(read(record(kHandshake, hello + message(kServerKeyExchange, body))),
                     kMalformed);
  }
  for (const Bytes& body : {Bytes(), Bytes("\3"), Bytes("\3\0", 2), Bytes("\4\0\x17", 3)}) {
    expect_not_known(read(record(kHandshake, server_hello(kTls12, kEcdheRsa) +
                                                 message(kServerKeyExchange, body))),
                     kMalformed);
  }
  expect_not_known(read(record(kAlert, "\2")), kMalformed);
}

TEST(ReadAnswer, IsNotKnownWithoutAServerHelloFirst) {
  expect_not_known(read(record(kHandshake, certificate({"c"}))), kMalformed);
  expect_not_known(read(record(kHandshake, done())), kMalformed);
}

// Hellos

TEST(ReadAnswer, IsARefusalOfTheVersionWhereAnotherWasChosen) {
  for (const std::uint16_t asked : {kTls12, kTls13}) {
    const Answer answer = read(record(kHandshake, server_hello(0x0302, kRsa)), asked);

    EXPECT_EQ(answer.verdict, Verdict::kRefused);
    EXPECT_EQ(answer.reason, "the server chose another version");
    EXPECT_EQ(answer.version, 0x0302);
  }
}

TEST(ReadAnswer, IsNotKnownWhereAVersionWasChosenThatIsNewerThanTheOffered) {
  for (const std::uint16_t asked : {kSsl3, kTls10}) {
    const Answer answer = read(record(kHandshake, server_hello(0x0302, kRsa)), asked);

    expect_not_known(answer, "the server chose a version that was not offered");
  }
}

TEST(ReadAnswer, IsNotKnownWhereASuiteWasChosenThatWasNotOffered) {
  const Answer answer = read(flight(0x1301, ""));

  expect_not_known(answer, "the server chose TLS_AES_128_GCM_SHA256, which was not offered");
  EXPECT_EQ(answer.suite, 0x1301);
}

TEST(ReadAnswer, TellsTheExtensionsOfAServer) {
  const auto with = [](const Bytes& extensions) {
    return read(record(kHandshake, server_hello(kTls12, kRsa, extensions) + done()));
  };
  EXPECT_FALSE(with("").session_ticket || with("").extended_master_secret ||
               with("").secure_renegotiation);
  EXPECT_TRUE(with(extension(0x0017, "")).extended_master_secret);
  EXPECT_TRUE(with(extension(0x0023, "")).session_ticket);
  EXPECT_TRUE(with(extension(0xff01, Bytes(1, '\0'))).secure_renegotiation);
  EXPECT_EQ(with(extension(0x4a4a, "?") + extension(0x0023, "")).verdict, Verdict::kAccepted);
}

TEST(ReadAnswer, TellsSessionsAndCompression) {
  const Bytes start = number(kTls12, 2) + kRandom;
  const Bytes end = done();
  // Neither has extensions.
  const Answer with = read(record(
      kHandshake, message(kServerHello, start + counted("id", 1) + number(kRsa, 2) + "\1") + end));
  const Answer without = read(record(
      kHandshake,
      message(kServerHello, start + counted("", 1) + number(kRsa, 2) + Bytes(1, '\0')) + end));

  EXPECT_TRUE(with.has_session_id);
  EXPECT_TRUE(with.compression);
  EXPECT_FALSE(without.has_session_id);
  EXPECT_FALSE(without.compression);
  EXPECT_EQ(with.verdict, Verdict::kAccepted);
  EXPECT_EQ(without.verdict, Verdict::kAccepted);
}

TEST(ReadAnswer, EndsWithTheServerHelloInTls13) {
  const Bytes extensions =
      extension(0x002b, "\3\4") + extension(0x0033, number(0x001d, 2) + counted(Bytes(32, 'k'), 2));

  const Answer answer = read(record(kHandshake, server_hello(kTls12, 0x1301, extensions)), kTls13);

  EXPECT_EQ(answer.verdict, Verdict::kAccepted);
  EXPECT_EQ(answer.version, kTls13);
  EXPECT_EQ(answer.group, 0x001d);
  EXPECT_FALSE(answer.wants_key_share);
}

TEST(ReadAnswer, KnowsAHelloRetryRequestByItsRandomValue) {
  const Bytes retry =
      "\xcf\x21\xad\x74\xe5\x9a\x61\x11\xbe\x1d\x8c\x02\x1e\x65\xb8\x91"
      "\xc2\xa2\x11\x16\x7a\xbb\x8c\x5e\x07\x9e\x09\xe2\xc8\xa8\x33\x9c";
  const Bytes extensions = extension(0x0033, number(0x0101, 2)) + extension(0x002b, "\3\4");

  const Answer answer =
      read(record(kHandshake, server_hello(kTls12, 0x1302, extensions, retry)), kTls13);

  EXPECT_EQ(answer.verdict, Verdict::kAccepted);
  EXPECT_EQ(answer.group, 0x0101);
  EXPECT_EQ(answer.suite, 0x1302);
  EXPECT_TRUE(answer.wants_key_share);
}

TEST(ReadAnswer, IsNotKnownWhereAGroupWasChosenThatWasNotOffered) {
  Hello hello = hello_of(kTls13);
  hello.groups = {0x0017, 0x0018};
  const Bytes extensions = extension(0x0033, number(0x001d, 2)) + extension(0x002b, "\3\4");
  AnswerReader reader(hello);

  reader.take(record(kHandshake, server_hello(kTls12, 0x1301, extensions)));

  expect_not_known(reader.finish(kSilence), "the server chose a group that was not offered");
}

// Messages behind the hello

TEST(ReadAnswer, IsReadAcrossRecordsAndPastWhatDoesNotMatter) {
  const Bytes messages = server_hello(kTls12, kRsa) + certificate({"one"}) +
                         message(kCertificateRequest, "whatever") + message(22, "status") + done();
  Bytes scattered = record(kChangeCipherSpec, "\1");
  for (const char byte : messages) {
    scattered += record(kHandshake, "") + record(kHandshake, Bytes(1, byte), 0x0301);
  }

  const Answer answer = read(scattered);

  EXPECT_EQ(answer.verdict, Verdict::kAccepted);
  EXPECT_EQ(answer.certificates, std::vector<Bytes>{"one"});
}

TEST(ReadAnswer, KeepsEveryCertificateInItsOrder) {
  const auto chain = [](const std::vector<Bytes>& certificates) {
    return read(
        record(kHandshake, server_hello(kTls12, kRsa) + certificate(certificates) + done()));
  };
  EXPECT_EQ(chain({"own", "issuer", ""}).certificates, (std::vector<Bytes>{"own", "issuer", ""}));
  EXPECT_EQ(chain({}).certificates, std::vector<Bytes>{});
  EXPECT_EQ(chain({}).verdict, Verdict::kAccepted);
}

TEST(ReadAnswer, CountsTheBitsOfTheDhPrime) {
  const std::pair<Bytes, int> primes[] = {{Bytes(64, '\xff'), 512},
                                          {Bytes(96, '\x80'), 768},
                                          {Bytes(128, '\x7f'), 1023},
                                          {Bytes(3, '\0') + Bytes(256, '\xf0'), 2048},
                                          {"\1", 1},
                                          {Bytes(1, '\0') + "\1" + Bytes(384, '\0'), 3073},
                                          {Bytes(4, '\0'), 0},
                                          {"", 0}};
  for (const auto& [prime, bits] : primes) {
    EXPECT_EQ(read(flight(kDheRsa, dh_key_exchange(prime))).dh_bits, bits) << bits;
    EXPECT_EQ(read(flight(0x0034, dh_key_exchange(prime))).dh_bits, bits) << bits;  // anonymous
  }
  EXPECT_EQ(read(flight(kEcdheRsa, message(kServerKeyExchange, Bytes("\3\0\x17", 3)))).dh_bits, 0);
}

TEST(ReadAnswer, TellsTheCurve) {
  const auto curve = [](std::size_t suite, const Bytes& parameters) {
    return read(flight(suite, message(kServerKeyExchange, parameters + "point"))).group;
  };
  EXPECT_EQ(curve(kEcdheRsa, Bytes("\3\0\x1d", 3)), 0x001d);
  EXPECT_EQ(curve(0xc018, Bytes("\3\0\x17", 3)), 0x0017);  // anonymous
  EXPECT_EQ(curve(kEcdheRsa, Bytes("\3\x43\x21", 3)), 0x4321);
  EXPECT_EQ(curve(kEcdheRsa, "\1"), 0xff01);  // of a prime field, spelled out
  EXPECT_EQ(curve(kEcdheRsa, "\2"), 0xff02);  // of a binary field, spelled out
  EXPECT_EQ(curve(kRsa, Bytes("\3\0\x17", 3)), 0);
}

TEST(ReadAnswer, PassesOverTheHintAtASharedKey) {
  const Bytes hint = counted("whose key", 2);
  EXPECT_EQ(read(flight(0xc035, message(kServerKeyExchange, hint + Bytes("\3\0\x18", 3)))).group,
            0x0018);
  EXPECT_EQ(read(flight(0x0090, message(kServerKeyExchange, hint + counted(Bytes(128, '\xff'), 2))))
                .dh_bits,
            1024);
  EXPECT_EQ(read(flight(0x008c, message(kServerKeyExchange, hint))).verdict, Verdict::kAccepted);
}

// SSL 2

Bytes ssl2_server_hello() {
  const Bytes certificate = "certificate";
  const Bytes body = Bytes("\4\0\1\0\2", 5) + number(certificate.size(), 2) + number(3, 2) +
                     number(16, 2) + certificate + Bytes("\1\0\x80", 3) + Bytes(16, 'i');
  return number(0x8000 | body.size(), 2) + body;
}

TEST(ReadAnswer, IsAcceptedBySsl2WhereverItIsCut) {
  const Answer answer = read(ssl2_server_hello(), kSsl2);

  EXPECT_EQ(answer.verdict, Verdict::kAccepted);
  EXPECT_EQ(answer.version, kSsl2);
  expect_the_same_however_it_is_cut(ssl2_server_hello(), kSsl2);
}

TEST(ReadAnswer, IsARefusalOfSsl2WhereTheServerClosesOrAlerts) {
  EXPECT_EQ(read("", kSsl2, kClosed).verdict, Verdict::kRefused);
  EXPECT_EQ(read(alert(2, 70), kSsl2).verdict, Verdict::kRefused);
  EXPECT_EQ(read(alert(2, 10), kSsl2).verdict, Verdict::kRefused);
  expect_the_same_however_it_is_cut(alert(2, 40), kSsl2);
}

TEST(ReadAnswer, IsNotKnownInSsl2WhereNothingClearComes) {
  expect_not_known(read("", kSsl2), kSilence);
  expect_not_known(read(Bytes("\x80\x10\4\0\1\0", 6), kSsl2, kClosed), kClosed);
  expect_not_known(read("HTTP/1.1 400", kSsl2), "what answers does not speak SSL 2");
  expect_not_known(read(Bytes("\x80\x03\0\0\1\0\2", 7), kSsl2),
                   "what answers does not speak SSL 2");  // an error
  expect_not_known(read(Bytes("\x80\x10\4\0\1\3\1", 7), kSsl2),
                   "what answers does not speak SSL 2");  // of a later version
}

}  // namespace
}  // namespace kelotls::test
