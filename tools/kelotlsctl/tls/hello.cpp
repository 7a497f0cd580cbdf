// Owns the writing of ClientHellos.
#include "tls/hello.h"

#include <openssl/rand.h>

#include <algorithm>

namespace kelotlsctl {

namespace {

Bytes number(std::size_t value, int length) {
  Bytes bytes;
  for (int shift = 8 * (length - 1); shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
  return bytes;
}

/// The bytes after their length, which takes this many bytes itself.
Bytes vector_of(const Bytes& bytes, int length) { return number(bytes.size(), length) + bytes; }

Bytes list_of_numbers(const Numbers& numbers) {
  Bytes bytes;
  for (const std::uint16_t value : numbers) {
    bytes += number(value, 2);
  }
  return bytes;
}

Bytes random_bytes(std::size_t count) {
  Bytes bytes(count, '\0');
  static_cast<void>(
      RAND_bytes(reinterpret_cast<unsigned char*>(&bytes[0]), static_cast<int>(count)));
  return bytes;
}

// What a hello's random begins with. Nobody derives a key of it.
constexpr char kOwnRandom[] = "kelotlsctl asks.";
constexpr std::size_t kOwnRandomSize = sizeof kOwnRandom - 1;
constexpr std::size_t kRandomSize = 32;

Bytes own_random() { return kOwnRandom + random_bytes(kRandomSize - kOwnRandomSize); }

Bytes extension(std::uint16_t kind, const Bytes& body) {
  return number(kind, 2) + vector_of(body, 2);
}

/// The generator of a NIST curve, as an uncompressed point.
constexpr unsigned char kGeneratorOfP256[] = {
    0x04, 0x6b, 0x17, 0xd1, 0xf2, 0xe1, 0x2c, 0x42, 0x47, 0xf8, 0xbc, 0xe6, 0xe5,
    0x63, 0xa4, 0x40, 0xf2, 0x77, 0x03, 0x7d, 0x81, 0x2d, 0xeb, 0x33, 0xa0, 0xf4,
    0xa1, 0x39, 0x45, 0xd8, 0x98, 0xc2, 0x96, 0x4f, 0xe3, 0x42, 0xe2, 0xfe, 0x1a,
    0x7f, 0x9b, 0x8e, 0xe7, 0xeb, 0x4a, 0x7c, 0x0f, 0x9e, 0x16, 0x2b, 0xce, 0x33,
    0x57, 0x6b, 0x31, 0x5e, 0xce, 0xcb, 0xb6, 0x40, 0x68, 0x37, 0xbf, 0x51, 0xf5};

/// Empty for a group that has none here.
Bytes key_share(std::uint16_t group) {
  switch (group) {
    case 0x0017:
      return Bytes(std::begin(kGeneratorOfP256), std::end(kGeneratorOfP256));
    case 0x001d:
      return Bytes(1, '\x09') + Bytes(31, '\0');
    case 0x001e:
      return Bytes(1, '\x05') + Bytes(55, '\0');
    default:
      return Bytes();
  }
}

Bytes key_shares(const Numbers& groups) {
  Bytes shares;
  for (const std::uint16_t group : groups) {
    const Bytes share = key_share(group);
    shares += share.empty() ? Bytes() : number(group, 2) + vector_of(share, 2);
  }
  return vector_of(shares, 2);
}

Bytes names_of_protocols(const std::vector<std::string>& names) {
  Bytes list;
  for (const std::string& name : names) {
    list += vector_of(name, 1);
  }
  return vector_of(list, 2);
}

/// The suites of the Secure Remote Password protocol need a user's name.
bool needs_user_name(const Numbers& suites) {
  return std::any_of(suites.begin(), suites.end(),
                     [](std::uint16_t suite) { return suite >= 0xc01a && suite <= 0xc022; });
}

Bytes extensions(const Hello& hello) {
  const bool is_tls13 = hello.version == kTls13;
  Bytes list;
  if (!hello.server_name.empty()) {
    list += extension(0x0000, vector_of(number(0, 1) + vector_of(hello.server_name, 2), 2));
  }
  if (!hello.groups.empty()) {
    list += extension(0x000a, vector_of(list_of_numbers(hello.groups), 2));
    list += is_tls13 ? Bytes() : extension(0x000b, vector_of(Bytes(1, '\0'), 1));
  }
  if (hello.version >= kTls12) {
    list += extension(0x000d, vector_of(list_of_numbers(hello.signature_algorithms), 2));
  }
  if (!hello.alpn.empty()) {
    list += extension(0x0010, names_of_protocols(hello.alpn));
  }
  list += hello.extended_master_secret ? extension(0x0017, "") : Bytes();
  list += hello.session_ticket ? extension(0x0023, "") : Bytes();
  list += needs_user_name(hello.suites) ? extension(0x000c, vector_of("user", 1)) : Bytes();
  if (is_tls13) {
    list += extension(0x002b, vector_of(number(kTls13, 2), 1));
    list += extension(0x002d, vector_of(Bytes(1, '\1'), 1));
    list += extension(0x0033, key_shares(hello.key_shares));
  } else {
    list += extension(0xff01, vector_of("", 1));
  }
  return vector_of(list, 2);
}

/// SSL 3 has no extensions: a suite that is none says that secure renegotiation is known.
Bytes list_of_suites(const Hello& hello) {
  constexpr std::size_t kSecureRenegotiation = 0x00ff;
  return list_of_numbers(hello.suites) +
         (hello.version == kSsl3 ? number(kSecureRenegotiation, 2) : Bytes());
}

/// Every cipher kind that SSL 2 had.
Bytes write_ssl2_hello() {
  constexpr std::size_t kKinds[] = {0x010080, 0x020080, 0x030080, 0x040080,
                                    0x050080, 0x060040, 0x0700c0};
  Bytes kinds;
  for (const std::size_t kind : kKinds) {
    kinds += number(kind, 3);
  }
  const Bytes challenge = random_bytes(16);
  const Bytes body = number(1, 1) + number(kSsl2, 2) + number(kinds.size(), 2) + number(0, 2) +
                     number(challenge.size(), 2) + kinds + challenge;
  return number(0x8000 | body.size(), 2) + body;
}

}  // namespace

const Numbers& all_signature_algorithms() {
  static const Numbers algorithms = {0x0403, 0x0503, 0x0603, 0x0807, 0x0808, 0x0804, 0x0805,
                                     0x0806, 0x0809, 0x080a, 0x080b, 0x0401, 0x0501, 0x0601,
                                     0x081a, 0x081b, 0x081c, 0x0303, 0x0301, 0x0402, 0x0502,
                                     0x0602, 0x0302, 0x0203, 0x0201, 0x0202, 0x0708, 0x0101};
  return algorithms;
}

Bytes write_hello(const Hello& hello) {
  if (hello.version == kSsl2) {
    return write_ssl2_hello();
  }
  const std::uint16_t version = std::min(hello.version, kTls12);
  const Bytes body = number(version, 2) + own_random() + vector_of("", 1) +
                     vector_of(list_of_suites(hello), 2) +
                     vector_of(hello.compression ? Bytes("\1\0", 2) : Bytes(1, '\0'), 1) +
                     (hello.version == kSsl3 ? Bytes() : extensions(hello));
  return number(22, 1) + number(std::min(version, kTls10), 2) +
         vector_of(number(1, 1) + vector_of(body, 3), 2);
}

bool is_own_hello(const Bytes& message) {
  constexpr std::size_t kRandomAt = 6;  // behind the message's type and length, and the version
  return message.size() > kRandomAt && message.compare(kRandomAt, kOwnRandomSize, kOwnRandom) == 0;
}

}  // namespace kelotlsctl
