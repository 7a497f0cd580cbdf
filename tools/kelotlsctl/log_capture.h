// The system log's entry points, taken over: many failures of the library are nothing but a line
// there, so the command shows each line to the operator, learns from it, and passes it on.
#ifndef KELOTLSCTL_LOG_CAPTURE_H
#define KELOTLSCTL_LOG_CAPTURE_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace kelotlsctl {

/// Called with each line from now on. Lines that nobody listens to are still recorded.
void on_log_line(std::function<void(const std::string&)> listener);

/// The lines that have been logged since this object was made.
class LogWatch {
 public:
  LogWatch();
  std::vector<std::string> lines() const;

  /// Those that begin with one of the given "unit.cpp:number " identities, which never change.
  std::vector<std::string> lines(const std::vector<std::string>& identities) const;

 private:
  std::size_t start_;
};

// Lines that tell of a step that the library calls done all the same.
namespace line {
constexpr char kStoreNotSaved[] = "framework_config.cpp:55 ";
constexpr char kReloaderNotRun[] = "api_provider.cpp:346 ";
constexpr char kReloaderFailed[] = "api_provider.cpp:349 ";
constexpr char kDescriptorNotLoaded[] = "api_provider.cpp:376 ";
}  // namespace line

/// The lines that say that a service was not rendered.
std::vector<std::string> render_failures();

}  // namespace kelotlsctl

#endif
