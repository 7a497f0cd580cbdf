// Servers on loopback, inside a test's own process.
#ifndef KELOTLS_TESTS_BED_LOOPBACK_SERVER_H
#define KELOTLS_TESTS_BED_LOOPBACK_SERVER_H

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace kelotls::test {

/// A listener on a loopback address, with a thread that does the given with one connection after
/// the other.
class LoopbackServer {
 public:
  using Serve = std::function<void(int descriptor)>;

  /// family: AF_INET or AF_INET6.
  LoopbackServer(int family, Serve serve);
  ~LoopbackServer();

  /// Nobody listens any more. Waits for the connection that is being served.
  void stop();

  const std::string& port() const { return port_; }

 private:
  void run();

  Serve serve_;
  int listener_;
  std::string port_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

/// Shakes hands and reads until the client closes.
LoopbackServer::Serve serve_tls(SSL_CTX* context);

/// kind: "rsa" or "ecdsa".
void use_certificate(SSL_CTX* context, const std::string& kind);

/// The same certificate as octets. The key of "ecdsa" is on prime256v1.
std::string certificate_in_der(const std::string& kind);

}  // namespace kelotls::test

#endif
