// Owns reading and normalising ClientHellos.
#include "clients/client_hello.h"

#include <algorithm>

namespace kelotlsctl {

namespace {

constexpr std::uint8_t kClientHello = 1;
constexpr std::size_t kRandomBytes = 32;
constexpr std::size_t kMostSessionId = 32;
constexpr std::uint16_t kGrease = 0x0a0a;

/// Takes fields from the front of bytes. Once one does not fit, nothing more is taken.
class Fields {
 public:
  explicit Fields(const Bytes& bytes) : bytes_(bytes) {}

  bool is_good() const { return is_good_; }
  bool at_end() const { return used_ == bytes_.size(); }
  /// All fitted, and nothing is left.
  bool is_through() const { return is_good_ && at_end(); }

  Bytes take(std::size_t size) {
    if (!is_good_ || bytes_.size() - used_ < size) {
      is_good_ = false;
      return {};
    }
    used_ += size;
    return bytes_.substr(used_ - size, size);
  }

  std::size_t number(std::size_t length) {
    std::size_t value = 0;
    for (const char byte : take(length)) {
      value = value << 8 | static_cast<std::uint8_t>(byte);
    }
    return value;
  }

  /// The bytes behind their length, which takes this many bytes itself.
  Bytes vector_of(std::size_t length) { return take(number(length)); }

  std::uint16_t short_number() { return static_cast<std::uint16_t>(number(2)); }

