// Owns the reading of a server's first flight.
#include "tls/answer.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <cstring>

#include "tls/registry.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kLongestFlight = std::size_t{256} * 1024;

// Kinds of record.
constexpr unsigned char kChangeCipherSpec = 20;
constexpr unsigned char kAlert = 21;
constexpr unsigned char kHandshake = 22;

// Kinds of handshake message.
constexpr unsigned char kServerHello = 2;
constexpr unsigned char kCertificate = 11;
constexpr unsigned char kServerKeyExchange = 12;
constexpr unsigned char kServerHelloDone = 14;

/// The random value by which a ServerHello is a HelloRetryRequest.
constexpr unsigned char kRetryRandom[] = {
    0xcf, 0x21, 0xad, 0x74, 0xe5, 0x9a, 0x61, 0x11, 0xbe, 0x1d, 0x8c, 0x02, 0x1e, 0x65, 0xb8, 0x91,
    0xc2, 0xa2, 0x11, 0x16, 0x7a, 0xbb, 0x8c, 0x5e, 0x07, 0x9e, 0x09, 0xe2, 0xc8, 0xa8, 0x33, 0x9c};

/// Thrown where a message ends before what it has to hold, or holds what cannot be.
struct CutShort {};

/// Reads a message from its start.
class Cursor {
 public:
  explicit Cursor(const Bytes& bytes) : bytes_(bytes) {}

  bool at_end() const { return at_ == bytes_.size(); }
  std::size_t position() const { return at_; }
  std::size_t left() const { return bytes_.size() - at_; }

  std::size_t number(int length) {
    std::size_t value = 0;
    for (const char byte : bytes(static_cast<std::size_t>(length))) {
      value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
  }

  std::uint16_t number16() { return static_cast<std::uint16_t>(number(2)); }

  Bytes bytes(std::size_t count) {
    if (count > left()) {
      throw CutShort();
    }
    at_ += count;
    return bytes_.substr(at_ - count, count);
  }

  /// The bytes after their length, which takes this many itself.
  Bytes vector(int length) { return bytes(number(length)); }

 private:
  const Bytes& bytes_;
  std::size_t at_ = 0;
};

int bits_of(const Bytes& prime) {
  std::size_t leading = 0;
  while (leading < prime.size() && prime[leading] == '\0') {
    ++leading;
  }
  int bits = static_cast<int>(8 * (prime.size() - leading));
  for (int first = leading < prime.size() ? static_cast<unsigned char>(prime[leading]) : 0xff;
       first < 0x80; first <<= 1) {
    --bits;
  }
  return bits;
}

/// One that is spelled out has a number too, by the kind of its field.
std::uint16_t take_curve(Cursor& cursor) {
  switch (cursor.number(1)) {
    case 1:
      return 0xff01;
    case 2:
      return 0xff02;
    case 3:
      return cursor.number16();
    default:
      throw CutShort();
  }
}

/// Of the suite in the registry's spelling: TLS_ECDHE_RSA_WITH_..., "" for one that it lacks.
std::string registry_name(std::uint16_t number) {
  const CipherSuite* const suite = find_suite(number);
  return suite != nullptr ? suite->iana_name : "";
}

bool says_that_nothing_will_do(unsigned char alert) {
  return alert == SSL_AD_HANDSHAKE_FAILURE || alert == SSL_AD_PROTOCOL_VERSION ||
         alert == SSL_AD_INSUFFICIENT_SECURITY;
}

}  // namespace

bool AnswerReader::take(const Bytes& bytes) {
  if (is_complete_) {
    return true;
  }
  taken_ += bytes.size();
  pending_ += bytes;
  if (taken_ > kLongestFlight) {
    end(Verdict::kNotKnown, "the server's answer is too long");
  }
  try {
    if (hello_.version == kSsl2) {
      take_ssl2();
    } else {
      take_records();
    }
  } catch (const CutShort&) {
    end(Verdict::kNotKnown, "the server's answer is malformed");
  }
  return is_complete_;
}

Answer AnswerReader::finish(const std::string& how) {
  // SSL 2 has no alert for a version that is not served: closing is all that a server can do.
  if (hello_.version == kSsl2 && pending_.empty() && how == kClosed) {
    end(Verdict::kRefused, how);
  }
  end(Verdict::kNotKnown, how);
  return answer_;
}

void AnswerReader::end(Verdict verdict, const std::string& reason) {
  if (!is_complete_) {
    is_complete_ = true;
    answer_.verdict = verdict;
    answer_.reason = reason;
  }
}

/// What is taken is erased in one go, here and for messages: there may be thousands.
void AnswerReader::take_records() {
  constexpr std::size_t kHeader = 5;
  Cursor cursor(pending_);
  std::size_t taken = 0;
  while (!is_complete_ && cursor.left() >= kHeader) {
    const auto kind = static_cast<unsigned char>(cursor.number(1));
    const std::size_t version = cursor.number(2);
    const std::size_t length = cursor.number(2);
    if (kind < kChangeCipherSpec || kind > kHandshake + 1 || version >> 8 != 3) {
      end(Verdict::kNotKnown, "what answers does not speak TLS");
    } else if (cursor.left() < length) {
      break;
    } else {
      take_record(kind, cursor.bytes(length));
      taken = cursor.position();
    }
  }
  pending_.erase(0, taken);
}

