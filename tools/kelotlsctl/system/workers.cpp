// Owns work in several processes.
#include "system/workers.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <exception>
#include <string>

#include "files.h"
#include "json_document.h"

namespace kelotlsctl {

namespace {

using Work = std::function<Json::Value(std::size_t)>;

constexpr std::size_t kProcesses = 4;
constexpr std::size_t kFew = 32;  // these are done before a process has started

/// Every kProcesses-th from first on.
Json::Value do_share(std::size_t first, std::size_t count, const Work& work) {
  return for_each_index((count - first + kProcesses - 1) / kProcesses,
                        [&](std::size_t turn) { return work(first + turn * kProcesses); });
}

/// A process that does one share.
class Worker {
 public:
  Worker(std::size_t first, std::size_t count, const Work& work)
      : first_(first),
        results_(::memfd_create("results", MFD_CLOEXEC)),
        process_(results_.is_open() ? ::fork() : -1) {
    if (process_ == 0) {
      run(count, work);
    }
  }

  /// Null where the process did not come to its end. Where none could be made, the share is done
  /// here.
  Json::Value results(std::size_t count, const Work& work) const {
    return process_ < 0 ? do_share(first_, count, work) : take_results();
  }

  std::size_t first() const { return first_; }

 private:
  /// In the new process, where nothing of the old one is to be ended twice.
  [[noreturn]] void run(std::size_t count, const Work& work) const {
    bool is_written = false;
    try {
      is_written =
          kelotls::write_all(results_.get(), kelotls::json_text(do_share(first_, count, work)));
    } catch (const std::exception&) {
      is_written = false;
    }
    ::_exit(is_written ? 0 : 1);
  }

  Json::Value take_results() const {
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    std::string text;
    Json::Value results;
    const bool is_whole = status == 0 && ::lseek(results_.get(), 0, SEEK_SET) == 0 &&
                          kelotls::read_to_end(results_.get(), 0, text) &&
                          kelotls::JsonReader().parse(text, results);
    return is_whole ? results : Json::Value();
  }

  std::size_t first_;
  kelotls::Descriptor results_;
  pid_t process_;
};

void merge(const Json::Value& share, std::size_t first, Json::Value& results) {
  for (Json::ArrayIndex index = 0; index < share.size(); ++index) {
    results[static_cast<Json::ArrayIndex>(first + index * kProcesses)] = share[index];
  }
}

}  // namespace

Json::Value for_each_index(std::size_t count, const Work& work) {
  Json::Value results(Json::arrayValue);
  for (std::size_t index = 0; index < count; ++index) {
    results.append(work(index));
  }
  return results;
}

Json::Value for_each_index_on_disk(std::size_t count, const Work& work) {
  if (count < kFew) {
    return for_each_index(count, work);
  }
  std::deque<Worker> workers;
  for (std::size_t first = 1; first < kProcesses; ++first) {
    workers.emplace_back(first, count, work);
  }
  Json::Value results(Json::arrayValue);
  results.resize(static_cast<Json::ArrayIndex>(count));
  merge(do_share(0, count, work), 0, results);
  for (const Worker& worker : workers) {
    merge(worker.results(count, work), worker.first(), results);
  }
  return results;
}

}  // namespace kelotlsctl
