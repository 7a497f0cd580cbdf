// Owns reading how clients open a connection.
#include "recording/opening.h"

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "clients/client_hello.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kRecordHeader = 5;
constexpr std::size_t kMostRecord = std::size_t{1} << 14;
constexpr std::uint8_t kHandshake = 22;

std::uint8_t byte_at(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint8_t>(bytes[at]);
}

std::size_t number(std::string_view bytes, std::size_t at, std::size_t length) {
  std::size_t value = 0;
  for (std::size_t i = at; i < at + length; ++i) {
    value = value << 8 | byte_at(bytes, i);
  }
  return value;
}

/// How far the plain part goes.
struct Plain {
  enum class State { kUnfinished, kOver, kNeverAsks } state = State::kUnfinished;
  std::size_t size = 0;    // kOver: where TLS begins
  std::size_t needed = 0;  // kUnfinished
};

Plain unfinished(std::size_t needed) {
  return needed > kMostPlainBytes ? Plain{Plain::State::kNeverAsks, 0, 0}
                                  : Plain{Plain::State::kUnfinished, 0, needed};
}

Plain over(std::size_t size) { return {Plain::State::kOver, size, 0}; }
Plain never_asks() { return {Plain::State::kNeverAsks, 0, 0}; }

std::vector<std::string> words_of_line(std::string_view line) {
  std::vector<std::string> words;
  std::size_t at = 0;
  while ((at = line.find_first_not_of(" \t\r", at)) != std::string_view::npos) {
    const std::size_t end = std::min(line.find_first_of(" \t\r", at), line.size());
    words.emplace_back(line.substr(at, end - at));
    at = end;
  }
  return words;
}

bool is_word(const std::string& word, const char* expected) {
  return strcasecmp(word.c_str(), expected) == 0;
}

/// Lines, up to one that asks for TLS.
template <typename Asks>
Plain read_lines(std::string_view bytes, const Asks& asks) {
  std::size_t at = 0;
  for (;;) {
    const std::size_t end = bytes.find('\n', at);
    if (end == std::string_view::npos) {
      return unfinished(bytes.size() + 1);
    }
    if (end >= kMostPlainBytes) {
      return never_asks();
    }
    if (asks(words_of_line(bytes.substr(at, end - at)))) {
      return over(end + 1);
    }
    at = end + 1;
  }
}

using Words = std::vector<std::string>;

Plain read_starttls_line(std::string_view bytes) {
  return read_lines(
      bytes, [](const Words& words) { return !words.empty() && is_word(words[0], "STARTTLS"); });
}

/// Each command has a tag before it.
Plain read_imap(std::string_view bytes) {
  return read_lines(
      bytes, [](const Words& words) { return words.size() == 2 && is_word(words[1], "STARTTLS"); });
}

Plain read_pop3(std::string_view bytes) {
  return read_lines(bytes,
                    [](const Words& words) { return !words.empty() && is_word(words[0], "STLS"); });
}

Plain read_ftp(std::string_view bytes) {
  return read_lines(bytes, [](const Words& words) {
    return words.size() == 2 && is_word(words[0], "AUTH") &&
           (is_word(words[1], "TLS") || is_word(words[1], "TLS-C") || is_word(words[1], "SSL"));
  });
}

/// The content of a message: its number, and the extended request that names TLS.
bool asks_ldap_for_tls(std::string_view content) {
  constexpr std::string_view kStartTls =
      "\x80\x16"
      "1.3.6.1.4.1.1466.20037";
  if (content.size() < 2 || byte_at(content, 0) != 0x02) {
    return false;
  }
  const std::string_view request =
      content.substr(std::min<std::size_t>(std::size_t{2} + byte_at(content, 1), content.size()));
  return !request.empty() && byte_at(request, 0) == 0x77 &&
         request.find(kStartTls) != std::string_view::npos;
}

