// Measures each operation of the library beside its floor and writes what it found.
//
//   bench RESULTS.json ROUNDS DISK_DIRECTORY [--benchmark_...]
//
// A benchmark is one operation at one size. Library and floor take turns in it, so that whatever
// disturbs the machine disturbs both. The ratio is the median of the single rounds' ratios, because
// a machine that changes its speed during a run gives the two sides medians of different speeds.
#include <benchmark/benchmark.h>
#include <json/json.h>
#include <kelotls/data_store_provider.h>
#include <kelotls/server_context.h>
#include <openssl/crypto.h>
#include <sys/utsname.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "heap.h"
#include "operations.h"
#include "places.h"
#include "private_tree.h"

namespace kelotls::bench {

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr int kLarge = 10000;
constexpr double kLargeShare = 0.075;  // of the rounds, for what takes long
constexpr double kLoadGoal = 5.5;      // bytes of heap for a byte of the file
constexpr int kPairs = 1000;

Json::Value rows(Json::arrayValue);

double microseconds(const std::function<void()>& call) {
  const Clock::time_point begin = Clock::now();
  call();
  return Microseconds(Clock::now() - begin).count();
}

double median(std::vector<double> numbers) {
  const auto middle = numbers.begin() + std::ptrdiff_t(numbers.size() / 2);
  std::nth_element(numbers.begin(), middle, numbers.end());
  return *middle;
}

void measure(benchmark::State& state, const Operation& operation) {
  std::vector<double> library;
  std::vector<double> floor;
  std::vector<double> ratios;
  warm_up(operation);
  for (auto _ : state) {
    operation.before();
    library.push_back(microseconds(operation.library));
    operation.before();
    floor.push_back(microseconds(operation.floor));
    ratios.push_back(library.back() / floor.back());
    state.SetIterationTime(library.back() / 1e6);
  }
  require(operation.same(), operation.name + ": the library and the floor came to the same");

  Json::Value row;
  row["operation"] = operation.name;
  row["services"] = operation.services;
  row["library_us"] = median(library);
  row["floor_us"] = median(floor);
  row["ratio"] = median(ratios);
  row["goal"] = operation.goal;
  row["unit"] = "us";
  row["rounds"] = Json::UInt64(library.size());
  for (const char* counter : {"library_us", "floor_us", "ratio"}) {
    state.counters[counter] = row[counter].asDouble();
  }
  rows.append(row);
}

int rounds_of(const Operation& operation, int rounds) {
  const bool takes_long = operation.services >= kLarge || operation.name.rfind("join", 0) == 0;
  return takes_long ? std::max(3, int(rounds * kLargeShare)) : rounds;
}

void register_operation(const Operation& operation, int rounds) {
  const std::string name = operation.name + "/" + std::to_string(operation.services);
  benchmark::RegisterBenchmark(name.c_str(),
                               [operation](benchmark::State& state) { measure(state, operation); })
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond)
      ->Iterations(rounds_of(operation, rounds));
}

const Json::Value* find_row(const std::string& operation, int services) {
  const auto row = std::find_if(rows.begin(), rows.end(), [&](const Json::Value& candidate) {
    return candidate["operation"] == operation && candidate["services"] == services;
  });
  return row == rows.end() ? nullptr : &*row;
}

/// What ten times the services cost, as a multiple of the time.
void add_growth(Json::Value& growth, const std::string& operation, int services, double goal) {
  const Json::Value* const few = find_row(operation, services);
  const Json::Value* const many = find_row(operation, 10 * services);
  if (few == nullptr || many == nullptr) {
    return;
  }
  Json::Value row;
  row["operation"] = operation;
  row["from"] = services;
  row["to"] = 10 * services;
  row["library"] = (*many)["library_us"].asDouble() / (*few)["library_us"].asDouble();
  row["floor"] = (*many)["floor_us"].asDouble() / (*few)["floor_us"].asDouble();
  row["goal"] = goal;
  growth.append(row);
}

