// Owns the reading of ClientHellos that came from clients, and when two of them are from clients
// that offer the same.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tls/hello.h"

namespace kelotlsctl {

/// The first bytes of a handshake message: its type, and its length in three bytes.
constexpr std::size_t kHandshakeHeader = 4;

// Kinds of extensions, by their numbers on the wire.
constexpr std::uint16_t kServerNameExtension = 0x0000;
constexpr std::uint16_t kGroupsExtension = 0x000a;
constexpr std::uint16_t kSignatureAlgorithmsExtension = 0x000d;
constexpr std::uint16_t kAlpnExtension = 0x0010;
constexpr std::uint16_t kPaddingExtension = 0x0015;
constexpr std::uint16_t kSessionTicketExtension = 0x0023;
constexpr std::uint16_t kPreSharedKeyExtension = 0x0029;
constexpr std::uint16_t kVersionsExtension = 0x002b;
constexpr std::uint16_t kCookieExtension = 0x002c;
constexpr std::uint16_t kCertificateSignaturesExtension = 0x0032;
constexpr std::uint16_t kKeySharesExtension = 0x0033;
constexpr std::uint16_t kEncryptedHelloExtension = 0xfe0d;

struct Extension {
  std::uint16_t kind = 0;
  Bytes body;
};

struct KeyShare {
  std::uint16_t group = 0;
  Bytes key;
};

/// What a client offers. Numbers are as on the wire, those that mean nothing (GREASE) among them.
struct ClientHello {
  std::uint16_t version = 0;  ///< the field of old; TLS 1.3 is among the versions
  Bytes random;
  Bytes session_id;
  Numbers suites;
  Bytes compressions;
  bool has_extensions = false;  ///< there is a list of them, even an empty one
  std::vector<Extension> extensions;

  // Out of extensions; empty without such an extension, and where its body cannot be read.
  Numbers versions;
  Numbers groups;
  Numbers signature_algorithms;
  Numbers certificate_signatures;
  std::vector<KeyShare> key_shares;
  std::vector<std::string> alpn;
  std::string server_name;

  const Extension* find(std::uint16_t kind) const;
};

/// Whether the number is one of those that clients mix in to see that servers pass over what they
/// do not know (RFC 8701).
bool is_grease(std::uint16_t number);

/// Reads a whole handshake message, header included. Nothing where it is no ClientHello, or where a
/// length in it does not fit, of its extensions too; what is in an extension need not make sense.
std::optional<ClientHello> read_client_hello(const Bytes& message);

/// The hello without what differs from one connection of a client to the next: equal for two hellos
/// of one client. The random, the session id, the keys of key shares, GREASE, padding, the server's
/// name, tickets, pre-shared keys and what is encrypted are normalised, and the extensions sorted,
/// which browsers shuffle. Empty for what is no ClientHello.
std::string comparison_key(const Bytes& message);

}  // namespace kelotlsctl
