// Owns looking up cipher suites and named groups, and what the registry's name of a suite tells.
#include "tls/registry.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "system/hexadecimal.h"

namespace kelotlsctl {
namespace {

template <typename Row>
const Row* find(const std::vector<Row>& rows, std::uint16_t number) {
  const auto row =
      std::lower_bound(rows.begin(), rows.end(), number,
                       [](const Row& one, std::uint16_t wanted) { return one.number < wanted; });
  return row != rows.end() && row->number == number ? &*row : nullptr;
}

template <typename Row>
std::uint16_t number_of(const std::vector<Row>& rows, const std::string& name) {
  for (const Row& row : rows) {
    if (name == row.name || name == row.iana_name) {
      return row.number;
    }
  }
  return 0;
}

template <typename Row>
std::string name_of(const Row* row, std::uint16_t number) {
  return row != nullptr ? row->name : hexadecimal(number);
}

struct Prefix {
  const char* text;
  KeyExchange key_exchange;
};

// The first that fits counts. Between the prefix and _WITH_ can stand what weakens the exchange.
constexpr std::array<Prefix, 19> kPrefixes = {{
    {"TLS_ECDHE_ECDSA_", KeyExchange::kEcdheEcdsa},
    {"TLS_ECDHE_RSA_", KeyExchange::kEcdheRsa},
    {"TLS_ECDHE_PSK_", KeyExchange::kPsk},
    {"TLS_DHE_PSK_", KeyExchange::kPsk},
    {"TLS_RSA_PSK_", KeyExchange::kPsk},
    {"TLS_PSK_", KeyExchange::kPsk},
    {"TLS_DHE_RSA_", KeyExchange::kDheRsa},
    {"TLS_DHE_DSS_", KeyExchange::kDheDss},
    {"TLS_RSA_", KeyExchange::kRsa},
    {"SSL_RSA_FIPS_", KeyExchange::kRsa},
    {"TLS_DH_anon_", KeyExchange::kDhAnon},
    {"TLS_ECDH_anon_", KeyExchange::kEcdhAnon},
    {"TLS_DH_RSA_", KeyExchange::kStaticDh},
    {"TLS_DH_DSS_", KeyExchange::kStaticDh},
    {"TLS_ECDH_RSA_", KeyExchange::kStaticEcdh},
    {"TLS_ECDH_ECDSA_", KeyExchange::kStaticEcdh},
    {"TLS_SRP_", KeyExchange::kSrp},
    {"TLS_KRB5_", KeyExchange::kKrb5},
    {"TLS_GOSTR", KeyExchange::kGost},
}};

/// The suites of TLS 1.3 name no key exchange; those with GOST's MGM mode only seem to.
bool is_of_tls13(const char* name) {
  return std::strstr(name, "_WITH_") == nullptr || std::strstr(name, "_MGM_") != nullptr;
}

}  // namespace

std::string hexadecimal(std::uint16_t number) {
  return "0x" + hexadecimal_digits({static_cast<char>(number >> 8), static_cast<char>(number)});
}

const std::vector<CipherSuite>& all_suites() {
  static const std::vector<CipherSuite> rows = {
#include "tls/registry/cipher_suites.inc"
  };
  return rows;
}

const std::vector<NamedGroup>& all_groups() {
  static const std::vector<NamedGroup> rows = {
#include "tls/registry/named_groups.inc"
  };
  return rows;
}

const CipherSuite* find_suite(std::uint16_t number) { return find(all_suites(), number); }

const NamedGroup* find_group(std::uint16_t number) { return find(all_groups(), number); }

std::string suite_name(std::uint16_t number) { return name_of(find_suite(number), number); }

std::string group_name(std::uint16_t number) { return name_of(find_group(number), number); }

std::uint16_t suite_number(const std::string& name) { return number_of(all_suites(), name); }

std::uint16_t group_number(const std::string& name) { return number_of(all_groups(), name); }

KeyExchange key_exchange_of(const CipherSuite& suite) {
  if (is_of_tls13(suite.iana_name)) {
    return KeyExchange::kLeftOpen;
  }
  for (const Prefix& prefix : kPrefixes) {
    if (std::strncmp(suite.iana_name, prefix.text, std::strlen(prefix.text)) == 0) {
      return prefix.key_exchange;
    }
  }
  return KeyExchange::kOther;
}

}  // namespace kelotlsctl