 private:
  const Bytes& bytes_;
  std::size_t used_ = 0;
  bool is_good_ = true;
};

/// What is left over of an odd number of bytes counts as a fault.
bool read_numbers(const Bytes& bytes, Numbers& numbers) {
  Fields reader(bytes);
  Numbers read;
  while (reader.is_good() && !reader.at_end()) {
    read.push_back(reader.short_number());
  }
  numbers = reader.is_through() ? read : Numbers();
  return reader.is_through();
}

/// The numbers of a body that is one list of them.
Numbers numbers_of(const Extension* extension, std::size_t length_bytes) {
  Numbers numbers;
  if (extension != nullptr) {
    Fields reader(extension->body);
    const Bytes list = reader.vector_of(length_bytes);
    if (reader.is_through()) {
      read_numbers(list, numbers);
    }
  }
  return numbers;
}

std::vector<KeyShare> key_shares_of(const Extension* extension) {
  std::vector<KeyShare> shares;
  if (extension == nullptr) {
    return shares;
  }
  Fields body(extension->body);
  const Bytes list = body.vector_of(2);
  Fields reader(list);
  while (reader.is_good() && !reader.at_end()) {
    const std::uint16_t group = reader.short_number();
    shares.push_back({group, reader.vector_of(2)});
  }
  return body.is_through() && reader.is_through() ? shares : std::vector<KeyShare>();
}

std::vector<std::string> alpn_of(const Extension* extension) {
  std::vector<std::string> names;
  if (extension == nullptr) {
    return names;
  }
  Fields body(extension->body);
  const Bytes list = body.vector_of(2);
  Fields reader(list);
  while (reader.is_good() && !reader.at_end()) {
    names.push_back(reader.vector_of(1));
  }
  return body.is_through() && reader.is_through() ? names : std::vector<std::string>();
}

/// The first name of the kind that is a host's.
std::string server_name_of(const Extension* extension) {
  if (extension == nullptr) {
    return {};
  }
  Fields body(extension->body);
  const Bytes list = body.vector_of(2);
  Fields reader(list);
  const bool is_host = reader.number(1) == 0;
  const std::string name = reader.vector_of(2);
  return body.is_through() && reader.is_good() && is_host ? name : std::string();
}

void read_bodies(ClientHello& hello) {
  hello.versions = numbers_of(hello.find(kVersionsExtension), 1);
  hello.groups = numbers_of(hello.find(kGroupsExtension), 2);
  hello.signature_algorithms = numbers_of(hello.find(kSignatureAlgorithmsExtension), 2);
  hello.certificate_signatures = numbers_of(hello.find(kCertificateSignaturesExtension), 2);
  hello.key_shares = key_shares_of(hello.find(kKeySharesExtension));
  hello.alpn = alpn_of(hello.find(kAlpnExtension));
  hello.server_name = server_name_of(hello.find(kServerNameExtension));
}

/// Hellos from before extensions end behind the compressions.
bool read_extensions(Fields& reader, ClientHello& hello) {
  hello.has_extensions = reader.is_good() && !reader.at_end();
  if (!hello.has_extensions) {
    return reader.is_through();
  }
  const Bytes list = reader.vector_of(2);
  Fields each(list);
  while (each.is_good() && !each.at_end()) {
    const std::uint16_t kind = each.short_number();
    hello.extensions.push_back({kind, each.vector_of(2)});
  }
  return reader.is_through() && each.is_through();
}

void append_number(Bytes& bytes, std::size_t value, int length) {
  for (int shift = 8 * (length - 1); shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
}

std::uint16_t normalised(std::uint16_t number) { return is_grease(number) ? kGrease : number; }

Bytes normalised_list(const Numbers& numbers) {
  Bytes bytes;
  for (const std::uint16_t number : numbers) {
    append_number(bytes, normalised(number), 2);
  }
  return bytes;
}

/// The groups, and how long each key is.
Bytes normalised_shares(const std::vector<KeyShare>& shares) {
  Bytes bytes;
  for (const KeyShare& share : shares) {
    append_number(bytes, normalised(share.group), 2);
    append_number(bytes, share.key.size(), 2);
  }
  return bytes;
}

/// A list that could not be read stays as it is.
Bytes normalised_body(const ClientHello& hello, const Extension& extension) {
  const auto or_body = [&](const Bytes& list) { return list.empty() ? extension.body : list; };
  switch (extension.kind) {
    case kServerNameExtension:
    case kSessionTicketExtension:
    case kPreSharedKeyExtension:
    case kCookieExtension:
    case kEncryptedHelloExtension:
      return {};
    case kVersionsExtension:
      return or_body(normalised_list(hello.versions));
    case kGroupsExtension:
      return or_body(normalised_list(hello.groups));
    case kSignatureAlgorithmsExtension:
      return or_body(normalised_list(hello.signature_algorithms));
    case kCertificateSignaturesExtension:
      return or_body(normalised_list(hello.certificate_signatures));
    case kKeySharesExtension:
      return or_body(normalised_shares(hello.key_shares));
    default:
      return is_grease(extension.kind) ? Bytes() : extension.body;
  }
}

}  // namespace

const Extension* ClientHello::find(std::uint16_t kind) const {
  const auto found = std::find_if(extensions.begin(), extensions.end(),
                                  [kind](const Extension& one) { return one.kind == kind; });
  return found != extensions.end() ? &*found : nullptr;
}

bool is_grease(std::uint16_t number) {
  return (number & 0x0f0f) == 0x0a0a && number >> 8 == (number & 0xff);
}

std::optional<ClientHello> read_client_hello(const Bytes& message) {
  Fields reader(message);
  const bool is_hello = reader.number(1) == kClientHello;
  const Bytes body = reader.vector_of(3);
  if (!is_hello || !reader.is_through()) {
    return std::nullopt;
  }
  Fields fields(body);
  ClientHello hello;
  hello.version = fields.short_number();
  hello.random = fields.take(kRandomBytes);
  hello.session_id = fields.vector_of(1);
  const bool has_suites = read_numbers(fields.vector_of(2), hello.suites) && !hello.suites.empty();
  hello.compressions = fields.vector_of(1);
  if (!has_suites || hello.compressions.empty() || hello.session_id.size() > kMostSessionId ||
      !read_extensions(fields, hello)) {
    return std::nullopt;
  }
  read_bodies(hello);
  return hello;
}

std::string comparison_key(const Bytes& message) {
  const std::optional<ClientHello> hello = read_client_hello(message);
  if (!hello) {
    return {};
  }
  std::vector<Bytes> extensions;
  for (const Extension& extension : hello->extensions) {
    if (extension.kind != kPaddingExtension) {
      const Bytes body = normalised_body(*hello, extension);
      Bytes text;
      append_number(text, normalised(extension.kind), 2);
      append_number(text, body.size(), 2);
      extensions.push_back(text + body);
    }
  }
  std::sort(extensions.begin(), extensions.end());
  Bytes key;
  append_number(key, hello->version, 2);
  append_number(key, hello->suites.size(), 2);
  key += normalised_list(hello->suites);
  append_number(key, hello->compressions.size(), 1);
  key += hello->compressions + (hello->has_extensions ? "+" : "-");
  for (const Bytes& extension : extensions) {
    key += extension;
  }
  return key;
}

}  // namespace kelotlsctl
