// Owns the playing of recorded hellos, and why one is refused.
#include "clients/judgement.h"

#include <openssl/ec.h>
#include <openssl/err.h>

#include <algorithm>
#include <map>
#include <utility>

#include "clients/rewriting.h"
#include "levels/offer.h"
#include "peers/context_server.h"
#include "tls/answer.h"
#include "tls/openssl.h"
#include "tls/registry.h"

namespace kelotlsctl {

namespace {

// Kinds of handshake message.
constexpr char kServerKeyExchange = 12;
constexpr char kCertificateVerify = 15;

constexpr std::uint16_t kEarlyDataExtension = 0x002a;

/// A suite that is none: the client has come down from a newer version, which failed.
constexpr std::uint16_t kFallback = 0x5600;

using CurveOwner = std::unique_ptr<EC_GROUP, Release<EC_GROUP_free>>;

// Keys

int key_kind(const std::string& kind) {
  static const std::map<std::string, int> kinds = {
      {"RSA", EVP_PKEY_RSA},         {"RSA-PSS", EVP_PKEY_RSA_PSS}, {"ECDSA", EVP_PKEY_EC},
      {"Ed25519", EVP_PKEY_ED25519}, {"Ed448", EVP_PKEY_ED448},
  };
  const auto found = kinds.find(kind);
  return found != kinds.end() ? found->second : EVP_PKEY_NONE;
}

int key_strength(const CertificateFacts& certificate) {
  return certificate.kind == "ECDSA"             ? OBJ_sn2nid(certificate.curve.c_str())
         : certificate.kind.rfind("RSA", 0) == 0 ? certificate.bits
                                                 : 0;
}

// What is on the wire

/// Records of the size that a client may send at most.
Bytes records_of(const Bytes& message) {
  constexpr std::size_t kLongest = 16384;
  Bytes records;
  for (std::size_t at = 0; at < message.size(); at += kLongest) {
    records += Bytes("\x16\x03\x01", 3) + counted(message.substr(at, kLongest), 2);
  }
  return records;
}

/// The generator of the curve, which is as good as any point: nobody derives a key. Empty for a
/// group without one.
Bytes key_share_of(std::uint16_t group) {
  const int curve = OBJ_sn2nid(group_name(group).c_str());
  const CurveOwner points(curve != NID_undef ? EC_GROUP_new_by_curve_name(curve) : nullptr);
  if (points == nullptr) {
    ERR_clear_error();
    return Bytes();
  }
  unsigned char point[256];
  const std::size_t length =
      EC_POINT_point2oct(points.get(), EC_GROUP_get0_generator(points.get()),
                         POINT_CONVERSION_UNCOMPRESSED, point, sizeof point, nullptr);
  return Bytes(reinterpret_cast<char*>(point), length);
}

/// What the client says once it was asked for a key share of the group.
Bytes second_hello(ClientHello hello, std::uint16_t group) {
  remove_extension(hello, kEarlyDataExtension);
  set_extension(hello, kKeySharesExtension,
                counted(list_bytes({group}) + counted(key_share_of(group), 2), 2));
  return write_client_hello(hello);
}

/// A hello that a server of TLS 1.3 answers with the wish for a key share: it has decided all by
/// then, and computed no secret yet, which is what takes longest. The same, where a key share is
/// wrong.
Bytes without_keys(ClientHello hello, const Bytes& message) {
  const bool are_offered =
      std::all_of(hello.key_shares.begin(), hello.key_shares.end(),
                  [&](const KeyShare& share) { return contains(hello.groups, share.group); });
  if (hello.key_shares.empty() || !are_offered) {
    return message;
  }
  set_extension(hello, kKeySharesExtension, counted("", 2));
  return write_client_hello(hello);
}

std::size_t number_at(const Bytes& message, std::size_t at, std::size_t length) {
  std::size_t value = 0;
  for (std::size_t index = at; index < at + length && index < message.size(); ++index) {
    value = value << 8 | static_cast<unsigned char>(message[index]);
  }
  return value;
}

/// The number of the algorithm that the message is signed with; in a ServerKeyExchange it comes
/// after a curve's point, or after the three numbers of DHE.
std::uint16_t signature_in(const Bytes& message, bool is_dhe) {
  std::size_t at = kHandshakeHeader;
  if (!message.empty() && message[0] == kServerKeyExchange && is_dhe) {
    for (int count = 0; count < 3; ++count) {
      at += 2 + number_at(message, at, 2);
    }
  } else if (!message.empty() && message[0] == kServerKeyExchange) {
    at += 3;
    at += 1 + number_at(message, at, 1);
  }
  return static_cast<std::uint16_t>(number_at(message, at, 2));
}

std::string signature_name(std::uint16_t number) {
  static const std::map<std::uint16_t, const char*> names = {
      {0x0201, "RSA+SHA1"},       {0x0203, "ECDSA+SHA1"},     {0x0301, "RSA+SHA224"},
      {0x0303, "ECDSA+SHA224"},   {0x0401, "RSA+SHA256"},     {0x0403, "ECDSA+SHA256"},
      {0x0501, "RSA+SHA384"},     {0x0503, "ECDSA+SHA384"},   {0x0601, "RSA+SHA512"},
      {0x0603, "ECDSA+SHA512"},   {0x0804, "RSA-PSS+SHA256"}, {0x0805, "RSA-PSS+SHA384"},
      {0x0806, "RSA-PSS+SHA512"}, {0x0807, "Ed25519"},        {0x0808, "Ed448"},
      {0x0809, "RSA-PSS+SHA256"}, {0x080a, "RSA-PSS+SHA384"}, {0x080b, "RSA-PSS+SHA512"},
  };
  const auto found = names.find(number);
  return found != names.end() ? found->second : number != 0 ? hexadecimal(number) : "";
}

// A connection in memory

/// Its server takes what a client says, byte by byte.
class MemoryConnection {
 public:
  MemoryConnection(SSL_CTX* context, const std::vector<CertificateFacts>& certificates)
      : server_(SSL_new(context)),
        incoming_(BIO_new(BIO_s_mem())),
        outgoing_(BIO_new(BIO_s_mem())) {
    require(server_ != nullptr && incoming_ != nullptr && outgoing_ != nullptr,
            "no connection can be made");
    SSL_set_bio(server_.get(), incoming_, outgoing_);
    BIO_set_mem_eof_return(incoming_, -1);
    for (const CertificateFacts& certificate : certificates) {
      use_throw_away_certificate(server_.get(), key_kind(certificate.kind),
                                 key_strength(certificate));
    }
    SSL_set_msg_callback(server_.get(), note_signature);
    SSL_set_msg_callback_arg(server_.get(), &signed_);
  }

