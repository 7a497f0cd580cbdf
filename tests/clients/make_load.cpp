// Opens connections on the loopback as fast as asked for, each with a hello of its own, to a
// listener that accepts and closes.
//
//   make_load PORT PER-SECOND SECONDS
//
// Prints {"made", "seconds", "mean-microseconds"}: the time from connecting to having said the
// hello.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tls/hello.h"

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in address_at(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

void require(bool is_done, const char* what) {
  if (!is_done) {
    std::perror(what);
    std::exit(1);
  }
}

int listen_at(const sockaddr_in& address) {
  constexpr int kBacklog = 4096;
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  require(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
              ::listen(listener, kBacklog) == 0,
          "listen");
  return listener;
}

void accept_and_close(int listener) {
  for (;;) {
    const int connection = ::accept(listener, nullptr, nullptr);
    if (connection >= 0) {
      ::close(connection);
    }
  }
}

/// Ends without a wait of the port for stray packets: there are not enough ports for that.
void connect_and_say(const sockaddr_in& address, const std::string& hello) {
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const linger none = {1, 0};
  require(client >= 0 && ::setsockopt(client, SOL_SOCKET, SO_LINGER, &none, sizeof none) == 0 &&
              ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "connect");
  // Where the listener has closed already, the hello is on its way all the same.
  static_cast<void>(::send(client, hello.data(), hello.size(), MSG_NOSIGNAL));
  ::close(client);
}

constexpr std::size_t kRandomAt =
    5 + 4 + 2;  // behind the record's header, the message's, and the version

std::string next_hello(int number) {
  kelotlsctl::Hello hello;
  hello.version = number % 2 == 0 ? kelotlsctl::kTls13 : kelotlsctl::kTls12;
  hello.suites = {0x1301, 0x1302, 0x1303, 0xc02f, 0xc030};
  hello.groups = {0x001d, 0x0017, static_cast<std::uint16_t>(0x0100 + number % 100)};
  hello.key_shares = {0x001d};
  hello.server_name = "a.example";
  hello.alpn = {"h2", "http/1.1"};
  std::string message = kelotlsctl::write_hello(hello);
  message.replace(kRandomAt, 1, "K");  // the command's own hellos are taken for no client's
  return message;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    return 2;
  }
  const sockaddr_in address = address_at(std::atoi(argv[1]));
  const double per_second = std::atof(argv[2]);
  const double seconds = std::atof(argv[3]);
  std::thread(accept_and_close, listen_at(address)).detach();
  const auto all = static_cast<int>(per_second * seconds);
  const Clock::time_point start = Clock::now();
  std::vector<Clock::duration> times;
  for (int made = 0; made < all; ++made) {
    const std::string hello = next_hello(made);
    std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(made / per_second)));
    const Clock::time_point before = Clock::now();
    connect_and_say(address, hello);
    times.push_back(Clock::now() - before);
  }
  const std::chrono::duration<double> took = Clock::now() - start;
  const auto middle = times.begin() + all / 2;
  std::nth_element(times.begin(), middle, times.end());
  const std::chrono::duration<double, std::micro> median = *middle;
  std::printf("{\"made\": %d, \"seconds\": %.2f, \"median-microseconds\": %.1f}\n", all,
              took.count(), median.count());
  std::fflush(stdout);
  ::_exit(0);
}