/// Messages of BER, up to that request.
Plain read_ldap(std::string_view bytes) {
  std::size_t at = 0;
  for (;;) {
    if (bytes.size() < at + 2) {
      return bytes.size() > at && byte_at(bytes, at) != 0x30 ? never_asks()
                                                             : unfinished(bytes.size() + 1);
    }
    const std::size_t first = byte_at(bytes, at + 1);
    const std::size_t digits = first > 0x80 ? first - 0x80 : 0;
    if (byte_at(bytes, at) != 0x30 || first == 0x80 || digits > 4) {
      return never_asks();
    }
    if (bytes.size() < at + 2 + digits) {
      return unfinished(at + 2 + digits);
    }
    const std::size_t size = digits == 0 ? first : number(bytes, at + 2, digits);
    const std::size_t end = at + 2 + digits + std::min(size, kMostPlainBytes + 1);
    if (bytes.size() < end) {
      return unfinished(end);
    }
    const std::size_t content = at + 2 + digits;
    if (asks_ldap_for_tls(bytes.substr(content, end - content))) {
      return over(end);
    }
    at = end;
  }
}

/// Eight bytes each: a request for Kerberos may stand before the one for TLS.
Plain read_postgres(std::string_view bytes) {
  constexpr std::size_t kRequest = 8;
  constexpr std::size_t kMostRequests = 4;
  for (std::size_t at = 0; at < kMostRequests * kRequest; at += kRequest) {
    if (bytes.size() < at + kRequest) {
      return unfinished(at + kRequest);
    }
    const std::size_t code = number(bytes, at + 4, 4);
    if (number(bytes, at, 4) != kRequest || (code != 80877103 && code != 80877104)) {
      return never_asks();
    }
    if (code == 80877103) {
      return over(at + kRequest);
    }
  }
  return never_asks();
}

/// The first half of a login, with the mark that TLS comes next.
Plain read_mysql(std::string_view bytes) {
  constexpr std::size_t kHeader = 4;
  constexpr std::size_t kSize = 32;
  constexpr std::uint8_t kTls = 0x08;  // in the second byte of what the client can do
  if (bytes.size() < kHeader + kSize) {
    return !bytes.empty() && byte_at(bytes, 0) != kSize ? never_asks()
                                                        : unfinished(kHeader + kSize);
  }
  const bool asks = number(bytes, 0, 4) == 0x20000001 && (byte_at(bytes, 5) & kTls) != 0;
  return asks ? over(kHeader + kSize) : never_asks();
}

/// White space may follow, which some clients send to keep a connection alive.
Plain read_xmpp(std::string_view bytes) {
  constexpr std::string_view kElement = "<starttls";
  constexpr std::string_view kEnd = "</starttls>";
  const std::size_t element = bytes.find(kElement);
  const std::size_t close = element == std::string_view::npos ? element : bytes.find('>', element);
  if (close == std::string_view::npos) {
    return unfinished(bytes.size() + 1);
  }
  std::size_t end = close + 1;
  if (bytes[close - 1] != '/') {
    end = bytes.find(kEnd, close);
    if (end == std::string_view::npos) {
      return unfinished(bytes.size() + 1);
    }
    end += kEnd.size();
  }
  end = bytes.find_first_not_of(" \t\r\n", end);
  return end == std::string_view::npos ? unfinished(bytes.size() + 1)
         : end >= kMostPlainBytes      ? never_asks()
                                       : over(end);
}

struct Protocol {
  const char* name;
  Plain (*read)(std::string_view bytes);
};

constexpr Protocol kProtocols[] = {
    {"smtp", read_starttls_line}, {"imap", read_imap},
    {"pop3", read_pop3},          {"ftp", read_ftp},
    {"ldap", read_ldap},          {"postgres", read_postgres},
    {"mysql", read_mysql},        {"sieve", read_starttls_line},
    {"xmpp", read_xmpp},          {"nntp", read_starttls_line},
};

bool begins_tls(std::string_view bytes) {
  return !bytes.empty() && byte_at(bytes, 0) == kHandshake;
}

