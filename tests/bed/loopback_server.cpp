#include "loopback_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kelotls::test {

LoopbackServer::LoopbackServer(int family, Serve serve)
    : serve_(std::move(serve)), listener_(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_storage address = {};
  address.ss_family = static_cast<sa_family_t>(family);
  socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  auto* const v4 = reinterpret_cast<sockaddr_in*>(&address);
  auto* const v6 = reinterpret_cast<sockaddr_in6*>(&address);
  if (family == AF_INET6) {
    v6->sin6_addr = in6addr_loopback;
  } else {
    v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  if (::bind(listener_, generic, length) != 0 || ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, generic, &length) != 0) {
    throw std::runtime_error(std::string("no listener: ") + std::strerror(errno));
  }
  port_ = std::to_string(ntohs(family == AF_INET6 ? v6->sin6_port : v4->sin_port));
  thread_ = std::thread([this] { run(); });
}

LoopbackServer::~LoopbackServer() { stop(); }

void LoopbackServer::stop() {
  stopping_ = true;
  if (thread_.joinable()) {
    thread_.join();
    ::close(listener_);
  }
}

void LoopbackServer::run() {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);  // a client may be gone before the answer to it
  ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  while (!stopping_) {
    pollfd entry = {listener_, POLLIN, 0};
    if (::poll(&entry, 1, 10) == 1) {
      const int connection = ::accept(listener_, nullptr, nullptr);
      serve_(connection);
      ::close(connection);
    }
  }
}

LoopbackServer::Serve serve_tls(SSL_CTX* context) {
  return [context](int descriptor) {
    SSL* const connection = SSL_new(context);
    SSL_set_fd(connection, descriptor);
    char byte;
    if (SSL_accept(connection) == 1) {
      SSL_read(connection, &byte, 1);
    }
    SSL_free(connection);
  };
}

void use_certificate(SSL_CTX* context, const std::string& kind) {
  const std::string path = std::string(KELOTLS_CERTIFICATES) + "/" + kind + ".pem";
  ASSERT_EQ(SSL_CTX_use_certificate_chain_file(context, path.c_str()), 1);
  ASSERT_EQ(SSL_CTX_use_PrivateKey_file(context, path.c_str(), SSL_FILETYPE_PEM), 1);
}

std::string certificate_in_der(const std::string& kind) {
  SSL_CTX* const context = SSL_CTX_new(TLS_method());
  SSL_CTX_set_security_level(context, 0);
  use_certificate(context, kind);
  unsigned char* der = nullptr;
  const int length = i2d_X509(SSL_CTX_get0_certificate(context), &der);
  const std::string octets(reinterpret_cast<char*>(der), static_cast<std::size_t>(length));
  OPENSSL_free(der);
  SSL_CTX_free(context);
  return octets;
}

}  // namespace kelotls::test
