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
using Outcome = RenderResult::Outcome;
using Step = RenderResult::Step;

/// False, so that a step can end with it.
bool fail_at(Step step, int error, std::string path, RenderResult& result) {
  result.outcome = Outcome::kFailed;
  result.failed_step = step;
  result.error = error;
  result.path = std::move(path);
  return false;
}

// The steps. Each is false where it failed, and where nothing is left to be done.

/// Finds the template and what it is to be rendered with.
bool prepare(const Json::Value& root, const std::string& name, JsonReader& reader,
             Contexts& contexts, RenderResult& result) {
  Json::Value descriptor;
  if (!read_descriptor(reader, descriptor_path(name), descriptor)) {
    return fail_at(Step::kDescriptor, errno, descriptor_path(name), result);
  }
  if (!descriptor.isMember("mustache-path")) {
    return false;
  }
  const int level = lookup_service_level(root, name);
  if (level < 0) {
    return fail_at(Step::kLevel, 0, std::string(), result);
  }
  contexts[0][profile_of_level(level).tier] = true;
  result.template_path = descriptor["mustache-path"].asString();
  result.outcome = Outcome::kRendered;
  return true;
}

/// Renders to a path on the way to the output path.
bool render_to(const std::string& path, Contexts& contexts, const std::string& output_path,
               RenderResult& result) {
  return KELO::RenderMustacheToFile(result.template_path, contexts, path) ||
         fail_at(Step::kTemplate, 0, output_path, result);
}

/// Renders to the output path by way of a temporary file beside it, which stays where a step fails.
bool render_file(Contexts& contexts, const std::string& output_path, RenderResult& result) {
  char temporary_path[4096];
  // What does not fit is cut short, and mkstemp then refuses it.
  static_cast<void>(std::snprintf(temporary_path, sizeof temporary_path, "%s",
                                  (output_path + ".XXXXXX").c_str()));
  errno = 0;
  const int descriptor = mkstemp(temporary_path);
  if (descriptor < 0) {
    return fail_at(Step::kTemporary, errno, output_path, result);
  }
  close(descriptor);
  if (!render_to(temporary_path, contexts, output_path, result)) {
    return false;
  }
  errno = 0;
  return std::rename(temporary_path, output_path.c_str()) == 0 ||
         fail_at(Step::kRename, errno, temporary_path, result);
}

bool read_text(const std::string& path, std::string& text, RenderResult& result) {
  return read_file(path, text) || fail_at(Step::kRead, errno, path, result);
}

/// Renders to memory.
bool render_text(Contexts& contexts, const std::string& output_path, std::string& text,
                 RenderResult& result) {
  const Descriptor memory(memfd_create("rendered", MFD_CLOEXEC));
  if (!memory.is_open()) {
    return fail_at(Step::kTemporary, errno, output_path, result);
  }
  const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
  return render_to(path, contexts, output_path, result) && read_text(path, text, result);
}

void log_failure(const RenderResult& result) {
  errno = result.error;
  switch (result.failed_step) {
    case Step::kDescriptor:
      return log::descriptor_not_read(result.path);
    case Step::kLevel:
      return log::no_level_to_render();
    case Step::kTemporary:
      return log::temporary_file_not_made();
    case Step::kTemplate:
      return log::template_not_rendered(result.path);
    case Step::kRename:
      return log::rendered_file_not_renamed(result.path);
    default:
      return;
  }
}

/// Puts the service's rendering in force. A failed step is logged too.
bool render_service(const Json::Value& root, const std::string& name, JsonReader& reader,
                    RenderResult& result) {
  Contexts contexts(1);
  const bool is_rendered = prepare(root, name, reader, contexts, result) &&
                           render_file(contexts, rendered_path(name), result);
  log_failure(result);
  return is_rendered;
}

}  // namespace

RenderResult render_and_compare(const Json::Value& root, const std::string& name,
                                JsonReader& reader, Rendering rendering, RenderedTexts& texts) {
  const std::string path = rendered_path(name);
  texts.had_former = read_file(path, texts.former);
  const int error = texts.had_former || errno == ENOENT ? 0 : errno;
  Contexts contexts(1);
  RenderResult result;
  const bool is_rendered =
      rendering == Rendering::kInForce
          ? render_service(root, name, reader, result) && read_text(path, texts.now, result)
          : prepare(root, name, reader, contexts, result) &&
                render_text(contexts, path, texts.now, result);
  if (is_rendered && error != 0) {
    fail_at(Step::kRead, error, path, result);
  } else if (is_rendered && texts.had_former && texts.former == texts.now) {
    result.outcome = Outcome::kUnchanged;
  }
  return result;
}

int APIProvider::render_service_template() const {
  const Json::Value root = load_data_store();
  const Json::Value& services = root["services"];
  JsonReader reader;
  for (auto service = services.begin(); service != services.end(); ++service) {
    RenderResult result;
    render_service(root, service.name(), reader, result);
  }
  return 0;
}

}  // namespace kelotls