/// The cost of one more service above 1,000, as a multiple of that between 100 and 1,000.
void add_cost_per_service(Json::Value& growth) {
  const Json::Value* const sizes[] = {find_row("acquire", 100), find_row("acquire", 1000),
                                      find_row("acquire", kLarge)};
  if (std::find(std::begin(sizes), std::end(sizes), nullptr) != std::end(sizes)) {
    return;
  }
  const auto added = [&sizes](const char* side) {
    const auto time = [&](int size) { return (*sizes[size])[side].asDouble(); };
    return ((time(2) - time(1)) / 9000) / ((time(1) - time(0)) / 900);
  };
  Json::Value row;
  row["operation"] = "acquire, each added service";
  row["from"] = 1000;
  row["to"] = kLarge;
  row["library"] = added("library_us");
  row["floor"] = added("floor_us");
  row["goal"] = 1.20;  // constant but for the caches, which 10,000 services do not fit into
  growth.append(row);
}

Json::Value memory_row(const std::string& operation, int services, long library, long floor,
                       double ratio, double goal) {
  Json::Value row;
  row["operation"] = operation;
  row["services"] = services;
  row["library"] = Json::Int64(library);
  row["floor"] = Json::Int64(floor);
  row["ratio"] = ratio;
  row["goal"] = goal;
  row["unit"] = "bytes";
  return row;
}

Json::Value measure_memory() {
  Json::Value memory(Json::arrayValue);
  write_data_stores(kLarge);
  const auto file_bytes = long(test::read_file(library_places().data_store).size());
  const long peak =
      heap_use_of([] { require(DataStoreProvider().get_default_level() == 2, "load"); }).peak;
  memory.append(memory_row("load, beside the file", kLarge, peak, file_bytes,
                           double(peak) / double(file_bytes), kLoadGoal));

  write_data_stores(10);
  const auto acquire_and_release = [](int pairs) {
    for (int pair = 0; pair < pairs; ++pair) {
      SSL_CTX* const context = KELOTLS_acquire_server_context(service_name(6).c_str());
      require(context != nullptr, "acquire");
      KELOTLS_release_context(context);
    }
  };
  acquire_and_release(10);  // what OpenSSL keeps from its first use on
  const long left = heap_use_of([&] { acquire_and_release(kPairs); }).left;
  memory.append(memory_row("1,000 acquired and released", 10, left, 0, double(left), 0));
  return memory;
}

std::string file_system_of(const std::string& directory) {
  struct statfs status = {};
  require(::statfs(directory.c_str(), &status) == 0, directory);
  const std::map<long, std::string> names = {{0xEF53, "ext4"},
                                             {0x01021994, "tmpfs"},
                                             {0x58465342, "xfs"},
                                             {0x9123683E, "btrfs"},
                                             {0x794C7630, "overlay"}};
  const auto name = names.find(long(status.f_type));
  return name == names.end() ? std::to_string(status.f_type) : name->second;
}

std::string processor() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("model name", 0) == 0) {
      return line.substr(line.find(": ") + 2);
    }
  }
  return "unknown";
}

Json::Value machine() {
  struct utsname system = {};
  ::uname(&system);
  Json::Value machine;
  machine["processor"] = processor();
  machine["cores"] = Json::Int64(::sysconf(_SC_NPROCESSORS_ONLN));
  machine["kernel"] = std::string(system.release);
  machine["compiler"] = "g++ " __VERSION__;
  machine["openssl"] = OpenSSL_version(OPENSSL_VERSION_STRING);
  machine["jsoncpp"] = JSONCPP_VERSION_STRING;
  machine["data_store_file_system"] = file_system_of(library_places().services);
  machine["rendered_files_file_system"] = file_system_of(library_places().config);
  return machine;
}

}  // namespace

}  // namespace kelotls::bench

int main(int argc, char** argv) {
  using namespace kelotls::bench;
  benchmark::Initialize(&argc, argv);
  require(argc == 4, "usage: bench RESULTS.json ROUNDS DISK_DIRECTORY [--benchmark_...]");
  make_places(argv[3]);
  Json::Value results;
  results["machine"] = machine();
  results["memory"] = measure_memory();
  for (const Operation& operation : operations()) {
    register_operation(operation, std::stoi(argv[2]));
  }
  benchmark::RunSpecifiedBenchmarks();

  Json::Value growth(Json::arrayValue);
  add_cost_per_service(growth);
  add_growth(growth, "regenerate", 1000, 11);
  add_growth(growth, "render", 1000, 11);
  results["rows"] = rows;
  results["growth"] = growth;
  Json::StreamWriterBuilder settings;
  settings["indentation"] = "  ";
  settings["precision"] = 4;
  std::ofstream(argv[1]) << Json::writeString(settings, results) << '\n';
}
