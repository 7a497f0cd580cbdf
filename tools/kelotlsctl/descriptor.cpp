#include "descriptor.h"

#include <unistd.h>

#include <climits>

#include "json_text.h"
#include "paths.h"

namespace kelotlsctl {

std::string Descriptor::template_path() const { return text_member(value, "mustache-path"); }

std::string Descriptor::reloader_path() const { return text_member(value, "reloader-path"); }

Descriptor read_descriptor(const std::string& service) {
  Descriptor descriptor;
  descriptor.path = descriptor_path(service);
  if (!read_json_file(descriptor.path, descriptor.value, descriptor.fault)) {
    return descriptor;
  }
  descriptor.usable = descriptor.value.isObject();
  descriptor.fault = descriptor.usable ? "" : "it is no JSON object";
  return descriptor;
}

std::string link_target(const std::string& service) {
  char target[PATH_MAX];
  const ssize_t length = ::readlink(link_path(service).c_str(), target, sizeof target);
  return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

}  // namespace kelotlsctl
