// Owns what a server's certificate says.
#pragma once

#include <string>
#include <vector>

#include "tls/hello.h"

namespace kelotlsctl {

/// Signature algorithms in OpenSSL's spelling, those of each kind of certificate together.
constexpr const char* kSignaturesByKind[] = {
    ("RSA-PSS+SHA256:RSA-PSS+SHA384:RSA-PSS+SHA512:rsa_pss_pss_sha256:rsa_pss_pss_sha384:"
     "rsa_pss_pss_sha512"),
    "ECDSA+SHA256:ECDSA+SHA384:ECDSA+SHA512", "ed25519:ed448"};

struct CertificateFacts {
  std::string kind;  ///< of its key: RSA, RSA-PSS, ECDSA, Ed25519, Ed448, DSA; "" if unreadable
  int bits = 0;
  std::string curve;      ///< of an ECDSA key, as the levels spell it
  std::string signature;  ///< that of its issuer, such as sha256WithRSAEncryption
  std::string subject;
  std::vector<std::string> names;  ///< "DNS:example.org", "IP:192.0.2.1"
  std::string not_before;          ///< "2026-01-31T00:00:00Z"
  std::string not_after;
};

/// Of a certificate in DER.
CertificateFacts describe_certificate(const Bytes& der);

}  // namespace kelotlsctl
