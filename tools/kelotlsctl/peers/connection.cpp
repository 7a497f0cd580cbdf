// Owns connections with a running server.
#include "peers/connection.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "peers/starttls.h"

namespace kelotlsctl {

namespace {

/// False with errno set, as the next one.
bool wait_for(int socket, short events, Clock::time_point until) {
  int ready = 0;
  do {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    pollfd entry = {socket, events, 0};
    ready = left.count() > 0 ? ::poll(&entry, 1, static_cast<int>(left.count())) : 0;
  } while (ready < 0 && errno == EINTR);
  return ready > 0 || (ready == 0 && kelotls::fail(ETIMEDOUT));
}

bool connect_until(int socket, const sockaddr* address, socklen_t length, Clock::time_point until) {
  if (::connect(socket, address, length) == 0) {
    return true;
  }
  int error = 0;
  socklen_t size = sizeof error;
  return errno == EINPROGRESS && wait_for(socket, POLLOUT, until) &&
         ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
         (error == 0 || kelotls::fail(error));
}

kelotls::Descriptor make_socket(int family) {
  return kelotls::Descriptor(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

std::string reason_of_errno() {
  return errno == ETIMEDOUT                      ? kTimedOut
         : errno == ECONNRESET || errno == EPIPE ? kReset
                                                 : std::strerror(errno);
}

std::shared_ptr<addrinfo> look_up(const Address& address, int flags) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* found = nullptr;
  const int result = ::getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
  if (result != 0 && flags == 0) {
    throw std::runtime_error(
        place_of(address) + " cannot be looked up: " +
        (result == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(result)));
  }
  return result == 0 ? std::shared_ptr<addrinfo>(found, ::freeaddrinfo) : nullptr;
}

kelotls::Descriptor connect_to_path(const std::string& path, Clock::time_point until) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  kelotls::Descriptor socket = make_socket(AF_UNIX);
  const bool is_connected =
      socket.is_open() && connect_until(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                                        sizeof address, until);
  return kelotls::Descriptor(is_connected ? socket.release() : -1);
}

}  // namespace

std::string Connection::send(const Bytes& bytes) const {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t count =
        wait_for(socket_.get(), POLLOUT, until_)
            ? ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL)
            : -1;
    if (count < 0) {
      return reason_of_errno();
    }
    sent += static_cast<std::size_t>(count);
  }
  return std::string();
}

std::string Connection::receive(Bytes& received) const {
  char buffer[4096];
  const ssize_t count = wait_for(socket_.get(), POLLIN, until_)
                            ? ::recv(socket_.get(), buffer, sizeof buffer, 0)
                            : -1;
  if (count < 0) {
    return reason_of_errno();
  }
  received.append(buffer, static_cast<std::size_t>(count));
  return count == 0 ? kClosed : "";
}

void Connection::end_sending() const { ::shutdown(socket_.get(), SHUT_WR); }

Server::Server(const Address& address) : address_(address), name_(address.server_name) {
  if (!address.unix_path.empty()) {
    return;
  }
  found_ = look_up(address, AI_NUMERICHOST);
  if (found_ == nullptr) {
    found_ = look_up(address, 0);
    name_ = name_.empty() ? address.host : name_;
  }
}

kelotls::Descriptor Server::open_socket(Clock::time_point until) const {
  if (!address_.unix_path.empty()) {
    return connect_to_path(address_.unix_path, until);
  }
  for (const addrinfo* entry = found_.get(); entry != nullptr; entry = entry->ai_next) {
    kelotls::Descriptor socket = make_socket(entry->ai_family);
    if (socket.is_open() && connect_until(socket.get(), entry->ai_addr, entry->ai_addrlen, until)) {
      return kelotls::Descriptor(socket.release());
    }
  }
  return kelotls::Descriptor(-1);
}

std::unique_ptr<Connection> Server::connect(Clock::time_point until, std::string& reason) {
  kelotls::Descriptor socket = open_socket(until);
  is_reached_ = socket.is_open();
  if (!is_reached_) {
    reason = reason_of_errno();
    return nullptr;
  }
  auto connection = std::make_unique<Connection>(socket.release(), until);
  if (!address_.starttls.empty()) {
    reason = start_tls(address_.starttls, name_,
                       {[&](const Bytes& bytes) { return connection->send(bytes); },
                        [&](Bytes& received) { return connection->receive(received); }});
  }
  return reason.empty() ? std::move(connection) : nullptr;
}

Answer Server::ask(Hello hello, Clock::time_point until) {
  hello.server_name = name_;
  AnswerReader reader(hello);
  std::string reason;
  const std::unique_ptr<Connection> connection = connect(until, reason);
  if (connection != nullptr) {
    // A server may answer and close before it has read everything: what it said counts.
    reason = connection->send(write_hello(hello));
    for (bool is_complete = false; !is_complete;) {
      Bytes received;
      const std::string obstacle = connection->receive(received);
      is_complete = reader.take(received) || !obstacle.empty();
      reason = reason.empty() ? obstacle : reason;
    }
  }
  return reader.finish(reason);
}

std::string place_of(const Address& address) {
  return !address.unix_path.empty() ? "unix:" + address.unix_path
                                    : address.host + " port " + address.port;
}

}  // namespace kelotlsctl
