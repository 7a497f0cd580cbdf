// What a service's template would give now, without touching the file that is in use.
#ifndef KELOTLSCTL_RENDERING_H
#define KELOTLSCTL_RENDERING_H

#include <string>

#include "descriptor.h"
#include "files.h"

namespace kelotlsctl {

enum class Rendering {
  kNone,        ///< the service has no template
  kUnchanged,   ///< the rendered file is what the template gives now
  kNew,         ///< there is no rendered file yet
  kChanged,     ///< it would change
  kImpossible,  ///< the template cannot be rendered
};

struct RenderedFile {
  Rendering verdict = Rendering::kNone;
  std::string fault;  ///< of kImpossible
  std::string now;    ///< what is in the file; empty without one
  std::string wanted;
};

class Renderer {
 public:
  Renderer();
  RenderedFile compare(const std::string& service, const Descriptor& descriptor, int effective);

 private:
  TemporaryFolder folder_;
  std::string output_;
};

}  // namespace kelotlsctl

#endif
