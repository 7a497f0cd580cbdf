// Measures what each contestant takes to make the TLS settings of one service among many.
//
//   peer_contexts ROUNDS SERVICES...
//
// Prints one JSON row for each contestant and number of services. Runs in a private tree.
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "contestant.h"
#include "private_tree.h"

namespace kelotls::bench {

namespace {

constexpr int kWarmUpRounds = 3;

/// All levels occur; the service in the middle, which is requested, is at level intermediate.
Services make_services(std::size_t count) {
  Services services;
  for (std::size_t index = 0; index < count; ++index) {
    char name[32];
    std::snprintf(name, sizeof name, "service-%05zu", index);
    services.push_back({name, index == count / 2 ? 2 : 1 + static_cast<int>(index % 3)});
  }
  return services;
}

Made make_once(Contestant& contestant, const std::string& service) {
  contestant.before();
  Made made = contestant.make(service);
  contestant.after();
  return made;
}

void check(Contestant& contestant, const std::string& service) {
  const Made made = make_once(contestant, service);
  require(made != nullptr, contestant.name() + " makes nothing");
  const Lines got = contestant.describe(made);
  const Lines wanted = contestant.expected();
  if (got == wanted) {
    return;
  }
  for (const Lines* lines : {&got, &wanted}) {
    std::cerr << (lines == &got ? "got:\n" : "want:\n");
    for (const std::string& line : *lines) {
      std::cerr << "  " << line << '\n';
    }
  }
  require(false, contestant.name() + " makes something else");
}

/// The processor's time of this program, the system's for it included, in microseconds. All files
/// are in memory, so nothing is waited for; what else the machine does is not counted.
double processor_time() {
  timespec time = {};
  require(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time) == 0, "no clock");
  return 1e6 * static_cast<double>(time.tv_sec) + 1e-3 * static_cast<double>(time.tv_nsec);
}

/// The second of two calls: what a contestant finds in the processor's caches is then its own, not
/// what the one before it has left there.
double measure_once(Contestant& contestant, const std::string& service) {
  make_once(contestant, service);
  contestant.before();
  const double start = processor_time();
  const Made made = contestant.make(service);
  const double end = processor_time();
  contestant.after();
  return end - start;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void compare(const Contestants& contestants, std::size_t count, int rounds) {
  const Services services = make_services(count);
  const std::string asked = services[count / 2].name;
  for (const auto& contestant : contestants) {
    contestant->write_files(services);
  }
  for (const auto& contestant : contestants) {
    check(*contestant, asked);
  }
  // In turn, so that whatever else the machine does meets all alike.
  std::vector<std::vector<double>> times(contestants.size());
  for (int round = -kWarmUpRounds; round < rounds; ++round) {
    for (std::size_t index = 0; index < contestants.size(); ++index) {
      const double time = measure_once(*contestants[index], asked);
      if (round >= 0) {
        times[index].push_back(time);
      }
    }
  }
  for (std::size_t index = 0; index < contestants.size(); ++index) {
    std::printf(
        "{\"operation\": \"acquire\", \"services\": %zu, \"peer\": \"%s\", \"us\": %.3f, "
        "\"rounds\": %d, \"note\": \"%s\"}\n",
        count, contestants[index]->name().c_str(), median(times[index]), rounds,
        contestants[index]->note().c_str());
  }
}

}  // namespace

Lines intermediate_suites() {
  return {"TLS_DHE_RSA_WITH_AES_128_GCM_SHA256",
          "TLS_DHE_RSA_WITH_AES_256_GCM_SHA384",
          "TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256",
          "TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384",
          "TLS_ECDHE_ECDSA_WITH_CHACHA20_POLY1305_SHA256",
          "TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256",
          "TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384",
          "TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256"};
}

void require(bool succeeded, const std::string& what) {
  if (!succeeded) {
    std::cerr << "peer_contexts: " << what << '\n';
    std::exit(EXIT_FAILURE);
  }
}

}  // namespace kelotls::bench

int main(int argc, char** argv) {
  using namespace kelotls;
  bench::require(argc > 2, "peer_contexts ROUNDS SERVICES...");
  test::make_directories(test::kSslDir);
  test::write_file(bench::kDhFile, test::test_data("bed/data/dh2048.pem"));
  bench::Contestants contestants;
  bench::add_openssl_contestants(contestants);
  bench::add_gnutls_contestants(contestants);
  bench::add_botan_contestants(contestants);
  for (int index = 2; index < argc; ++index) {
    bench::compare(contestants, std::strtoul(argv[index], nullptr, 10), std::atoi(argv[1]));
  }
  return EXIT_SUCCESS;
}
