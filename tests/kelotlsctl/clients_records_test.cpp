// The file of a service's clients: what is kept, what goes first, and what makes it unusable.
#include "clients/records.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "framework.h"
#include "output/console.h"
#include "tls/hello.h"

namespace kelotls::test {
namespace {

using kelotlsctl::ClientRecords;
using kelotlsctl::Failure;

constexpr std::time_t kNoon = 1794830400;  // 2026-11-16T12:00:00Z
constexpr std::time_t kHour = 3600;
constexpr std::time_t kDay = 24 * kHour;
constexpr char kFile[] = "/usr/kelo/etc/security-profile/tls-profile/clients/web.json";

/// A hello that no other number gives.
std::string hello(std::uint16_t suite) {
  kelotlsctl::Hello offered;
  offered.suites = {suite};
  return kelotlsctl::write_hello(offered).substr(5);
}

class ClientRecording : public PrivateTree {};

/// The records as they are read back from the file.
ClientRecords saved(ClientRecords& records) {
  records.save();
  return ClientRecords::load(records.service());
}

std::vector<std::string> hellos_of(const ClientRecords& records) {
  std::vector<std::string> all;
  for (const kelotlsctl::RecordedHello& one : records.hellos()) {
    all.push_back(one.hello);
  }
  return all;
}

TEST_F(ClientRecording, KeepsEachHelloOnceWithItsCounts) {
  ClientRecords records("web");
  const std::string first = hello(0x1301);
  records.cover(kNoon, kNoon + kHour);
  EXPECT_TRUE(records.add(first, kNoon, "192.0.2.7"));
  EXPECT_TRUE(records.add(hello(0x1301), kNoon + kHour, "192.0.2.8"));
  EXPECT_TRUE(records.add(hello(0x1302), kNoon, "192.0.2.7"));
  EXPECT_FALSE(records.add("GET / HTTP/1.1", kNoon, "192.0.2.7"));
  records.count_unread({1, 2, 3, 4});
  records.count_kernel_drops(5);

  const ClientRecords read = saved(records);

  ASSERT_EQ(read.hellos().size(), 2U);
  const kelotlsctl::RecordedHello& one = read.hellos()[0];
  EXPECT_EQ(one.hello, first) << "as it came first";
  EXPECT_EQ(one.count, 2U);
  EXPECT_EQ(one.first, kNoon);
  EXPECT_EQ(one.last, kNoon + kHour);
  EXPECT_EQ(one.hours,
            (std::map<std::int64_t, std::uint64_t>{{kNoon / kHour, 1}, {kNoon / kHour + 1, 1}}));
  EXPECT_EQ(one.addresses, (Lines{"192.0.2.7", "192.0.2.8"}));
  EXPECT_EQ(read.connections(), 3U);
  EXPECT_EQ(read.since(), kNoon);
  EXPECT_EQ(read.until(), kNoon + kHour);
  EXPECT_EQ(read.unread().not_tls, 1U);
  EXPECT_EQ(read.unread().ssl2, 2U);
  EXPECT_EQ(read.unread().incomplete, 3U);
  EXPECT_EQ(read.unread().too_large, 4U);
  EXPECT_EQ(read.kernel_drops(), 5U);
}

TEST_F(ClientRecording, IsForRootAlone) {
  ClientRecords records("web");
  records.save();
  EXPECT_EQ(mode(kFile), 0600U);
  EXPECT_EQ(mode(ClientRecords::kDirectory), 0700U);
}

TEST_F(ClientRecording, GoesOnWhereItEnded) {
  ClientRecords records("web");
  records.cover(kNoon, kNoon);
  records.add(hello(0x1301), kNoon, "192.0.2.7");
  ClientRecords again = saved(records);
  again.cover(kNoon + kDay, kNoon + 2 * kDay);
  again.add(hello(0x1301), kNoon + kDay, "");
  const ClientRecords read = saved(again);
  ASSERT_EQ(read.hellos().size(), 1U);
  EXPECT_EQ(read.hellos()[0].count, 2U);
  EXPECT_EQ(read.since(), kNoon);
  EXPECT_EQ(read.until(), kNoon + 2 * kDay);
}

TEST_F(ClientRecording, KeepsTwentyAddressesAndTheHoursOfEightDays) {
  ClientRecords records("web");
  for (int i = 0; i < 30; ++i) {
    records.add(hello(0x1301), kNoon + i * kDay, "192.0.2." + std::to_string(i));
  }
  records.cover(kNoon, kNoon + 29 * kDay);
  const ClientRecords read = saved(records);
  EXPECT_EQ(read.hellos()[0].addresses.size(), 20U);
  EXPECT_EQ(read.hellos()[0].hours.size(), 8U);
  EXPECT_EQ(read.hellos()[0].hours.rbegin()->first, (kNoon + 29 * kDay) / kHour);
  EXPECT_EQ(read.hellos()[0].count, 30U);
}

TEST_F(ClientRecording, ForgetsTheHoursOfClientsThatStayAway) {
  ClientRecords records("web");
  records.add(hello(0x1301), kNoon, "");
  records.cover(kNoon, kNoon + 9 * kDay);
  const ClientRecords read = saved(records);
  ASSERT_EQ(read.hellos().size(), 1U);
  EXPECT_TRUE(read.hellos()[0].hours.empty());
}

TEST_F(ClientRecording, DropsTheOldestFirstAndThenTheRarest) {
  ClientRecords records("web");
  const std::string old = hello(0x0001);
  const std::string rare = hello(0x0002);
  const std::string frequent = hello(0x0003);
  const std::string older = hello(0x0004);
  for (int i = 0; i < 7; ++i) {
    records.add(older, kNoon - 30 * kDay, "");
  }
  for (int i = 0; i < 5; ++i) {
    records.add(old, kNoon - 20 * kDay, "");
  }
  records.add(rare, kNoon, "");
  records.add(frequent, kNoon - kDay, "");
  records.add(frequent, kNoon - kDay, "");
  records.cover(kNoon, kNoon);
  records.save();
  const std::size_t one = 2 * rare.size() + 200;

  records.set_limit(1024 + 3 * one);
  EXPECT_EQ(hellos_of(records), (Lines{frequent, rare, old})) << "the older one is gone";
  records.set_limit(1024 + 2 * one);
  EXPECT_EQ(hellos_of(records), (Lines{frequent, rare})) << "the old one is gone";
  EXPECT_EQ(records.left_out_hellos(), 2U);
  EXPECT_EQ(records.left_out_connections(), 12U);

  records.set_limit(1024 + one);
  EXPECT_EQ(hellos_of(records), Lines{frequent});
  EXPECT_EQ(records.connections(), 15U) << "they were counted";
  const ClientRecords read = saved(records);
  EXPECT_EQ(read.left_out_hellos(), 3U);
  EXPECT_EQ(read.left_out_connections(), 13U);
}

TEST_F(ClientRecording, KeepsNothingThatGoesBeforeWhatItDrops) {
  ClientRecords records("web");
  const std::string frequent = hello(0x0001);
  kelotlsctl::Hello large;
  large.suites = kelotlsctl::Numbers(100, 0x0002);
  for (const int count : {3, 2, 1}) {
    for (int i = 0; i < count; ++i) {
      records.add(count == 3   ? frequent
                  : count == 2 ? kelotlsctl::write_hello(large).substr(5)
                               : hello(0x0003),
                  kNoon, "");
    }
  }

  records.set_limit(1024 + 2 * (2 * frequent.size() + 200));

  EXPECT_EQ(hellos_of(records), Lines{frequent}) << "the rarest is gone as well";
  EXPECT_EQ(records.left_out_connections(), 3U);
}

TEST_F(ClientRecording, NeverMakesALargerFileThanItMay) {
  constexpr std::size_t kLimit = 20000;
  ClientRecords records("web");
  records.set_limit(kLimit);
  std::size_t largest = 0;
  for (std::uint16_t suite = 1; suite < 400; ++suite) {
    records.add(hello(suite), kNoon + suite * kHour, "2001:db8::" + std::to_string(suite));
    records.cover(kNoon, kNoon + suite * kHour);
    records.save();
    largest = std::max(largest, read_file(kFile).size());
  }
  EXPECT_LE(largest, kLimit);
  EXPECT_GT(largest, kLimit / 2) << "the room is used";
  EXPECT_EQ(records.hellos().size() + records.left_out_hellos(), 399U);
}

TEST_F(ClientRecording, RefusesAFileThatItDidNotWrite) {
  ClientRecords records("web");
  records.add(hello(0x1301), kNoon, "192.0.2.7");
  records.save();
  const std::string good = read_file(kFile);
  const auto replaced = [&](const std::string& old, const std::string& by) {
    std::string text = good;
    const std::size_t place = text.find(old);
    EXPECT_NE(place, std::string::npos) << old;
    return text.replace(place, old.size(), by);
  };
  for (const std::string& text :
       {std::string(), std::string("null"), replaced("\"count\":1", "\"count\":-1"),
        replaced("\"hello\":\"01", "\"hello\":\"02"), replaced("\"hello\":\"01", "\"hello\":\"0x"),
        replaced("\"kernel-drops\":0", "\"kernel-drops\":\"\""), replaced("192.0.2.7", "\\ud800"),
        replaced("2026-11-16T12:00:00Z", "yesterday")}) {
    write_file(kFile, text);
    EXPECT_THROW(ClientRecords::load("web"), Failure) << text;
  }
}

TEST_F(ClientRecording, IsForgottenWithWhatAnInterruptedSaveLeft) {
  ClientRecords records("web");
  records.save();
  ClientRecords other("web.json");
  other.save();
  write_file(std::string(kFile) + ".4711-0", "cut short");
  EXPECT_TRUE(kelotlsctl::forget_clients("web"));
  EXPECT_EQ(names_in(ClientRecords::kDirectory), Lines{"web.json.json"});
  EXPECT_FALSE(kelotlsctl::forget_clients("web"));
}

TEST_F(ClientRecording, HasNoPlaceOutsideOfItsDirectory) {
  for (const char* const name : {"", ".", "..", "../datastore", "a/b"}) {
    EXPECT_THROW(ClientRecords::path_of(name), Failure) << name;
  }
}

}  // namespace
}  // namespace kelotls::test