  /// Whether the server says all that is its to say, and waits for the client.
  bool say(const Bytes& message) {
    const Bytes records = records_of(message);
    static_cast<void>(BIO_reset(outgoing_));
    BIO_write(incoming_, records.data(), static_cast<int>(records.size()));
    ERR_clear_error();
    const int result = SSL_accept(server_.get());
    return SSL_get_error(server_.get(), result) == SSL_ERROR_WANT_READ;
  }

  /// Its answer to what was said last.
  Answer answer_to(const ClientHello& offered) const {
    Hello hello;
    hello.version = static_cast<std::uint16_t>(SSL_version(server_.get()));
    hello.suites = offered.suites;
    hello.groups = offered.groups;
    AnswerReader reader(hello);
    reader.take(text_of(outgoing_));
    return reader.finish(kClosed);
  }

  /// The message of the server that holds its signature; empty: there was none.
  const Bytes& signed_message() const { return signed_; }

 private:
  /// TLS 1.3 hides that message on the wire.
  static void note_signature(int is_sent, int, int kind, const void* bytes, std::size_t size, SSL*,
                             void* argument) {
    const Bytes message(static_cast<const char*>(bytes), size);
    if (is_sent == 1 && kind == SSL3_RT_HANDSHAKE && !message.empty() &&
        (message[0] == kServerKeyExchange || message[0] == kCertificateVerify)) {
      *static_cast<Bytes*>(argument) = message;
    }
  }