/// The answer of a server that knows the protocol is a SERVER-HELLO, whatever ciphers it has. Any
/// alert is one of a later version.
void AnswerReader::take_ssl2() {
  constexpr unsigned char kSsl2ServerHello = 4;
  if (pending_.size() < 7) {
    return;
  }
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(pending_[at]); };
  if ((byte(0) & 0x80) != 0 && byte(2) == kSsl2ServerHello && byte(5) == 0 && byte(6) == kSsl2) {
    answer_.version = kSsl2;
    end(Verdict::kAccepted);
  } else if (byte(0) == kAlert && byte(1) == 3) {
    end(Verdict::kRefused, "an alert of a later version");
  } else {
    end(Verdict::kNotKnown, "what answers does not speak SSL 2");
  }
}

void AnswerReader::take_record(unsigned char kind, const Bytes& body) {
  if (kind == kAlert) {
    take_alert(body);
  } else if (kind == kHandshake) {
    handshake_ += body;
    take_messages();
  }
}

/// A warning ends nothing.
void AnswerReader::take_alert(const Bytes& body) {
  for (Cursor cursor(body); !is_complete_ && !cursor.at_end();) {
    const bool is_fatal = cursor.number(1) == SSL3_AL_FATAL;
    const auto description = static_cast<unsigned char>(cursor.number(1));
    if (description == SSL_AD_CLOSE_NOTIFY) {
      end(Verdict::kNotKnown, kClosed);
    } else if (is_fatal) {
      answer_.is_alert = true;
      answer_.is_about_version = description == SSL_AD_PROTOCOL_VERSION;
      end(says_that_nothing_will_do(description) ? Verdict::kRefused : Verdict::kNotKnown,
          std::string("the server's alert: ") + SSL_alert_desc_string_long(description));
    }
  }
}

void AnswerReader::take_messages() {
  constexpr std::size_t kHeader = 4;
  Cursor cursor(handshake_);
  std::size_t taken = 0;
  while (!is_complete_ && cursor.left() >= kHeader) {
    const auto kind = static_cast<unsigned char>(cursor.number(1));
    const std::size_t length = cursor.number(3);
    if (cursor.left() < length) {
      break;
    }
    take_message(kind, cursor.bytes(length));
    taken = cursor.position();
  }
  handshake_.erase(0, taken);
}

void AnswerReader::take_message(unsigned char kind, const Bytes& body) {
  if (kind == kServerHello && answer_.version == 0) {
    take_server_hello(body);
  } else if (answer_.version == 0) {
    end(Verdict::kNotKnown, "the server's answer is malformed");
  } else if (kind == kCertificate) {
    take_certificates(body);
  } else if (kind == kServerKeyExchange) {
    take_key_exchange(body);
  } else if (kind == kServerHelloDone) {
    end(Verdict::kAccepted);
  }
}

void AnswerReader::take_server_hello(const Bytes& body) {
  Cursor cursor(body);
  answer_.version = cursor.number16();
  answer_.wants_key_share =
      cursor.bytes(sizeof kRetryRandom) == Bytes(std::begin(kRetryRandom), std::end(kRetryRandom));
  answer_.has_session_id = !cursor.vector(1).empty();
  answer_.suite = cursor.number16();
  answer_.compression = cursor.number(1) != 0;
  if (!cursor.at_end()) {
    const Bytes extensions = cursor.vector(2);
    for (Cursor entry(extensions); !entry.at_end();) {
      const std::uint16_t kind = entry.number16();
      take_extension(kind, entry.vector(2));
    }
  }
  const auto is_among = [](const Numbers& offered, std::uint16_t chosen) {
    return std::find(offered.begin(), offered.end(), chosen) != offered.end();
  };
  if (answer_.version > hello_.version) {
    end(Verdict::kNotKnown, "the server chose a version that was not offered");
  } else if (answer_.version != hello_.version) {
    end(Verdict::kRefused, "the server chose another version");
  } else if (!is_among(hello_.suites, answer_.suite)) {
    end(Verdict::kNotKnown,
        "the server chose " + suite_name(answer_.suite) + ", which was not offered");
  } else if (answer_.group != 0 && !is_among(hello_.groups, answer_.group)) {
    end(Verdict::kNotKnown, "the server chose a group that was not offered");
  } else if (answer_.version == kTls13) {
    end(Verdict::kAccepted);  // what follows is encrypted, or waits for a key share
  }
}

void AnswerReader::take_extension(std::uint16_t kind, const Bytes& body) {
  Cursor cursor(body);
  switch (kind) {
    case 0x0017:
      answer_.extended_master_secret = true;
      break;
    case 0x0023:
      answer_.session_ticket = true;
      break;
    case 0x002b:
      answer_.version = cursor.number16();
      break;
    case 0x0033:
      answer_.group = cursor.number16();
      break;
    case 0xff01:
      answer_.secure_renegotiation = true;
      break;
    default:
      break;
  }
}

void AnswerReader::take_certificates(const Bytes& body) {
  Cursor cursor(body);
  const Bytes list = cursor.vector(3);
  for (Cursor entry(list); !entry.at_end();) {
    answer_.certificates.push_back(entry.vector(3));
  }
}

void AnswerReader::take_key_exchange(const Bytes& body) {
  const std::string name = registry_name(answer_.suite);
  const auto has = [&](const char* part) { return name.find(part) != std::string::npos; };
  Cursor cursor(body);
  if (has("PSK_")) {
    cursor.vector(2);  // a hint at the key
  }
  if (has("_ECDHE_") || has("_ECDH_anon_")) {
    answer_.group = take_curve(cursor);
  } else if (has("_DHE_") || has("_DH_anon_")) {
    answer_.dh_bits = bits_of(cursor.vector(2));
  }
}

}  // namespace kelotlsctl
