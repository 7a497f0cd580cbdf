// A TLS server at each level with each kind of certificate, on loopback, which tells of each
// connection what the client said first and what became of it.
//
//   level_server CERTIFICATES
//
// CERTIFICATES: a directory with rsa.pem and ecdsa.pem. The first line of output is a JSON object
// of ports by "LEVEL KIND"; then a line follows for each connection, until the standard input ends.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "profile.h"

namespace {

constexpr unsigned char kClientHello = 1;
constexpr unsigned char kServerHello = 2;

/// By which a ServerHello is a HelloRetryRequest; the first bytes are enough.
constexpr unsigned char kRetryRandom[] = {0xcf, 0x21, 0xad, 0x74, 0xe5, 0x9a, 0x61, 0x11};

struct Listener {
  std::string name;  // "LEVEL KIND"
  kelotls::ContextOwner context;
  int socket = -1;
  int port = 0;
};

/// What is seen of one connection.
struct Seen {
  std::string hello;  // the first, as hexadecimal digits
  bool has_answered = false;
  bool has_asked_again = false;
};

void require(bool succeeded, const char* what) {
  if (!succeeded) {
    std::perror(what);
    ERR_print_errors_fp(stderr);
    std::exit(1);
  }
}

std::string hexadecimal(const unsigned char* bytes, std::size_t size) {
  std::string text;
  char digits[3];
  for (std::size_t at = 0; at < size; ++at) {
    std::snprintf(digits, sizeof digits, "%02x", bytes[at]);
    text += digits;
  }
  return text;
}

void note_message(int is_sent, int, int kind, const void* data, std::size_t size, SSL*,
                  void* argument) {
  auto& seen = *static_cast<Seen*>(argument);
  const auto* const bytes = static_cast<const unsigned char*>(data);
  constexpr std::size_t kRandomAt = 6;
  if (kind != SSL3_RT_HANDSHAKE || size < kRandomAt + sizeof kRetryRandom) {
    return;
  }
  if (is_sent == 0 && bytes[0] == kClientHello && seen.hello.empty()) {
    seen.hello = hexadecimal(bytes, size);
  }
  if (is_sent == 1 && bytes[0] == kServerHello) {
    const bool is_retry = std::memcmp(bytes + kRandomAt, kRetryRandom, sizeof kRetryRandom) == 0;
    (is_retry ? seen.has_asked_again : seen.has_answered) = true;
  }
}

/// The end that gave up: an alert of the client, or its silence, is no refusal of the server.
const char* outcome_of(const Seen& seen, bool is_done) {
  const int reason = ERR_GET_REASON(ERR_peek_error());
  const bool is_own = ERR_peek_error() != 0 && reason < SSL_AD_REASON_OFFSET &&
                      std::strstr(ERR_reason_error_string(ERR_peek_error()), "eof") == nullptr;
  return is_done                                       ? "done"
         : seen.has_answered                           ? "client-refused"
         : is_own                                      ? "refused"
         : seen.has_asked_again && !seen.hello.empty() ? "client-refused"
                                                       : "closed";
}

std::string group_of(SSL* server) {
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
  const int group = static_cast<int>(SSL_get_negotiated_group(server));
#else
  const int group = SSL_get_shared_group(server, 0);
#endif
  const char* const name = group != 0 ? OBJ_nid2sn(group) : nullptr;
  return name != nullptr ? name : "";
}

void answer_request(SSL* server) {
  constexpr char kAnswer[] = "HTTP/1.0 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok";
  char buffer[4096];
  SSL_read(server, buffer, sizeof buffer);
  SSL_write(server, kAnswer, sizeof kAnswer - 1);
  SSL_shutdown(server);
}

void serve(const Listener& listener, int socket) {
  static std::mutex mutex;
  const timeval patience = {10, 0};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  SSL* const server = SSL_new(listener.context.get());
  Seen seen;
  SSL_set_msg_callback(server, note_message);
  SSL_set_msg_callback_arg(server, &seen);
  SSL_set_fd(server, socket);
  ERR_clear_error();
  const bool is_done = SSL_accept(server) == 1;
  const char* const outcome = outcome_of(seen, is_done);
  const char* const reason = ERR_peek_error() != 0 ? ERR_reason_error_string(ERR_peek_error()) : "";
  {
    const std::lock_guard<std::mutex> lock(mutex);
    std::printf(
        "{\"server\":\"%s\",\"outcome\":\"%s\",\"version\":\"%s\",\"suite\":\"%s\",\"group\":\"%"
        "s\","
        "\"retry\":%s,\"reason\":\"%s\",\"hello\":\"%s\"}\n",
        listener.name.c_str(), outcome, is_done ? SSL_get_version(server) : "",
        is_done ? SSL_get_cipher_name(server) : "", is_done ? group_of(server).c_str() : "",
        seen.has_asked_again ? "true" : "false", reason != nullptr ? reason : "",
        seen.hello.c_str());
    std::fflush(stdout);
  }
  if (is_done) {
    answer_request(server);
  }
  SSL_free(server);
  ::close(socket);
}

void listen_on_loopback(Listener& listener) {
  listener.socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const raw = reinterpret_cast<sockaddr*>(&address);
  require(::bind(listener.socket, raw, size) == 0 && ::listen(listener.socket, 64) == 0 &&
              ::getsockname(listener.socket, raw, &size) == 0,
          "listen");
  listener.port = ntohs(address.sin_port);
}

std::vector<Listener> make_listeners(const std::string& certificates) {
  std::vector<Listener> listeners;
  for (int level = 1; level <= 3; ++level) {
    for (const char* const kind : {"rsa", "ecdsa"}) {
      Listener listener;
      const kelotls::Profile& profile = kelotls::profile_of_level(level);
      listener.name = std::string(profile.name) + " " + kind;
      listener.context = std::move(kelotls::make_context(profile).context);
      SSL_CTX* const context = listener.context.get();
      const std::string path = certificates + "/" + kind + ".pem";
      require(SSL_CTX_use_certificate_chain_file(context, path.c_str()) == 1 &&
                  SSL_CTX_use_PrivateKey_file(context, path.c_str(), SSL_FILETYPE_PEM) == 1,
              path.c_str());
      listen_on_loopback(listener);
      listeners.push_back(std::move(listener));
    }
  }
  return listeners;
}

void print_ports(const std::vector<Listener>& listeners) {
  const char* before = "{";
  for (const Listener& listener : listeners) {
    std::printf("%s\"%s\":%d", before, listener.name.c_str(), listener.port);
    before = ",";
  }
  std::printf("}\n");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: level_server CERTIFICATES\n");
    return 2;
  }
  ::signal(SIGPIPE, SIG_IGN);
  static const std::vector<Listener> listeners = make_listeners(argv[1]);
  print_ports(listeners);
  std::vector<pollfd> waiting = {{0, POLLIN, 0}};
  for (const Listener& listener : listeners) {
    waiting.push_back({listener.socket, POLLIN, 0});
  }
  while (::poll(waiting.data(), waiting.size(), -1) >= 0 && waiting[0].revents == 0) {
    for (std::size_t index = 1; index < waiting.size(); ++index) {
      if (waiting[index].revents != 0) {
        const int socket = ::accept4(waiting[index].fd, nullptr, nullptr, SOCK_CLOEXEC);
        const Listener& listener = listeners[index - 1];
        std::thread([&listener, socket] { serve(listener, socket); }).detach();
      }
    }
  }
  std::_Exit(0);  // connections that are still open end with the process
}
