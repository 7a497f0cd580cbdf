// Owns connections with a running server: its addresses, sockets and timeouts, and the bytes that
// go over them.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "files.h"
#include "tls/answer.h"

struct addrinfo;

namespace kelotlsctl {

using Clock = std::chrono::steady_clock;

/// Where a running server is asked, and how.
struct Address {
  std::string host;  ///< without brackets
  std::string port;
  std::string unix_path;    ///< of a socket in the file system, instead of host and port
  std::string starttls;     ///< the protocol that is spoken before TLS; empty: none
  std::string server_name;  ///< for the hello; empty: the host, where that is a name
  std::string expected;     ///< the path of a file of expected differences; empty: none
};

/// The reasons of a server that says nothing more; kClosed is another.
constexpr char kTimedOut[] = "the server did not answer in time";
constexpr char kReset[] = "the server reset the connection";

/// A connected socket, until a point in time. Nothing raises SIGPIPE.
class Connection {
 public:
  /// Owns the socket.
  Connection(int socket, Clock::time_point until) : socket_(socket), until_(until) {}

  /// Why not everything was sent, or empty.
  std::string send(const Bytes& bytes) const;

  /// Appends what comes, at least one byte. Why nothing comes, or empty.
  std::string receive(Bytes& received) const;

  /// Tells the server that nothing more is sent.
  void end_sending() const;

 private:
  kelotls::Descriptor socket_;
  Clock::time_point until_;
};

/// A running server. Each hello gets a connection of its own, to the first address that answers.
class Server {
 public:
  /// Looks the host up, over IPv6 and IPv4. Throws std::runtime_error, with a text for the
  /// operator, when there is none.
  explicit Server(const Address& address);

  /// The answer to the hello, which gets the server's name. Where no connection comes about, or the
  /// protocol before TLS does not lead to it, the answer is not known, and is_reached tells.
  Answer ask(Hello hello, Clock::time_point until);

  /// A connection on which a hello is due; null, and the reason, where there is none.
  std::unique_ptr<Connection> connect(Clock::time_point until, std::string& reason);

  /// Whether the last connection came about.
  bool is_reached() const { return is_reached_; }

  /// As it goes into a hello; empty for an address in numbers.
  const std::string& name() const { return name_; }

 private:
  kelotls::Descriptor open_socket(Clock::time_point until) const;

  Address address_;
  std::string name_;
  std::shared_ptr<addrinfo> found_;
  bool is_reached_ = false;
};

/// "127.0.0.1 port 443", "unix:/run/x".
std::string place_of(const Address& address);

}  // namespace kelotlsctl
