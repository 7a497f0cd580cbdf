// Services acquire and release contexts in many threads while another process changes levels.
#include <openssl/err.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <thread>

#include "kelotls/api_provider.h"
#include "kelotls/data_store_provider.h"
#include "process.h"
#include "tls_client.h"

namespace kelotls::test {
namespace {

using Concurrency = PrivateTree;

constexpr int kThreads = 8;
constexpr int kRounds = 200;

/// The process that changes the default level without a pause, with its first change made.
std::unique_ptr<Process> start_level_changer() {
  const int before = DataStoreProvider().get_default_level();
  auto changer = std::make_unique<Process>(Lines{KELOTLS_LEVEL_CHANGER}, "/tmp/level_changer.out");
  EXPECT_TRUE(eventually([&] { return DataStoreProvider().get_default_level() != before; }));
  return changer;
}

/// What one thread has met.
struct Findings {
  int refusals = 0;
  int errors_left = 0;
  std::set<Options> following;  // the options of contexts that follow the default level
  std::set<Options> fixed;      // of those that do not
};

void note(SSL_CTX* context, std::set<Options>& options, Findings& findings) {
  findings.errors_left += ERR_peek_error() != 0 ? 1 : 0;
  if (context == nullptr) {
    ++findings.refusals;
    return;
  }
  options.insert(SSL_CTX_get_options(context));
}

Findings serve() {
  Findings findings;
  for (int round = 0; round < kRounds; ++round) {
    const Context following(APIProvider().acquire_server_context("following"));
    note(following.get(), findings.following, findings);
    const Context fixed(APIProvider().acquire_server_context("fixed"));
    note(fixed.get(), findings.fixed, findings);
  }
  return findings;
}

Findings serve_in_threads() {
  Findings each[kThreads];
  std::thread threads[kThreads];
  for (int index = 0; index < kThreads; ++index) {
    threads[index] = std::thread([&findings = each[index]] { findings = serve(); });
  }
  Findings all;
  for (int index = 0; index < kThreads; ++index) {
    threads[index].join();
    all.refusals += each[index].refusals;
    all.errors_left += each[index].errors_left;
    all.following.insert(each[index].following.begin(), each[index].following.end());
    all.fixed.insert(each[index].fixed.begin(), each[index].fixed.end());
  }
  return all;
}

Options options_of_level(int level) { return SSL_CTX_get_options(acquire(level).get()); }

TEST_F(Concurrency, ServesEveryThreadAWholeContextWhileLevelsChange) {
  write_dh_files();
  const Options modern = options_of_level(1);
  const std::set<Options> all_levels = {modern, options_of_level(2), options_of_level(3)};
  write_file(kDataStore, data_store_text(1, {{"following", "0"}, {"fixed", "1"}}));

  const auto changer = start_level_changer();
  const Findings findings = serve_in_threads();
  changer->kill();

  EXPECT_EQ(findings.refusals, 0);
  EXPECT_EQ(findings.errors_left, 0);
  EXPECT_EQ(findings.following, all_levels);
  EXPECT_EQ(findings.fixed, std::set<Options>{modern});
  EXPECT_EQ(log(), Lines());
}

TEST_F(Concurrency, LeavesAWholeDataStoreWhereverAChangeIsCutOff) {
  write_file(kDataStore, data_store_text(1, {{"following", "0"}, {"fixed", "1"}}));

  for (int attempt = 0; attempt < 50; ++attempt) {
    const auto changer = start_level_changer();
    ::usleep(static_cast<useconds_t>(97 * attempt));
    changer->kill();
    EXPECT_EQ(DataStoreProvider().list_services().getMemberNames(), (Lines{"fixed", "following"}));
  }

  EXPECT_EQ(log(), Lines());
}

}  // namespace
}  // namespace kelotls::test
