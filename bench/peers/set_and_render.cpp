// The library at one task of an administrator: set a service's level, render all templates.
//
//   peer_set_and_render SERVICE LEVEL    once
//   peer_set_and_render                  for each "SERVICE LEVEL" of the standard input; answers
//                                        with the nanoseconds that it took
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>

#include <chrono>
#include <cstdlib>
#include <iostream>

namespace {

bool set_and_render(const std::string& service, int level) {
  return kelotls::DataStoreProvider().set_service_level(
             service, static_cast<kelotls::TlsProfileLevel>(level)) == 0 &&
         kelotls::APIProvider().render_service_template() == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3) {
    return set_and_render(argv[1], std::atoi(argv[2])) ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  std::string service;
  for (int level = 0; std::cin >> service >> level;) {
    const auto start = std::chrono::steady_clock::now();
    if (!set_and_render(service, level)) {
      return EXIT_FAILURE;
    }
    const std::chrono::nanoseconds time = std::chrono::steady_clock::now() - start;
    std::cout << time.count() << std::endl;
  }
  return EXIT_SUCCESS;
}
