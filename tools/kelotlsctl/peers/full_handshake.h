// Owns whole handshakes with this machine's OpenSSL as the client, for what TLS 1.3 hides from a
// hello: certificates and tickets.
#pragma once

#include <string>
#include <vector>

#include "peers/connection.h"

namespace kelotlsctl {

struct FullHandshake {
  bool is_complete = false;         ///< the server has taken the client's last message, too
  std::vector<Bytes> certificates;  ///< DER, the server's own first
  bool has_ticket = false;
  std::size_t longest_ticket = 0;
};

/// In TLS 1.3, with a client that takes whatever certificate it is shown, made with these signature
/// algorithms in OpenSSL's spelling, and has none itself.
FullHandshake shake_hands(const Connection& connection, const std::string& server_name,
                          const std::string& signature_algorithms);

}  // namespace kelotlsctl
