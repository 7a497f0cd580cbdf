// Handshakes with a running server.
#ifndef KELOTLSCTL_TCP_PEER_H
#define KELOTLSCTL_TCP_PEER_H

#include <sys/socket.h>

#include <string>
#include <vector>

#include "handshake.h"

namespace kelotlsctl {

class TcpPeer : public Peer {
 public:
  /// Looks the name up, over IPv6 and IPv4. Throws std::runtime_error when there is none.
  TcpPeer(const Client& client, const std::string& host, const std::string& port);

  /// Over a connection of its own, to the first address that answers. Throws std::runtime_error
  /// when none does within two seconds. A handshake that takes longer is refused.
  Outcome shake_hands(const Hello& hello) override;

 private:
  struct Address {
    int family;
    sockaddr_storage storage;
    socklen_t length;
  };

  int connect_to_first() const;

  const Client& client_;
  std::string host_;
  std::string port_;
  bool is_name_ = false;
  std::vector<Address> addresses_;
};

}  // namespace kelotlsctl

#endif
