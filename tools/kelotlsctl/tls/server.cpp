// Owns handshakes with a running server: its addresses, sockets and timeouts, and carrying bytes
// between OpenSSL and a socket.
#include <netdb.h>
#include <openssl/err.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
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

// Not a socket BIO, whose writes to a closed connection would end the process with SIGPIPE.

/// Sends what the client has written, an alert too. Why that failed, or empty.
std::string send_pending(BIO* wire, int socket, Clock::time_point deadline) {
  char* data = nullptr;
  for (int length = 0; (length = BIO_nread0(wire, &data)) > 0;) {
    const ssize_t sent = wait_for(socket, POLLOUT, deadline)
                             ? ::send(socket, data, static_cast<std::size_t>(length), MSG_NOSIGNAL)
                             : -1;
    if (sent < 0) {
      return std::strerror(errno);
    }
    BIO_nread(wire, &data, static_cast<int>(sent));
  }
  return std::string();
}

/// Hands what has come to OpenSSL. Why nothing will come any more, or empty.
std::string receive(BIO* wire, int socket, Clock::time_point deadline) {
  char buffer[4096];
  const auto room = static_cast<std::size_t>(BIO_ctrl_get_write_guarantee(wire));
  const ssize_t length = wait_for(socket, POLLIN, deadline)
                             ? ::recv(socket, buffer, std::min(room, sizeof buffer), 0)
                             : -1;
  if (length < 0) {
    return std::strerror(errno);
  }
  BIO_write(wire, buffer, static_cast<int>(length));
  return length == 0 ? "the server closed the connection" : "";
}

/// A closed descriptor with errno set where no address answers.
kelotls::Descriptor connect_to_first(const addrinfo* addresses) {
  for (const addrinfo* entry = addresses; entry != nullptr; entry = entry->ai_next) {
    const int type = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
    kelotls::Descriptor socket(::socket(entry->ai_family, type, 0));
    if (socket.is_open() &&
        connect_within_timeout(socket.get(), entry->ai_addr, entry->ai_addrlen)) {
      return kelotls::Descriptor(socket.release());
    }
  }
  return kelotls::Descriptor(-1);
}

}  // namespace

ShakeHands handshakes_with(const Client& client, const std::string& host, const std::string& port) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* found = nullptr;
  const bool is_name = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0;
  hints.ai_flags = 0;
  const int result = is_name ? ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) : 0;
  const std::string place = host + " port " + port;
  if (result != 0) {
    throw std::runtime_error(
        place + " cannot be looked up: " +
        (result == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(result)));
  }
  const std::shared_ptr<addrinfo> addresses(found, ::freeaddrinfo);
  return [&client, addresses, place, name = is_name ? host : ""](const Hello& hello) {
    const kelotls::Descriptor socket = connect_to_first(addresses.get());
    if (!socket.is_open()) {
      throw std::runtime_error("Nothing answers at " + place + ": " + std::strerror(errno));
    }
    const auto deadline = Clock::now() + kTimeout;
    return client.shake_hands(hello, name, [&](BIO* wire, bool is_waiting) {
      const std::string failure = send_pending(wire, socket.get(), deadline);
      return failure.empty() && is_waiting ? receive(wire, socket.get(), deadline) : failure;
    });
  };
}

}  // namespace kelotlsctl
