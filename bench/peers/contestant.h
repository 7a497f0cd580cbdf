// The contestants in the comparison of ways to turn a service's name into TLS server settings.
#ifndef KELOTLS_BENCH_PEERS_CONTESTANT_H
#define KELOTLS_BENCH_PEERS_CONTESTANT_H

#include <memory>
#include <string>
#include <vector>

namespace kelotls::bench {

using Lines = std::vector<std::string>;

/// Whatever a contestant makes, owned; freed outside the measured time.
using Made = std::shared_ptr<void>;

struct Service {
  std::string name;
  int level;  // 1 to 3
};
using Services = std::vector<Service>;

class Contestant {
 public:
  virtual ~Contestant() = default;

  virtual std::string name() const = 0;

  /// What is measured, and where it does less or more than the library.
  virtual std::string note() const = 0;

  /// Writes the settings of all services in the contestant's own form.
  virtual void write_files(const Services&) {}

  /// Around each measured call, not measured.
  virtual void before() {}
  virtual void after() {}

  /// Measured: from the service's name to what a server can take connections with.
  virtual Made make(const std::string& service) = 0;

  /// What came of a call for a service of level intermediate, in words.
  virtual Lines describe(const Made& made) const = 0;

  /// What that must be.
  virtual Lines expected() const = 0;
};

using Contestants = std::vector<std::unique_ptr<Contestant>>;

/// The library, the context made by hand, and OpenSSL's configuration file.
void add_openssl_contestants(Contestants& contestants);
void add_gnutls_contestants(Contestants& contestants);
void add_botan_contestants(Contestants& contestants);

constexpr char kDhFile[] = "/usr/kelo/etc/ssl/dh2048.pem";

/// The TLS 1.2 suites of level intermediate, by the names that their RFCs give them, sorted.
Lines intermediate_suites();

/// Ends the program with the reason unless it succeeded.
void require(bool succeeded, const std::string& what);

}  // namespace kelotls::bench

#endif
