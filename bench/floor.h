// The floors: for each operation the least work that any implementation must do, as straight code
// on jsoncpp, OpenSSL, POSIX and the template library. Nothing here calls the library, reports a
// failure or looks at what it need not.
#ifndef KELOTLS_BENCH_FLOOR_H
#define KELOTLS_BENCH_FLOOR_H

#include <openssl/ssl.h>

#include <string>
#include <utility>
#include <vector>

#include "places.h"

namespace kelotls::bench::floor {

/// A context for level 2.
SSL_CTX* context();

/// The same, once the data store is read, parsed, checked, and gives the service that level.
SSL_CTX* acquire(const Places& places, const std::string& service);

void set_level(const Places& places, const std::string& service, int level);

/// Lists and reads the descriptors, with one reader for all, and rebuilds the data store.
void regenerate(const Places& places);

/// The file work of a pass, and the template library's calls.
void render(const Places& places);

void run(const std::vector<std::string>& programs);

/// The file work of a registration alone: every text is there already.
struct Join {
  std::vector<std::pair<std::string, std::string>> descriptors;  // path, text
  std::vector<std::pair<std::string, std::string>> links;        // path, target
  std::string data_store;
};
void join(const Places& places, const Join& work);

}  // namespace kelotls::bench::floor

#endif