  const SslOwner server_;
  BIO* const incoming_;  // the server owns both
  BIO* const outgoing_;
  Bytes signed_;
};

/// What came of a hello.
struct Played {
  bool is_answered = false;
  bool after_retry = false;
  Answer answer;
  std::string reason;  ///< OpenSSL's, of one that is not answered
  Bytes signed_message;
};

Played play(SSL_CTX* context, const std::vector<CertificateFacts>& certificates,
            const ClientHello& hello, const Bytes& message) {
  MemoryConnection connection(context, certificates);
  Played played;
  played.is_answered = connection.say(message);
  played.answer = connection.answer_to(hello);
  if (played.is_answered && played.answer.wants_key_share) {
    played.after_retry = true;
    const std::uint16_t group = played.answer.group;
    played.is_answered = connection.say(second_hello(hello, group));
    played.answer = connection.answer_to(hello);
    played.answer.group = group;
  }
  // Without an answer the server only waits for the rest of a message that says it is longer.
  played.is_answered = played.is_answered && played.answer.version != 0;
  played.reason = played.is_answered ? "" : take_openssl_reason();
  played.signed_message = connection.signed_message();
  ERR_clear_error();
  return played;
}

// Hellos that offer more

void offer_more(Numbers& offered, const Numbers& more) {
  for (const std::uint16_t number : more) {
    if (!contains(offered, number)) {
      offered.push_back(number);
    }
  }
}

void offer_suites(ClientHello& hello) {
  offer_more(hello.suites, suites_of_version(kTls13));
  offer_more(hello.suites, suites_of_version(kTls12));
}

/// Before the key shares were read, a hello without any is at fault in TLS 1.3.
void offer_groups(ClientHello& hello) {
  offer_more(hello.groups, groups_of_version(kTls12));
  set_extension(hello, kGroupsExtension, counted(list_bytes(hello.groups), 2));
  if (contains(hello.versions, kTls13) && hello.find(kKeySharesExtension) == nullptr) {
    set_extension(hello, kKeySharesExtension, counted("", 2));
  }
}

void offer_signatures(ClientHello& hello) {
  offer_more(hello.signature_algorithms, all_signature_algorithms());
  set_extension(hello, kSignatureAlgorithmsExtension,
                counted(list_bytes(hello.signature_algorithms), 2));
  remove_extension(hello, kCertificateSignaturesExtension);
}

struct More {
  const char* what;
  void (*offer)(ClientHello& hello);
};

/// Suites last: with enough of them many a hello is answered that has all it needs but a group.
constexpr More kMore[] = {
    {kLacksGroup, offer_groups}, {kLacksSignature, offer_signatures}, {kLacksSuite, offer_suites}};

/// The rows of kMore as sets, smaller ones first.
constexpr unsigned kSets[] = {1, 2, 4, 3, 5, 6, 7};

// Reasons

std::string names_of(const Numbers& numbers, std::string (*name)(std::uint16_t number)) {
  std::string names;
  for (const std::uint16_t number : numbers) {
    if (!is_grease(number)) {
      names += (names.empty() ? "" : ", ") + name(number);
    }
  }
  return names;
}

std::string version_reason(const ClientHello& hello) {
  const std::string versions = names_of(hello.versions, version_name);
  return !versions.empty() ? "It offers " + versions + " only."
                           : "It offers " + version_name(hello.version) + " at most.";
}

std::string group_reason(const ClientHello& hello) {
  const std::string groups = names_of(hello.groups, group_name);
  return groups.empty() ? "It offers no group." : "Its groups are " + groups + ".";
}

std::string certificates_text(const std::vector<CertificateFacts>& certificates) {
  std::string text;
  for (const CertificateFacts& certificate : certificates) {
    text += (text.empty() ? "" : " or ") + certificate_text(certificate);
  }
  return text;
}

std::string lacking_text(const std::string& what, const ClientHello& hello,
                         const std::vector<CertificateFacts>& certificates) {
  const std::string with = " with a certificate of " + certificates_text(certificates) + ".";
  return what == kLacksGroup       ? group_reason(hello)
         : what == kLacksSignature ? "None of its signature algorithms will do" + with
                                   : "None of its cipher suites will do" + with;
}

}  // namespace

Judge::Judge(SSL_CTX* context, std::vector<CertificateFacts> certificates)
    : context_(context), certificates_(std::move(certificates)) {
  for (const CertificateFacts& certificate : certificates_) {
    if (!can_be_made(certificate)) {
      throw std::runtime_error("no certificate like " + certificate_text(certificate) +
                               " can be made");
    }
  }
}

Judgement Judge::judge(const Bytes& message) const {
  Judgement judgement;
  const std::optional<ClientHello> hello = read_client_hello(message);
  if (!hello) {
    judgement.lacks = {kLacksOther};
    judgement.text = "It is no ClientHello.";
    return judgement;
  }
  const Played played = play(context_, certificates_, *hello, message);
  if (!played.is_answered) {
    explain(*hello, played.answer.is_about_version, played.reason, judgement);
    return judgement;
  }
  judgement.is_answered = true;
  judgement.version = played.answer.version;
  judgement.suite = played.answer.suite;
  judgement.group = played.answer.group;
  judgement.after_retry = played.after_retry;
  if (judgement.version >= kTls12) {
    judgement.signature =
        signature_name(signature_in(played.signed_message, played.answer.dh_bits != 0));
  }
  return judgement;
}

bool Judge::answers(const Bytes& message) const {
  const std::optional<ClientHello> hello = read_client_hello(message);
  if (!hello) {
    return false;
  }
  const Bytes quick = without_keys(*hello, message);
  MemoryConnection connection(context_, certificates_);
  const bool waits = connection.say(quick);
  const Answer answer = connection.answer_to(*hello);
  ERR_clear_error();
  return waits && (answer.wants_key_share || answer.version != 0);
}

void Judge::explain(const ClientHello& hello, bool is_about_version, const std::string& reason,
                    Judgement& judgement) const {
  if (is_about_version) {
    judgement.lacks = {kLacksVersion};
    judgement.text = version_reason(hello);
    return;
  }
  for (const unsigned set : kSets) {
    ClientHello more = hello;
    for (unsigned row = 0; row < std::size(kMore); ++row) {
      if ((set >> row & 1) != 0) {
        kMore[row].offer(more);
      }
    }
    const Bytes message = write_client_hello(more);
    if (!answers(message) || !play(context_, certificates_, more, message).is_answered) {
      continue;
    }
    for (unsigned row = 0; row < std::size(kMore); ++row) {
      if ((set >> row & 1) != 0) {
        judgement.lacks.emplace_back(kMore[row].what);
        judgement.text += (judgement.text.empty() ? "" : " ") +
                          lacking_text(kMore[row].what, hello, certificates_);
      }
    }
    return;
  }
  judgement.lacks = {kLacksOther};
  judgement.text = contains(hello.suites, kFallback)
                       ? "It has come down from a newer version, which the level gives."
                       : "OpenSSL refuses it: " + reason + ".";
}

bool can_be_made(const CertificateFacts& certificate) {
  return key_kind(certificate.kind) != EVP_PKEY_NONE &&
         (certificate.kind != "ECDSA" || !key_share_of(group_number(certificate.curve)).empty());
}

std::string certificate_text(const CertificateFacts& certificate) {
  return certificate.kind == "ECDSA" ? "ECDSA " + certificate.curve
         : certificate.kind.rfind("RSA", 0) == 0
             ? certificate.kind + " " + std::to_string(certificate.bits)
             : certificate.kind;
}

}  // namespace kelotlsctl
