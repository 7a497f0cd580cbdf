// Owns the rendering of mustache templates into memory, and its limits.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

#include "mustache_template.h"

namespace mustache {

constexpr std::size_t kMaxOutputBytes = std::size_t{1} << 24;
constexpr std::size_t kMaxSteps = std::size_t{1} << 22;
constexpr std::size_t kMaxPartials = 1024;

struct Rendered {
  bool whole = false;
  std::string text;  ///< cut short unless whole
  Fault fault;       ///< why it is not
  std::size_t steps = 0;
};

/// Renders the template at a path with a context stack, its last element on top, within the limits
/// that kelomustache.h tells. Only memory that runs out is thrown.
Rendered render(const std::string& path, const std::vector<Json::Value>& contexts);

}  // namespace mustache
