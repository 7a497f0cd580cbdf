// Owns what certificates a service is judged with: those of its running server, or what is said.
#pragma once

#include <string>
#include <vector>

#include "peers/asker.h"
#include "store/addresses.h"
#include "tls/certificates.h"

namespace kelotlsctl {

struct ShownCertificates {
  std::vector<CertificateFacts> certificates;  ///< one of each kind
  std::string source;                          ///< "server", "option" or "assumed"
  std::string text;                            ///< of what is assumed: why
};

/// What the service's running server shows, asked with a few handshakes; RSA of 2048 bits where
/// no address is kept, nothing answers, or no certificate like those shown can be made.
ShownCertificates shown_certificates(const Addresses& addresses, const std::string& service,
                                     const Patience& patience);

/// "rsa:2048", "ecdsa:P-384", "rsa-pss:3072", "ed25519", "ed448", or more of them with commas
/// between. A Failure (usage) for anything else.
ShownCertificates parse_certificates(const std::string& text);

}  // namespace kelotlsctl
