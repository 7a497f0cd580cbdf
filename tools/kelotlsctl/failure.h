// How a command ends, and the one exception that ends it early.
#ifndef KELOTLSCTL_FAILURE_H
#define KELOTLSCTL_FAILURE_H

#include <stdexcept>
#include <string>
#include <utility>

namespace kelotlsctl {

enum ExitCode : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kNotSo = 3,            ///< a check says no
  kStoreUnreadable = 4,  ///< nothing was written
  kReloaderFailed = 5,
  kNoSuchService = 10,
};

/// What went wrong, the exit code that says so, and, where there is one, the way on.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& what, std::string advice = {})
      : std::runtime_error(what), code_(code), advice_(std::move(advice)) {}

  ExitCode code() const { return code_; }
  const std::string& advice() const { return advice_; }

 private:
  ExitCode code_;
  std::string advice_;
};

}  // namespace kelotlsctl

#endif
