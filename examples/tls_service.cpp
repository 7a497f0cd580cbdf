// A small TLS server whose settings follow its service's level: how a service uses the class
// interface.
//
//   tls_service_cpp [--pid-file PATH] NAME CERTIFICATE.pem [PORT]
//
// Serves on the loopback interface, on a port of the kernel's choice without PORT. Answers each
// request with what was negotiated. SIGHUP makes it take up its current level, SIGTERM ends it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <kelotls/api_provider.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kConnectionTime(5000);

struct ContextRelease {
  void operator()(SSL_CTX* context) const { kelotls::APIProvider().release_context(context); }
};
using Context = std::unique_ptr<SSL_CTX, ContextRelease>;

struct ConnectionFree {
  void operator()(SSL* tls) const { SSL_free(tls); }
};
using Connection = std::unique_ptr<SSL, ConnectionFree>;

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) {
      ::close(number_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return number_; }

 private:
  int number_;
};

std::system_error last_error(const std::string& what) {
  return std::system_error(errno, std::generic_category(), what);
}

/// What OpenSSL says went wrong, the first thing of it. Empties its queue.
std::string openssl_reason() {
  char reason[256];
  ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
  ERR_clear_error();
  return reason;
}

/// A context of the service's current level with its certificate: chain and key in one PEM file.
Context make_context(const std::string& name, const std::string& certificate) {
  Context context(kelotls::APIProvider().acquire_server_context(name));
  if (context == nullptr) {
    throw std::runtime_error("no settings for " + name + "; the system log says why");
  }
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), certificate.c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error(certificate + ": " + openssl_reason());
  }
  return context;
}

/// Serves one connection after another, and signals before connections, so that a connection made
/// after SIGHUP gets the new level.
class Service {
 public:
  Service(std::string name, std::string certificate, int signals)
      : name_(std::move(name)),
        certificate_(std::move(certificate)),
        signals_(signals),
        context_(make_context(name_, certificate_)) {}