Plain read_plain(std::string_view bytes, const std::string& starttls) {
  const auto* const protocol =
      std::find_if(std::begin(kProtocols), std::end(kProtocols),
                   [&](const Protocol& one) { return starttls == one.name; });
  if (protocol == std::end(kProtocols) || begins_tls(bytes)) {
    return over(0);
  }
  return bytes.empty() ? unfinished(1) : protocol->read(bytes);
}

/// The form of SSL 2: a length with the top bit set, the type, and a version, which may be TLS.
OpeningResult read_ssl2(std::string_view bytes) {
  constexpr std::size_t kEnough = 5;
  if ((byte_at(bytes, 0) & 0x80) == 0) {
    return {Opening::kNotTls, 0, {}};
  }
  if (bytes.size() < kEnough) {
    return {Opening::kUnfinished, kEnough, {}};
  }
  const bool is_hello =
      byte_at(bytes, 2) == 1 && (number(bytes, 3, 2) == kSsl2 || byte_at(bytes, 3) == 3);
  return {is_hello ? Opening::kSsl2Hello : Opening::kNotTls, 0, {}};
}

/// Whether the message is still good; whole: also whether it is all there.
OpeningResult judge_message(const Bytes& message) {
  if (!message.empty() && message[0] != '\1') {
    return {Opening::kNotTls, 0, {}};
  }
  if (message.size() < kHandshakeHeader) {
    return {};
  }
  const std::size_t size = kHandshakeHeader + number(message, 1, 3);
  if (size > kMostHelloBytes) {
    return {Opening::kTooLarge, 0, {}};
  }
  if (message.size() < size) {
    return {};
  }
  const Bytes hello = message.substr(0, size);
  return read_client_hello(hello) ? OpeningResult{Opening::kHello, 0, hello}
                                  : OpeningResult{Opening::kNotTls, 0, {}};
}

/// With fewer more bytes nothing changes.
std::size_t missing_bytes(const Bytes& message) {
  return message.size() < kHandshakeHeader
             ? 1
             : kHandshakeHeader + number(message, 1, 3) - message.size();
}

OpeningResult read_records(std::string_view bytes) {
  Bytes message;
  std::size_t at = 0;
  for (;;) {
    const std::size_t left = bytes.size() - at;
    if ((left >= 1 && byte_at(bytes, at) != kHandshake) ||
        (left >= 2 && byte_at(bytes, at + 1) != 3)) {
      return {Opening::kNotTls, 0, {}};
    }
    if (left < kRecordHeader) {
      return {Opening::kUnfinished, bytes.size() + 1, {}};
    }
    const std::size_t size = number(bytes, at + 3, 2);
    if (size == 0 || size > kMostRecord) {
      return {Opening::kNotTls, 0, {}};
    }
    // The first bytes of a record already tell what is too large, or no hello.
    message += bytes.substr(at + kRecordHeader, size);
    OpeningResult result = judge_message(message);
    if (result.what != Opening::kUnfinished) {
      return result;
    }
    if (left < kRecordHeader + size) {
      const std::size_t to_record_end = kRecordHeader + size - left;
      return {
          Opening::kUnfinished, bytes.size() + std::min(to_record_end, missing_bytes(message)), {}};
    }
    at += kRecordHeader + size;
  }
}

}  // namespace

OpeningResult read_opening(std::string_view bytes, const std::string& starttls) {
  const Plain plain = read_plain(bytes, starttls);
  if (plain.state != Plain::State::kOver) {
    const bool goes_on = plain.state == Plain::State::kUnfinished;
    return {goes_on ? Opening::kUnfinished : Opening::kNotTls, plain.needed, {}};
  }
  const std::string_view tls = bytes.substr(plain.size);
  if (tls.empty()) {
    return {Opening::kUnfinished, plain.size + 1, {}};
  }
  OpeningResult result = begins_tls(tls) ? read_records(tls) : read_ssl2(tls);
  result.needed += result.what == Opening::kUnfinished ? plain.size : 0;
  if (result.what == Opening::kUnfinished && result.needed > kMostOpeningBytes) {
    result = {Opening::kTooLarge, 0, {}};
  }
  return result;
}

}  // namespace kelotlsctl
