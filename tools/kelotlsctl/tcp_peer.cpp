// Owns sockets and timeouts, and carries a handshake's bytes between OpenSSL and a server.
#include "tcp_peer.h"

#include <netdb.h>
#include <openssl/err.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace kelotlsctl {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kTimeout(2);

class Socket {
 public:
  explicit Socket(int descriptor) : descriptor_(descriptor) {}
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
  }

  int get() const { return descriptor_; }
  int release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_;
};

/// 0, or the errno of what went wrong.
int wait_for(int descriptor, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      return ETIMEDOUT;
    }
    pollfd entry = {descriptor, events, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
    if (ready > 0) {
      return 0;
    }
    if (ready < 0 && errno != EINTR) {
      return errno;
    }
  }
}

int connect_within_timeout(int descriptor, const sockaddr* address, socklen_t length) {
  if (::connect(descriptor, address, length) == 0) {
    return 0;
  }
  if (errno != EINPROGRESS) {
    return errno;
  }
  int error = wait_for(descriptor, POLLOUT, Clock::now() + kTimeout);
  if (error == 0) {
    socklen_t size = sizeof error;
    ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
  }
  return error;
}

/// A handshake under way: OpenSSL's bytes at one end of a pair of BIOs, the socket at the other.
/// Not a socket BIO, whose writes to a closed connection would end the process with SIGPIPE.
class Wire {
 public:
  Wire(SSL* client, int socket) : socket_(socket), deadline_(Clock::now() + kTimeout) {
    BIO* client_end = nullptr;
    BIO* wire_end = nullptr;
    if (BIO_new_bio_pair(&client_end, 0, &wire_end, 0) != 1) {
      throw std::runtime_error("OpenSSL: no memory for a connection");
    }
    SSL_set_bio(client, client_end, client_end);
    wire_end_.reset(wire_end);
  }

  /// Why the handshake did not complete; empty once it did.
  std::string complete(SSL* client) {
    for (;;) {
      const Step step = advance(client);
      std::string failure = step == Step::kFailed ? take_openssl_reason() : std::string();
      const int error = send_pending();  // an alert too
      if (failure.empty() && error != 0) {
        failure = std::strerror(error);
      }
      if (failure.empty() && step == Step::kWaiting) {
        failure = receive();
      }
      if (!failure.empty() || step == Step::kDone) {
        return failure;
      }
    }
  }

  int send_pending() {
    char buffer[4096];
    for (int length = 0; (length = BIO_read(wire_end_.get(), buffer, sizeof buffer)) > 0;) {
      const int error = send_all(buffer, static_cast<std::size_t>(length));
      if (error != 0) {
        return error;
      }
    }
    return 0;
  }

 private:
  int send_all(const char* data, std::size_t length) {
    while (length > 0) {
      const ssize_t sent = ::send(socket_, data, length, MSG_NOSIGNAL);
      if (sent > 0) {
        data += sent;
        length -= static_cast<std::size_t>(sent);
        continue;
      }
      const int error = errno == EAGAIN ? wait_for(socket_, POLLOUT, deadline_) : errno;
      if (error != 0 && error != EINTR) {
        return error;
      }
    }
    return 0;
  }

  /// Hands what has come to OpenSSL. Why nothing will come any more, or empty.
  std::string receive() {
    char buffer[4096];
    for (;;) {
      const int error = wait_for(socket_, POLLIN, deadline_);
      if (error != 0) {
        return std::strerror(error);
      }
      const auto room = static_cast<std::size_t>(BIO_ctrl_get_write_guarantee(wire_end_.get()));
      const ssize_t length = ::recv(socket_, buffer, std::min(room, sizeof buffer), 0);
      if (length > 0) {
        BIO_write(wire_end_.get(), buffer, static_cast<int>(length));
        return std::string();
      }
      if (length == 0) {
        return "the server closed the connection";
      }
      if (errno != EINTR && errno != EAGAIN) {
        return std::strerror(errno);
      }
    }
  }

  int socket_;
  Clock::time_point deadline_;
  BioOwner wire_end_;
};

bool is_name(const std::string& host) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* addresses = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &addresses) != 0) {
    return true;
  }
  ::freeaddrinfo(addresses);
  return false;
}

}  // namespace

TcpPeer::TcpPeer(const Client& client, const std::string& host, const std::string& port)
    : client_(client), host_(host), port_(port), is_name_(is_name(host)) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* raw = nullptr;
  const int result = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &raw);
  if (result != 0) {
    throw std::runtime_error(
        host + " port " + port + " cannot be looked up: " +
        (result == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(result)));
  }
  const std::unique_ptr<addrinfo, Release<::freeaddrinfo>> owner(raw);
  for (const addrinfo* entry = raw; entry != nullptr; entry = entry->ai_next) {
    Address address = {entry->ai_family, {}, entry->ai_addrlen};
    std::memcpy(&address.storage, entry->ai_addr, entry->ai_addrlen);
    addresses_.push_back(address);
  }
}

Outcome TcpPeer::shake_hands(const Hello& hello) {
  const SslOwner client = client_.connect(hello);
  if (is_name_) {
    SSL_set_tlsext_host_name(client.get(), host_.c_str());
  }
  const Socket socket(connect_to_first());
  Wire wire(client.get(), socket.get());
  Outcome outcome;
  const std::string reason = wire.complete(client.get());
  if (reason.empty()) {
    outcome = outcome_of(client.get());
    SSL_shutdown(client.get());
    wire.send_pending();
  }
  outcome.reason = reason;
  ERR_clear_error();
  return outcome;
}

int TcpPeer::connect_to_first() const {
  int error = 0;
  for (const Address& address : addresses_) {
    Socket socket(::socket(address.family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    error = socket.get() < 0
                ? errno
                : connect_within_timeout(socket.get(),
                                         reinterpret_cast<const sockaddr*>(&address.storage),
                                         address.length);
    if (error == 0) {
      return socket.release();
    }
  }
  throw std::runtime_error("Nothing answers at " + host_ + " port " + port_ + ": " +
                           std::strerror(error));
}

}  // namespace kelotlsctl
