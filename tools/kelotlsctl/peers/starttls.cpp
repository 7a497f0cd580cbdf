// Owns speaking the plain part of each protocol.
#include "peers/starttls.h"

#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "output/safe_text.h"

namespace kelotlsctl {
namespace {

constexpr std::size_t kMostBytes = std::size_t{64} * 1024;
constexpr std::size_t kMostQuoted = 200;

/// Why the server is not ready.
struct NotReady {
  std::string reason;
};

using Beginnings = std::initializer_list<const char*>;

bool begins_with(const std::string& text, const char* beginning) {
  return strncasecmp(text.c_str(), beginning, std::strlen(beginning)) == 0;
}

std::uint8_t byte_at(const std::string& bytes, std::size_t index) {
  return static_cast<std::uint8_t>(bytes[index]);
}

std::string quoted(const std::string& text) {
  return "\"" + printable(text.substr(0, kMostQuoted)) + "\"";
}

/// One conversation. Every step throws NotReady where it cannot go on.
class Talk {
 public:
  Talk(const char* protocol, const PlainStream& stream) : protocol_(protocol), stream_(stream) {}

  /// The step names, in what is reported, what the next reply is about.
  void say(const std::string& step, const std::string& bytes) {
    step_ = step;
    asked_ = received_.size();
    const std::string fault = stream_.send(bytes);
    if (!fault.empty()) {
      throw NotReady{"does not take " + step + ": " + printable(fault)};
    }
  }

  std::string take(std::size_t size) {
    while (received_.size() - used_ < size) {
      receive();
    }
    used_ += size;
    return received_.substr(used_ - size, size);
  }

  /// All up to the first of the texts, and it too.
  std::string take_until(Beginnings texts) {
    for (;;) {
      std::size_t end = std::string::npos;
      for (const char* const text : texts) {
        const std::size_t found = received_.find(text, used_);
        end = found == std::string::npos ? end : std::min(end, found + std::strlen(text));
      }
      if (end != std::string::npos) {
        return take(end - used_);
      }
      receive();
    }
  }

  /// Without the line end.
  std::string line() {
    std::string taken = take_until({"\n"});
    return taken.erase(taken.size() -
                       (taken.size() > 1 && taken[taken.size() - 2] == '\r' ? 2 : 1));
  }

  [[noreturn]] void refuse(const std::string& how) const {
    throw NotReady{"refuses " + step_ + ": " + how};
  }

  [[noreturn]] void refuse_protocol(const std::string& said) const {
    throw NotReady{"does not speak " + std::string(protocol_) + ": it answers " + step_ + " with " +
                   quoted(said)};
  }

  /// What came behind the go-ahead would be taken for a part of TLS, which it is not.
  void end() const {
    if (used_ < received_.size()) {
      throw NotReady{"says more than to go ahead: " + quoted(received_.substr(used_))};
    }
  }

 private:
  void receive() {
    const std::size_t before = received_.size();
    const std::string fault = stream_.receive(received_);
    if (!fault.empty() || received_.size() <= before) {
      throw NotReady{std::string("gives no ") + (before > asked_ ? "whole " : "") + "answer to " +
                     step_ + (fault.empty() ? "" : ": " + printable(fault))};
    }
    if (received_.size() > kMostBytes) {
      throw NotReady{"says more than 64 KiB before TLS"};
    }
  }

