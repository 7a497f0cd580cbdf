// A real nginx beside a test.
#ifndef KELOTLS_TESTS_BED_NGINX_H
#define KELOTLS_TESTS_BED_NGINX_H

#include <memory>
#include <string>

#include "process.h"

namespace kelotls::test {

/// Has its files at /usr/kelo/NAME.conf, .pid, .log and -reload, and a certificate for RSA. The
/// test fails where nginx is not installed.
class Nginx {
 public:
  /// It listens on this port of 127.0.0.1.
  explicit Nginx(std::string name, std::string port = "443");

  /// Makes it read its settings of TLS from this file, from its next start or reload on.
  /// more: what stands behind its server block.
  void include(const std::string& path, const std::string& more = "") const;

  /// In the foreground, as a process of the test.
  void start();

  /// "/usr/kelo/NAME-reload" of "-reload".
  std::string file(const std::string& suffix) const { return "/usr/kelo/" + name_ + suffix; }

  const std::string& name() const { return name_; }
  const std::string& port() const { return port_; }
  Process& process() const { return *process_; }

 private:
  std::string name_;
  std::string port_;
  std::unique_ptr<Process> process_;
};

}  // namespace kelotls::test

#endif
