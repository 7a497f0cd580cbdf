// The stamp: what each service had when the reloaders last ran, so that a level that has not yet
// reached its service shows without asking a daemon.
#ifndef KELOTLSCTL_STAMP_H
#define KELOTLSCTL_STAMP_H

#include <json/value.h>

#include <string>

namespace kelotlsctl {

class Stamp {
 public:
  /// A stamp that is missing or unreadable is one in which no service has been reloaded.
  static Stamp load();

  bool matches(const std::string& service, int effective, const std::string& rendered) const;
  void record(const std::string& service, int effective, const std::string& rendered);
  bool has(const std::string& service) const { return services_.isMember(service); }
  void forget(const std::string& service) { services_.removeMember(service); }

  /// A Failure when it cannot be written.
  void save() const;

 private:
  static Json::Value entry(int effective, const std::string& rendered);

  Json::Value services_{Json::objectValue};
};

}  // namespace kelotlsctl

#endif