  const char* const protocol_;
  const PlainStream& stream_;
  std::string step_ = "the connection";
  std::string received_;
  std::size_t used_ = 0;   // of what was received
  std::size_t asked_ = 0;  // how much was received before the last question
};

/// "220 ready" → "220"; empty where it is no reply.
std::string code_of(const std::string& line) {
  const bool is_code = line.size() >= 3 && line.find_first_not_of("0123456789") >= 3 &&
                       (line.size() == 3 || line[3] == ' ' || line[3] == '-');
  return is_code ? line.substr(0, 3) : "";
}

/// A reply of lines, of which the last has the code and no "-" behind it.
void expect_code(Talk& talk, Beginnings good) {
  const std::string first = talk.line();
  const std::string code = code_of(first);
  if (code.empty()) {
    talk.refuse_protocol(first);
  }
  for (std::string line = first; code_of(line) != code || line[3] == '-';) {
    line = talk.line();
  }
  if (std::find(good.begin(), good.end(), code) == good.end()) {
    talk.refuse(quoted(first));
  }
}

/// A reply of one line, which may follow lines of another beginning.
void expect_line(Talk& talk, const char* good, Beginnings refusals, const char* before = "\n") {
  for (;;) {
    const std::string line = talk.line();
    if (begins_with(line, good)) {
      return;
    }
    for (const char* const refusal : refusals) {
      if (begins_with(line, refusal)) {
        talk.refuse(quoted(line));
      }
    }
    if (!begins_with(line, before)) {
      talk.refuse_protocol(line);
    }
  }
}

void speak_smtp(Talk& talk, const std::string& /*server_name*/) {
  expect_code(talk, {"220"});
  talk.say("EHLO", "EHLO localhost\r\n");
  expect_code(talk, {"250"});
  talk.say("STARTTLS", "STARTTLS\r\n");
  expect_code(talk, {"220"});
}

void speak_imap(Talk& talk, const std::string& /*server_name*/) {
  expect_line(talk, "* OK", {"* BYE", "* PREAUTH"});
  talk.say("STARTTLS", "a1 STARTTLS\r\n");
  expect_line(talk, "a1 OK", {"a1 NO", "a1 BAD", "* BYE"}, "* ");
}

void speak_pop3(Talk& talk, const std::string& /*server_name*/) {
  expect_line(talk, "+OK", {"-ERR"});
  talk.say("STLS", "STLS\r\n");
  expect_line(talk, "+OK", {"-ERR"});
}

void speak_ftp(Talk& talk, const std::string& /*server_name*/) {
  expect_code(talk, {"220"});
  talk.say("AUTH TLS", "AUTH TLS\r\n");
  expect_code(talk, {"234"});
}

using Take = std::function<std::string(std::size_t size)>;

/// The content of the next element of BER, which is to have this tag.
std::string take_element(const Talk& talk, std::uint8_t tag, const Take& take) {
  const std::string head = take(2);
  std::size_t size = byte_at(head, 1);
  if (byte_at(head, 0) != tag || size == 0x80 || size > 0x84) {
    talk.refuse_protocol(head);
  }
  if (size > 0x80) {
    const std::string digits = take(size - 0x80);
    size = 0;
    for (std::size_t i = 0; i < digits.size(); ++i) {
      size = size << 8 | byte_at(digits, i);
    }
  }
  return take(size);
}

/// The elements of a content that stand there one after another.
std::vector<std::string> take_elements(const Talk& talk, std::initializer_list<std::uint8_t> tags,
                                       const std::string& content) {
  std::size_t used = 0;
  const Take take = [&](std::size_t size) {
    if (content.size() - used < size) {
      talk.refuse_protocol(content);
    }
    used += size;
    return content.substr(used - size, size);
  };
  std::vector<std::string> elements;
  for (const std::uint8_t tag : tags) {
    elements.push_back(take_element(talk, tag, take));
  }
  return elements;
}

/// An extended request and its response, which is a number, and a code, a name and a text.
void speak_ldap(Talk& talk, const std::string& /*server_name*/) {
  talk.say("the StartTLS request",
           std::string("\x30\x1d\x02\x01\x01\x77\x18\x80\x16") + "1.3.6.1.4.1.1466.20037");
  const std::string message =
      take_element(talk, 0x30, [&](std::size_t size) { return talk.take(size); });
  const std::vector<std::string> parts = take_elements(talk, {0x02, 0x78}, message);
  const std::vector<std::string> result = take_elements(talk, {0x0a, 0x04, 0x04}, parts[1]);
  if (parts[0] != "\x01" || result[0] != std::string(1, '\0')) {
    talk.refuse("result code " + std::to_string(byte_at(result[0], 0)) + ", " + quoted(result[2]));
  }
}

void speak_postgres(Talk& talk, const std::string& /*server_name*/) {
  talk.say("the request for TLS", std::string("\0\0\0\x08\x04\xd2\x16\x2f", 8));
  const std::string answer = talk.take(1);
  if (answer == "N" || answer == "E") {
    talk.refuse(quoted(answer));
  }
  if (answer != "S") {
    talk.refuse_protocol(answer);
  }
}

/// Of the greeting: 10, the server's version up to a zero byte, 13 bytes, and the lower half of
/// what the server can do. The request is the first half of a login.
void speak_mysql(Talk& talk, const std::string& /*server_name*/) {
  constexpr std::size_t kBetween = 13;
  constexpr std::uint8_t kTls = 0x08;  // in the second byte
  const std::string head = talk.take(4);
  const std::size_t size = byte_at(head, 0) | std::size_t{byte_at(head, 1)} << 8;
  if (size < 3 || head.substr(2) != std::string(2, '\0')) {
    talk.refuse_protocol(head);
  }
  const std::string greeting = talk.take(size);
  if (greeting[0] == '\xff') {
    talk.refuse(quoted(greeting.substr(3)));
  }
  const std::size_t version_end = greeting.find('\0');
  if (greeting[0] != '\x0a' || version_end == std::string::npos ||
      greeting.size() - version_end < kBetween + 3) {
    talk.refuse_protocol(greeting);
  }
  if ((byte_at(greeting, version_end + kBetween + 2) & kTls) == 0) {
    throw NotReady{"offers no TLS"};
  }
  // TLS, a login as of today, packets of at most 16 MiB, UTF-8, and nothing else.
  talk.say("the request for TLS",
           std::string("\x20\0\0\x01\0\x8a\0\0\0\0\0\x01\x21", 13) + std::string(23, '\0'));
}

/// The lines of what the server can do begin with a quoted word.
void speak_sieve(Talk& talk, const std::string& /*server_name*/) {
  expect_line(talk, "OK", {"NO", "BYE"}, "\"");
  talk.say("STARTTLS", "STARTTLS\r\n");
  expect_line(talk, "OK", {"NO", "BYE"});
}

std::string attribute_text(const std::string& text) {
  std::string escaped;
  for (const char one : text) {
    escaped += std::strchr("<&'", one) != nullptr ? "&#" + std::to_string(int{one}) + ";"
                                                  : std::string(1, one);
  }
  return escaped;
}

void speak_xmpp(Talk& talk, const std::string& server_name) {
  const std::string to = server_name.empty() ? "" : " to='" + attribute_text(server_name) + "'";
  talk.say("the beginning of a stream",
           "<?xml version='1.0'?><stream:stream xmlns='jabber:client' version='1.0' "
           "xmlns:stream='http://etherx.jabber.org/streams'" +
               to + ">");
  const std::string first = talk.take(1);
  if (first != "<") {
    talk.refuse_protocol(first);
  }
  const std::string beginning = talk.take_until({">"});
  if (!begins_with(beginning, "?xml") && !begins_with(beginning, "stream:stream")) {
    talk.refuse_protocol(first + beginning);
  }
  const std::string features = talk.take_until(
      {"</stream:features>", "<stream:features/>", "</stream:error>", "</stream:stream>"});
  if (features.find("<stream:features") == std::string::npos) {
    talk.refuse(quoted(features));
  }
  if (features.find("<starttls") == std::string::npos) {
    throw NotReady{"offers no TLS"};
  }
  talk.say("starttls", "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
  const std::string answer = talk.take_until({">"});
  if (answer.find("<proceed") == std::string::npos) {
    talk.refuse(quoted(answer));
  }
  if (answer[answer.size() - 2] != '/') {
    talk.take_until({"</proceed>"});
  }
}

void speak_nntp(Talk& talk, const std::string& /*server_name*/) {
  expect_code(talk, {"200", "201"});
  talk.say("STARTTLS", "STARTTLS\r\n");
  expect_code(talk, {"382"});
}

struct Protocol {
  const char* name;
  const char* known_as;
  void (*speak)(Talk& talk, const std::string& server_name);
};

constexpr Protocol kProtocols[] = {
    {"smtp", "SMTP", speak_smtp},    {"imap", "IMAP", speak_imap},
    {"pop3", "POP3", speak_pop3},    {"ftp", "FTP", speak_ftp},
    {"ldap", "LDAP", speak_ldap},    {"postgres", "PostgreSQL", speak_postgres},
    {"mysql", "MySQL", speak_mysql}, {"sieve", "ManageSieve", speak_sieve},
    {"xmpp", "XMPP", speak_xmpp},    {"nntp", "NNTP", speak_nntp},
};

}  // namespace

const std::vector<std::string>& starttls_protocols() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> all;
    for (const Protocol& protocol : kProtocols) {
      all.emplace_back(protocol.name);
    }
    return all;
  }();
  return names;
}

std::string start_tls(const std::string& protocol, const std::string& server_name,
                      const PlainStream& stream) {
  const auto* const row = std::find_if(std::begin(kProtocols), std::end(kProtocols),
                                       [&](const Protocol& one) { return protocol == one.name; });
  if (row == std::end(kProtocols)) {
    return "cannot be asked to start TLS by the unknown protocol " + quoted(protocol);
  }
  try {
    Talk talk(row->known_as, stream);
    row->speak(talk, server_name);
    talk.end();
    return "";
  } catch (const NotReady& not_ready) {
    return not_ready.reason;
  }
}

}  // namespace kelotlsctl
