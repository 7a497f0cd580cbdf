// Owns rendering: from a service's descriptor and level to its rendered file.
#include "rendering.h"

#include <kelomustache.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "files.h"
#include "framework_config.h"
#include "kelotls/api_provider.h"
#include "log_messages.h"
#include "paths.h"
#include "profile.h"
#include "regeneration.h"

namespace kelotls {

namespace {

using Contexts = std::vector<Json::Value>;

RenderResult& fail_at(RenderResult::Step step, int error, std::string path, RenderResult& result) {
  result.outcome = RenderResult::Outcome::kFailed;
  result.failed_step = step;
  result.error = error;
  result.path = std::move(path);
  return result;
}

/// Finds the template and what it is to be rendered with. kRendered: there is something to render.
RenderResult prepare(const Json::Value& root, const std::string& name, JsonReader& reader,
                     Contexts& contexts) {
  RenderResult result;
  Json::Value descriptor;
  if (!read_descriptor(reader, descriptor_path(name), descriptor)) {
    return fail_at(RenderResult::Step::kDescriptor, errno, descriptor_path(name), result);
  }
  if (!descriptor.isMember("mustache-path")) {
    return result;
  }
  const int level = lookup_service_level(root, name);
  if (level < 0) {
    return fail_at(RenderResult::Step::kLevel, 0, std::string(), result);
  }
  contexts[0][profile_of_level(level).tier] = true;
  result.template_path = descriptor["mustache-path"].asString();
  result.outcome = RenderResult::Outcome::kRendered;
  return result;
}

/// Renders to the output path by way of a temporary file beside it, which stays where a step fails.
void render_file(Contexts& contexts, const std::string& output_path, RenderResult& result) {
  char temporary_path[4096];
  // What does not fit is cut short, and mkstemp then refuses it.
  static_cast<void>(std::snprintf(temporary_path, sizeof temporary_path, "%s",
                                  (output_path + ".XXXXXX").c_str()));
  errno = 0;
  const int descriptor = mkstemp(temporary_path);
  if (descriptor < 0) {
    fail_at(RenderResult::Step::kTemporary, errno, output_path, result);
    return;
  }
  close(descriptor);

  if (!KELO::RenderMustacheToFile(result.template_path, contexts, temporary_path)) {
    fail_at(RenderResult::Step::kTemplate, 0, output_path, result);
    return;
  }
  errno = 0;
  if (std::rename(temporary_path, output_path.c_str()) != 0) {
    fail_at(RenderResult::Step::kRename, errno, temporary_path, result);
  }
}

/// Renders to memory.
void render_text(Contexts& contexts, const std::string& output_path, std::string& text,
                 RenderResult& result) {
  const Descriptor memory(memfd_create("rendered", MFD_CLOEXEC));
  const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
  if (!memory.is_open()) {
    fail_at(RenderResult::Step::kTemporary, errno, output_path, result);
  } else if (!KELO::RenderMustacheToFile(result.template_path, contexts, path)) {
    fail_at(RenderResult::Step::kTemplate, 0, output_path, result);
  } else if (!read_file(path, text)) {
    fail_at(RenderResult::Step::kRead, errno, path, result);
  }
}

void log_failure(const RenderResult& result) {
  errno = result.error;
  switch (result.failed_step) {
    case RenderResult::Step::kDescriptor:
      return log::descriptor_not_read(result.path);
    case RenderResult::Step::kLevel:
      return log::no_level_to_render();
    case RenderResult::Step::kTemporary:
      return log::temporary_file_not_made();
    case RenderResult::Step::kTemplate:
      return log::template_not_rendered(result.path);
    case RenderResult::Step::kRename:
      return log::rendered_file_not_renamed(result.path.c_str());
    default:
      return;
  }
}

}  // namespace

RenderResult render_service(const Json::Value& root, const std::string& name, JsonReader& reader) {
  Contexts contexts(1);
  RenderResult result = prepare(root, name, reader, contexts);
  if (result.outcome == RenderResult::Outcome::kRendered) {
    render_file(contexts, rendered_path(name), result);
  }
  log_failure(result);
  return result;
}

RenderResult render_and_compare(const Json::Value& root, const std::string& name,
                                JsonReader& reader, Rendering rendering, RenderedTexts& texts) {
  texts.had_former = read_file(rendered_path(name), texts.former);
  const int error = texts.had_former || errno == ENOENT ? 0 : errno;
  Contexts contexts(1);
  RenderResult result;
  if (rendering == Rendering::kInForce) {
    result = render_service(root, name, reader);
  } else {
    result = prepare(root, name, reader, contexts);
  }
  if (result.outcome != RenderResult::Outcome::kRendered) {
    return result;
  }
  if (rendering == Rendering::kPreview) {
    render_text(contexts, rendered_path(name), texts.now, result);
  } else if (!read_file(rendered_path(name), texts.now)) {
    fail_at(RenderResult::Step::kRead, errno, rendered_path(name), result);
  }
  if (result.outcome == RenderResult::Outcome::kRendered && error != 0) {
    fail_at(RenderResult::Step::kRead, error, rendered_path(name), result);
  } else if (result.outcome == RenderResult::Outcome::kRendered && texts.had_former &&
             texts.former == texts.now) {
    result.outcome = RenderResult::Outcome::kUnchanged;
  }
  return result;
}

int APIProvider::render_service_template() const {
  const Json::Value root = load_data_store();
  const Json::Value& services = root["services"];
  JsonReader reader;
  for (auto service = services.begin(); service != services.end(); ++service) {
    render_service(root, service.name(), reader);
  }
  return 0;
}

int APIProvider::cleanup_service_template(const std::string& name) const {
  const std::string path = rendered_path(name);
  errno = 0;
  if (unlink(path.c_str()) != 0) {
    log::rendered_file_not_removed(path);
    return -1;
  }
  return 0;
}

}  // namespace kelotls
