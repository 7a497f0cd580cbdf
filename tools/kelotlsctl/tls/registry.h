// Owns the cipher suites and named groups that TLS knows, by number and by name. None of it depends
// on what the local OpenSSL can do.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelotlsctl {

struct CipherSuite {
  std::uint16_t number;
  const char* name;       ///< OpenSSL's spelling where OpenSSL has or had one, else the registry's
  const char* iana_name;  ///< the registry's, or what is usual where the registry has none
};

struct NamedGroup {
  std::uint16_t number;
  const char* name;       ///< as the levels spell it, such as prime256v1
  const char* iana_name;  ///< such as secp256r1
};

/// How a suite agrees on its keys, and how the server proves itself while doing so.
enum class KeyExchange {
  kEcdheEcdsa,
  kEcdheRsa,
  kDheRsa,
  kDheDss,
  kRsa,
  kDhAnon,
  kEcdhAnon,
  kStaticDh,
  kStaticEcdh,
  kPsk,  ///< with or without DH, ECDH or RSA
  kSrp,
  kKrb5,
  kGost,
  kOther,
  kLeftOpen,  ///< the suite leaves it open; only TLS 1.3 has such suites
};

/// In ascending order of their numbers.
const std::vector<CipherSuite>& all_suites();
const std::vector<NamedGroup>& all_groups();

/// Null: none has this number.
const CipherSuite* find_suite(std::uint16_t number);
const NamedGroup* find_group(std::uint16_t number);

/// The name; or the number, such as "0x1234", where none has it.
std::string suite_name(std::uint16_t number);
std::string group_name(std::uint16_t number);

/// "0x1234".
std::string hexadecimal(std::uint16_t number);

/// By either spelling; 0 where neither is known.
std::uint16_t suite_number(const std::string& name);
std::uint16_t group_number(const std::string& name);

KeyExchange key_exchange_of(const CipherSuite& suite);

}  // namespace kelotlsctl