  void run(int listener) {
    while (wait_until_ready(listener, POLLIN, Clock::time_point::max())) {
      const Descriptor socket(::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (socket.get() >= 0) {  // else the peer has gone again
        serve(socket.get());
      }
    }
  }

 private:
  /// The level may have changed. A service that cannot have its new settings goes on with the old:
  /// without the file of levels, for one, or with a value of the wrong type in it, which jsoncpp
  /// throws for.
  void reload() {
    try {
      // Open connections hold references of their own to the context that goes.
      context_ = make_context(name_, certificate_);
    } catch (const std::exception& failure) {
      std::cerr << "tls_service_cpp: " << failure.what() << "; keeping the former settings"
                << std::endl;
    }
  }

  void take_signal() {
    signalfd_siginfo received = {};
    if (::read(signals_, &received, sizeof received) > 0 && received.ssi_signo == SIGHUP) {
      reload();
    } else {
      stopping_ = true;
    }
  }

  /// For poll(2): -1 where there is no deadline, 0 where it has passed.
  static int milliseconds_left(Clock::time_point deadline) {
    if (deadline == Clock::time_point::max()) {
      return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max(left, milliseconds(0)).count());
  }

  /// Whether the socket got ready; not so when the time is up or the service ends.
  bool wait_until_ready(int socket, short events, Clock::time_point deadline) {
    while (!stopping_) {
      pollfd polled[] = {{signals_, POLLIN, 0}, {socket, events, 0}};
      const int left = milliseconds_left(deadline);
      if (left == 0 || ::poll(polled, 2, left) == 0) {
        return false;
      }
      if (polled[0].revents != 0) {
        take_signal();
      } else if (polled[1].revents != 0) {
        return true;
      }
    }
    return false;
  }

  /// Whether to repeat the TLS call that gave this result, once what it waits for has come.
  bool again(SSL* tls, int result, Clock::time_point deadline) {
    switch (SSL_get_error(tls, result)) {
      case SSL_ERROR_WANT_READ:
        return wait_until_ready(SSL_get_fd(tls), POLLIN, deadline);
      case SSL_ERROR_WANT_WRITE:
        return wait_until_ready(SSL_get_fd(tls), POLLOUT, deadline);
      default:
        return false;
    }
  }

  /// Makes the handshake and reads the request's first record; what it asks for does not matter.
  bool read_request(SSL* tls, Clock::time_point deadline) {
    char request[SSL3_RT_MAX_PLAIN_LENGTH];
    int result = 0;
    do {
      result = SSL_read(tls, request, sizeof request);
    } while (result <= 0 && again(tls, result, deadline));
    return result > 0;
  }

  static void write_response(SSL* tls) {
    const std::string response = std::string("HTTP/1.0 200 OK\r\n\r\n") + SSL_get_version(tls) +
                                 ' ' + SSL_get_cipher_name(tls) + '\n';
    const int length = static_cast<int>(response.size());
    if (SSL_write(tls, response.data(), length) == length) {  // the empty send buffer holds it
      SSL_shutdown(tls);
    }
  }

  void serve(int socket) {
    const Connection tls(SSL_new(context_.get()));
    if (tls != nullptr && SSL_set_fd(tls.get(), socket) == 1) {
      SSL_set_accept_state(tls.get());
      if (read_request(tls.get(), Clock::now() + kConnectionTime)) {
        write_response(tls.get());
      }
    }
    ERR_clear_error();  // one peer's failure must not spoil the next SSL_get_error
  }

  const std::string name_;
  const std::string certificate_;
  const int signals_;  // readable when SIGHUP or SIGTERM came
  bool stopping_ = false;
  Context context_;
};

/// Blocks the signals before anything else, so that none is lost or ends the service halfway.
int watch_signals() {
  sigset_t watched;
  sigemptyset(&watched);
  sigaddset(&watched, SIGHUP);
  sigaddset(&watched, SIGTERM);
  std::signal(SIGPIPE, SIG_IGN);  // a peer that goes away fails the write, not the service
  sigprocmask(SIG_BLOCK, &watched, nullptr);
  return ::signalfd(-1, &watched, SFD_CLOEXEC);
}

/// Listens on the port, and on which one where it was 0.
std::uint16_t listen_on(int listener, std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const bare = reinterpret_cast<sockaddr*>(&address);
  const int yes = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (::bind(listener, bare, length) != 0 || ::listen(listener, 16) != 0 ||
      ::getsockname(listener, bare, &length) != 0) {
    throw last_error("port " + std::to_string(port));
  }
  return ntohs(address.sin_port);
}

/// The file by which the reloader finds the process; gone with it. No name means no file.
class PidFile {
 public:
  explicit PidFile(std::string path) : path_(std::move(path)) {
    if (!path_.empty() && !(std::ofstream(path_) << ::getpid() << std::endl)) {
      throw last_error(path_);
    }
  }
  ~PidFile() {
    if (!path_.empty()) {
      ::unlink(path_.c_str());
    }
  }
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;

 private:
  const std::string path_;
};

struct Settings {
  std::string pid_file;
  std::string name;
  std::string certificate;
  std::uint16_t port = 0;
};

bool read_arguments(int argc, char** argv, Settings& settings) {
  const option options[] = {{"pid-file", required_argument, nullptr, 'p'}, {}};
  int found = 0;
  while ((found = ::getopt_long(argc, argv, "", options, nullptr)) == 'p') {
    settings.pid_file = optarg;
  }
  if (found != -1 || argc - optind < 2) {
    return false;
  }
  settings.name = argv[optind];
  settings.certificate = argv[optind + 1];
  if (argc - optind > 2) {
    settings.port = static_cast<std::uint16_t>(std::stoi(argv[optind + 2]));
  }
  return true;
}

void serve_until_the_end(const Settings& settings) {
  const Descriptor signals(watch_signals());
  Service service(settings.name, settings.certificate, signals.get());
  const Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const std::uint16_t port = listen_on(listener.get(), settings.port);
  const PidFile pid_file(settings.pid_file);
  std::cout << "listening on 127.0.0.1:" << port << std::endl;
  service.run(listener.get());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Settings settings;
    if (!read_arguments(argc, argv, settings)) {
      std::cerr << "usage: tls_service_cpp [--pid-file PATH] NAME CERTIFICATE.pem [PORT]\n";
      return 2;
    }
    serve_until_the_end(settings);
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << "tls_service_cpp: " << failure.what() << '\n';
    return 1;
  }
}
