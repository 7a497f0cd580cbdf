// The descriptor file of a service, as it is on disk.
#ifndef KELOTLSCTL_DESCRIPTOR_H
#define KELOTLSCTL_DESCRIPTOR_H

#include <json/value.h>

#include <string>

namespace kelotlsctl {

struct Descriptor {
  std::string path;
  bool usable = false;
  std::string fault;  ///< why it is not
  Json::Value value;

  /// Empty without a template, a reloader.
  std::string template_path() const;
  std::string reloader_path() const;
};

Descriptor read_descriptor(const std::string& service);

/// Where the service's reloader link leads; empty without a link.
std::string link_target(const std::string& service);

}  // namespace kelotlsctl

#endif
