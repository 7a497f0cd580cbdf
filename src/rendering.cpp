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

using Step = RenderResult::Step;

/// What is to be rendered, and how far it came. Each step is true where there is a next one.
struct Job {
  explicit Job(std::string service) : name(std::move(service)), output_path(rendered_path(name)) {}

  bool fail_at(Step step, int error, std::string path) {
    result.outcome = RenderResult::Outcome::kFailed;
    result.failed_step = step;
    result.error = error;
    result.path = std::move(path);
    return false;
  }

  const std::string name;
  const std::string output_path;
  std::vector<Json::Value> contexts = std::vector<Json::Value>(1);
  RenderResult result;
};

/// Finds the template and what it is to be rendered with.
bool prepare(const Json::Value& root, JsonReader& reader, Job& job) {
  Json::Value descriptor;
  if (!read_descriptor(reader, descriptor_path(job.name), descriptor)) {
    return job.fail_at(Step::kDescriptor, errno, descriptor_path(job.name));
  }
  if (!descriptor.isMember("mustache-path")) {
    return false;
  }
  const int level = lookup_service_level(root, job.name);
  if (level < 0) {
    return job.fail_at(Step::kLevel, 0, std::string());
  }
  job.contexts[0][profile_of_level(level).tier] = true;
  job.result.template_path = descriptor["mustache-path"].asString();
  job.result.outcome = RenderResult::Outcome::kRendered;
  return true;
}

bool render_to(const std::string& path, Job& job) {
  return KELO::RenderMustacheToFile(job.result.template_path, job.contexts, path) ||
         job.fail_at(Step::kTemplate, 0, job.output_path);
}

bool read_text(const std::string& path, std::string& text, Job& job) {
  return read_file(path, text) || job.fail_at(Step::kRead, errno, path);
}

/// Renders by way of a temporary file beside the output, which stays where a step fails.
bool render_file(Job& job) {
  char temporary_path[4096];
  // What does not fit is cut short, and mkstemp then refuses it.
  static_cast<void>(std::snprintf(temporary_path, sizeof temporary_path, "%s",
                                  (job.output_path + ".XXXXXX").c_str()));
  errno = 0;
  const int descriptor = mkstemp(temporary_path);
  if (descriptor < 0) {
    return job.fail_at(Step::kTemporary, errno, job.output_path);
  }
  close(descriptor);
  if (!render_to(temporary_path, job)) {
    return false;
  }
  errno = 0;
  return std::rename(temporary_path, job.output_path.c_str()) == 0 ||
         job.fail_at(Step::kRename, errno, temporary_path);
}

/// Renders to memory.
bool render_text(std::string& text, Job& job) {
  const Descriptor memory(memfd_create("rendered", MFD_CLOEXEC));
  if (!memory.is_open()) {
    return job.fail_at(Step::kTemporary, errno, job.output_path);
  }
  const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
  return render_to(path, job) && read_text(path, text, job);
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

bool put_in_force(const Json::Value& root, JsonReader& reader, Job& job) {
  const bool is_rendered = prepare(root, reader, job) && render_file(job);
  log_failure(job.result);
  return is_rendered;
}

}  // namespace

RenderResult render_and_compare(const Json::Value& root, const std::string& name,
                                JsonReader& reader, Rendering rendering, RenderedTexts& texts) {
  Job job(name);
  texts.had_former = read_file(job.output_path, texts.former);
  const int error = texts.had_former || errno == ENOENT ? 0 : errno;
  const bool is_rendered =
      rendering == Rendering::kInForce
          ? put_in_force(root, reader, job) && read_text(job.output_path, texts.now, job)
          : prepare(root, reader, job) && render_text(texts.now, job);
  if (is_rendered && error != 0) {
    job.fail_at(Step::kRead, error, job.output_path);
  } else if (is_rendered && texts.had_former && texts.former == texts.now) {
    job.result.outcome = RenderResult::Outcome::kUnchanged;
  }
  return std::move(job.result);
}

bool preview_template(const std::string& template_path, int level, std::string& text) {
  Job job{std::string()};
  job.contexts[0][profile_of_level(level).tier] = true;
  job.result.template_path = template_path;
  const bool is_rendered = render_text(text, job);
  errno = job.result.error;
  return is_rendered;
}

int APIProvider::render_service_template() const {
  const Json::Value root = load_data_store();
  const Json::Value& services = root["services"];
  JsonReader reader;
  for (auto service = services.begin(); service != services.end(); ++service) {
    Job job(service.name());
    put_in_force(root, reader, job);
  }
  return 0;
}

}  // namespace kelotls
