// Work that a few processes share.
#include "system/workers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <set>
#include <stdexcept>

namespace kelotls::test {
namespace {

using kelotlsctl::for_each_index_on_disk;

constexpr std::size_t kMany = 101;

TEST(Workers, GiveTheResultOfEachIndexInOrder) {
  for (const std::size_t count :
       {std::size_t{0}, std::size_t{1}, std::size_t{31}, std::size_t{32}, std::size_t{33}, kMany}) {
    const Json::Value results = for_each_index_on_disk(
        count, [](std::size_t index) { return Json::Value("number " + std::to_string(index)); });
    ASSERT_EQ(results.size(), count);
    for (Json::ArrayIndex index = 0; index < results.size(); ++index) {
      EXPECT_EQ(results[index], "number " + std::to_string(index));
    }
  }
}

TEST(Workers, AreSeveralProcessesOnlyWhereThereIsMuch) {
  const auto processes = [](std::size_t count) {
    std::set<int> numbers;
    for (const Json::Value& process :
         for_each_index_on_disk(count, [](std::size_t) { return Json::Value(::getpid()); })) {
      numbers.insert(process.asInt());
    }
    return numbers;
  };
  EXPECT_EQ(processes(31), std::set<int>{::getpid()});
  EXPECT_EQ(processes(kMany).size(), 4U);
  EXPECT_EQ(processes(kMany).count(::getpid()), 1U);
}

TEST(Workers, LeaveOpenWhatAProcessDoesNotEnd) {
  const pid_t here = ::getpid();
  for (const auto& end : std::initializer_list<void (*)()>{
           [] { ::raise(SIGKILL); }, [] { throw std::runtime_error("no"); }, [] { ::_exit(0); }}) {
    const Json::Value results = for_each_index_on_disk(kMany, [&](std::size_t index) {
      if (index == 50 && ::getpid() != here) {
        end();
      }
      return Json::Value(true);
    });
    ASSERT_EQ(results.size(), kMany);
    EXPECT_TRUE(results[50].isNull());
    std::size_t open = 0;
    for (Json::ArrayIndex index = 0; index < kMany; ++index) {
      open += results[index].isNull() ? 1 : 0;
    }
    EXPECT_EQ(open, 25U) << "its share alone";
  }
}

TEST(Workers, AreAllEndedAfterwards) {
  for_each_index_on_disk(kMany, [](std::size_t) { return Json::Value(); });
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace kelotls::test
