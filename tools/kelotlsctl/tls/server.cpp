// Owns handshakes with a running server: its addresses, sockets and timeouts, and carrying bytes
// between OpenSSL and a socket.
#include <openssl/err.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "files.h"
#include "tls/client.h"

namespace kelotlsctl {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kTimeout(2);

/// False with errno set, as the next one.
bool wait_for(int socket, short events, Clock::time_point deadline) {
  int ready = 0;
  do {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd entry = {socket, events, 0};
    ready = left.count() > 0 ? ::poll(&entry, 1, static_cast<int>(left.count())) : 0;
  } while (ready < 0 && errno == EINTR);
  return ready > 0 || (ready == 0 && kelotls::fail(ETIMEDOUT));
}

bool connect_within_timeout(int socket, const sockaddr* address, socklen_t length) {
  if (::connect(socket, address, length) == 0) {
    return true;
  }
  int error = 0;
  socklen_t size = sizeof error;
  return errno == EINPROGRESS && wait_for(socket, POLLOUT, Clock::now() + kTimeout) &&
         ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
         (error == 0 || kelotls::fail(error));
}

/// OpenSSL's bytes at one end of a pair of BIOs, the socket at the other. Not a socket BIO, whose
/// writes to a closed connection would end the process with SIGPIPE.
class Wire {
 public:
  Wire(SSL* client, int socket)
      : socket_(socket), deadline_(Clock::now() + kTimeout), wire_end_(attach_bio_pair(client)) {}

  /// Sends what the client has written, an alert too. Why that failed, or empty.
  std::string send_pending() {
    char* data = nullptr;
    for (int length = 0; (length = BIO_nread0(wire_end_.get(), &data)) > 0;) {
      const ssize_t sent =
          wait_for(socket_, POLLOUT, deadline_)
              ? ::send(socket_, data, static_cast<std::size_t>(length), MSG_NOSIGNAL)
              : -1;
      if (sent < 0) {
        return std::strerror(errno);
      }
      BIO_nread(wire_end_.get(), &data, static_cast<int>(sent));
    }
    return std::string();
  }

  /// Hands what has come to OpenSSL. Why nothing will come any more, or empty.
  std::string receive() {
    char buffer[4096];
    const auto room = static_cast<std::size_t>(BIO_ctrl_get_write_guarantee(wire_end_.get()));
    const ssize_t length = wait_for(socket_, POLLIN, deadline_)
                               ? ::recv(socket_, buffer, std::min(room, sizeof buffer), 0)
                               : -1;
    if (length < 0) {
      return std::strerror(errno);
    }
    BIO_write(wire_end_.get(), buffer, static_cast<int>(length));
    return length == 0 ? "the server closed the connection" : "";
  }

 private:
  const int socket_;
  const Clock::time_point deadline_;
  const BioOwner wire_end_;
};

}  // namespace

Server::Server(const Client& client, const std::string& host, const std::string& port)
    : client_(client), host_(host), port_(port), is_name_(look_up(AI_NUMERICHOST) != 0) {
  const int result = is_name_ ? look_up(0) : 0;
  if (result != 0) {
    throw std::runtime_error(
        host + " port " + port + " cannot be looked up: " +
        (result == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(result)));
  }
}

int Server::look_up(int flags) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* addresses = nullptr;
  const int result = ::getaddrinfo(host_.c_str(), port_.c_str(), &hints, &addresses);
  addresses_.reset(result == 0 ? addresses : nullptr);
  return result;
}

Outcome Server::shake_hands(const Hello& hello) const {
  const SslOwner client = client_.connect(hello);
  if (is_name_) {
    SSL_set_tlsext_host_name(client.get(), host_.c_str());
  }
  const kelotls::Descriptor socket(connect_to_first());
  Wire wire(client.get(), socket.get());
  Outcome outcome = complete(client.get(), [&](bool is_waiting) {
    const std::string failure = wire.send_pending();
    return failure.empty() && is_waiting ? wire.receive() : failure;
  });
  if (outcome.accepted) {
    SSL_shutdown(client.get());
    wire.send_pending();
  }
  ERR_clear_error();
  return outcome;
}

int Server::connect_to_first() const {
  for (const addrinfo* entry = addresses_.get(); entry != nullptr; entry = entry->ai_next) {
    const int type = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
    kelotls::Descriptor socket(::socket(entry->ai_family, type, 0));
    if (socket.is_open() &&
        connect_within_timeout(socket.get(), entry->ai_addr, entry->ai_addrlen)) {
      return socket.release();
    }
  }
  const std::string reason = std::strerror(errno);
  throw std::runtime_error("Nothing answers at " + host_ + " port " + port_ + ": " + reason);
}

}  // namespace kelotlsctl
