// A million loads of the data store while another process saves it as fast as it can. The writer
// raises one level after the other by one, so that a reader knows each state that was ever saved:
// from the first service to the last the levels fall at most once, by one, and no level ever falls
// from one load to the next.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <thread>

#include "kelotls/data_store_provider.h"
#include "report.h"

namespace kelotls::test {
namespace {

constexpr int kReaders = 2;

struct Course {
  int services;
  long loads;
  long least_saves;  // with fewer, the loads prove nothing
};
constexpr Course kCourses[] = {{3, 1'000'000, 50'000}, {200, 20'000, 2'000}};

/// What the writer and the readers share.
struct Shared {
  std::atomic<bool> started;
  std::atomic<bool> ended;
  std::atomic<long> saves;
  std::atomic<long> failed_saves;
};

struct Findings {
  long loads = 0;
  long states = 0;
  long violations = 0;
};

std::string service_name(int index) { return "service-" + std::to_string(1000 + index); }

std::string first_data_store(int services) {
  std::vector<std::pair<std::string, std::string>> levels;
  for (int index = 0; index < services; ++index) {
    levels.emplace_back(service_name(index), "1");
  }
  return data_store_text(1, levels);
}

[[noreturn]] void save_until_the_end(int services, Shared& shared) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  while (!shared.started) {
    ::usleep(100);
  }
  DataStoreProvider provider;
  for (int level = 2;; ++level) {
    provider.set_default_level(static_cast<TlsProfileLevel>(level));
    ++shared.saves;
    for (int index = 0; index < services; ++index, ++shared.saves) {
      if (shared.ended) {
        ::_exit(0);
      }
      const auto value = static_cast<TlsProfileLevel>(level);
      shared.failed_saves += provider.set_service_level(service_name(index), value) != 0 ? 1 : 0;
    }
  }
}

/// One thread's loads, with what it saw last: a later load never shows an earlier save.
class Reader {
 public:
  explicit Reader(int services) : services_(services), first_(service_name(0)) {}

  Findings read(long loads) {
    while (findings_.loads < loads) {
      read_list();
      read_level("the default level", provider_.get_default_level(), default_level_);
      read_level("the first service's level", provider_.get_service_level(first_), first_level_);
      findings_.loads += 3;
    }
    return findings_;
  }

 private:
  void violate(const std::string& what) {
    if (++findings_.violations <= 5) {  // the first ones tell enough
      std::fprintf(stderr, "load %ld: %s\n", findings_.loads, what.c_str());
    }
  }

  void read_level(const char* whose, int level, int& last) {
    if (level < last) {
      violate(std::string(whose) + " is " + std::to_string(level) + " after " +
              std::to_string(last));
    }
    last = std::max(last, level);
  }

  void read_list() {
    const Json::Value list = provider_.list_services();
    if (!list.isObject() || static_cast<int>(list.size()) != services_) {
      return violate("not the list of services: " + list.toStyledString());
    }
    const int newest = list[first_]["current-level"].asInt();
    int before = newest;
    std::int64_t saves = 0;
    for (const Json::Value& service : list) {
      const int level = service["current-level"].asInt();
      if (level > before || level < newest - 1) {
        return violate("levels that no save has written: " + list.toStyledString());
      }
      before = level;
      saves += level;
    }
    if (saves < saves_) {
      violate("a state older than one seen before: " + list.toStyledString());
    }
    findings_.states += saves != saves_ ? 1 : 0;
    saves_ = saves;
  }

  int services_;
  std::string first_;
  DataStoreProvider provider_;
  int default_level_ = 1;
  int first_level_ = 1;
  std::int64_t saves_ = 0;
  Findings findings_;
};

Findings read_in_threads(const Course& course) {
  Findings each[kReaders];
  std::thread threads[kReaders];
  for (int index = 0; index < kReaders; ++index) {
    threads[index] = std::thread([&findings = each[index], &course] {
      findings = Reader(course.services).read(course.loads / kReaders);
    });
  }
  Findings all;
  for (int index = 0; index < kReaders; ++index) {
    threads[index].join();
    all.loads += each[index].loads;
    all.states = std::max(all.states, each[index].states);
    all.violations += each[index].violations;
  }
  return all;
}

/// What went wrong beside the loads: too few saves, saves that failed, lines in the system log.
long violations_of_writer(const Course& course, const Shared& shared, const Lines& log) {
  if (shared.saves < course.least_saves) {
    std::fprintf(stderr, "%ld saves; at least %ld were expected\n", shared.saves.load(),
                 course.least_saves);
  }
  if (shared.failed_saves > 0) {
    std::fprintf(stderr, "%ld saves failed\n", shared.failed_saves.load());
  }
  for (std::size_t index = 0; index < std::min<std::size_t>(log.size(), 5); ++index) {
    std::fprintf(stderr, "logged: %s\n", log[index].c_str());
  }
  return shared.failed_saves + static_cast<long>(log.size()) +
         (shared.saves < course.least_saves ? 1 : 0);
}

Findings run(const Course& course) {
  write_file(kDataStore, first_data_store(course.services));
  void* const memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Shared& shared = *new (memory) Shared();
  const pid_t writer = ::fork();  // before there are threads
  if (writer == 0) {
    save_until_the_end(course.services, shared);
  }

  SystemLog log;
  shared.started = true;
  Findings findings = read_in_threads(course);
  shared.ended = true;
  int status = -1;
  ::waitpid(writer, &status, 0);
  findings.violations += violations_of_writer(course, shared, log.take()) + (status != 0 ? 1 : 0);
  return findings;
}

int run_all() {
  make_framework_directories();
  Findings all;
  long least_loads = 0;
  for (const Course& course : kCourses) {
    const Findings findings = run(course);
    all.loads += findings.loads;
    all.states += findings.states;
    all.violations += findings.violations;
    least_loads += course.loads;
  }
  return report("loads while saves run", all.loads, least_loads, all.states, all.violations);
}

}  // namespace
}  // namespace kelotls::test

int main() { return kelotls::test::run_all(); }
