#include "rendering.h"

#include <json/value.h>
#include <kelomustache.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "failure.h"
#include "level.h"
#include "paths.h"

namespace kelotlsctl {

namespace {

RenderedFile impossible(const std::string& fault) {
  RenderedFile file;
  file.verdict = Rendering::kImpossible;
  file.fault = fault;
  return file;
}

}  // namespace

Renderer::Renderer() : output_(folder_.file("rendered")) {
  // There beforehand: a renderer need only replace what a file holds.
  if (!create_file(output_, "", 0600)) {
    throw Failure(kFailed, output_ + ": " + std::strerror(errno));
  }
}

RenderedFile Renderer::compare(const std::string& service, const Descriptor& descriptor,
                               int effective) {
  if (!descriptor.usable) {
    return impossible("descriptor " + descriptor.path + ": " + descriptor.fault);
  }
  if (!descriptor.value.isMember("mustache-path")) {
    return {};
  }
  if (effective < 0) {
    return impossible("the level " + std::to_string(effective) + " is unusable");
  }

  const std::string template_path = descriptor.template_path();
  Json::Value context;
  context[template_section(effective)] = true;
  std::vector<Json::Value> contexts = {context};
  RenderedFile file;
  if (!KELO::RenderMustacheToFile(template_path, contexts, output_)) {
    return impossible("template " + template_path +
                      (stands_at(template_path) ? " cannot be rendered" : " is missing"));
  }
  if (!read_file(output_, file.wanted)) {
    return impossible(output_ + ": " + std::strerror(errno));
  }

  if (read_file(rendered_path(service), file.now)) {
    file.verdict = file.now == file.wanted ? Rendering::kUnchanged : Rendering::kChanged;
  } else if (errno == ENOENT) {
    file.verdict = Rendering::kNew;
  } else {
    return impossible(rendered_path(service) + ": " + std::strerror(errno));
  }
  return file;
}

}  // namespace kelotlsctl
