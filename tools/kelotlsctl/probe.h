// Shaking hands with a service for real, version by version and suite by suite.
#ifndef KELOTLSCTL_PROBE_H
#define KELOTLSCTL_PROBE_H

#include <json/value.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>

namespace kelotlsctl {

/// A context, tried in memory with a throw-away certificate; or a running server's host and port.
/// With both, the server is tried, and the context tells what is missing in it for the same reason.
struct ProbeTarget {
  SSL_CTX* context = nullptr;
  std::string host;
  std::string port;
};

/// Tries each protocol version with each suite that this machine's OpenSSL can offer as a client
/// (for RSA, ECDSA or no certificate), and each of five groups, and compares what was accepted
/// with what the level asks for:
///   {"level", "name", "target": "context" or "HOST port PORT", "agrees": no difference at all,
///    "certificates": ["RSA", "ECDSA"], the kinds that the server showed,
///    "handshakes": [{"tries": "suite" or "group", "version", "suite": name or null, "group": name
///       or null, "dh-bits": number or null, "intended": bool, "accepted": bool}],
///    "not-testable": [{"what", "text"}], what the level asks for and could not be tried,
///    "differences": as explain_context gives them}
/// With a context: it keeps its settings and its sessions. With a server: TCP over IPv6 or IPv4,
/// the host's name as SNI unless it is an address; two seconds at most for each connection and for
/// each handshake. progress, unless empty, is called with what is done of how much.
/// Throws std::runtime_error, with a text for the operator, when nothing answers at host and port
/// or what answers completes no TLS handshake.
Json::Value probe(const ProbeTarget& target, int level,
                  const std::function<void(std::size_t done, std::size_t all)>& progress);

/// Tables of at most 80 columns.
void print_probe(std::ostream& out, const Json::Value& report, bool colour);

}  // namespace kelotlsctl

#endif
