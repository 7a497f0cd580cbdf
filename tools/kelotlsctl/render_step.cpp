// Levels written and templates rendered, each checked afterwards.
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>

#include <algorithm>
#include <functional>

#include "diff.h"
#include "log_capture.h"
#include "paths.h"
#include "steps.h"

namespace kelotlsctl {

namespace {

void require_written(const LogWatch& watch, bool reads_back) {
  if (!watch.lines({line::kStoreNotSaved}).empty() || !reads_back) {
    throw Failure(kFailed, std::string("the data store ") + kDataStorePath + " was not written",
                  "The log line says why. What it held before still stands.");
  }
}

const char* change_key(Rendering verdict) {
  switch (verdict) {
    case Rendering::kNew:
      return "new";
    case Rendering::kChanged:
      return "changed";
    case Rendering::kImpossible:
      return "failed";
    default:
      return "none";
  }
}

}  // namespace

void write_service_level(const std::string& service, int level) {
  const LogWatch watch;
  kelotls::DataStoreProvider().set_service_level(service,
                                                 static_cast<kelotls::TlsProfileLevel>(level));
  const Store store = load_store();
  require_written(watch, store.has(service) && store.stored_level(service) == level);
}

void write_default_level(int level) {
  const LogWatch watch;
  kelotls::DataStoreProvider().set_default_level(static_cast<kelotls::TlsProfileLevel>(level));
  require_written(watch, load_store().default_level == level);
}

std::vector<RenderResult> compare_templates(const Store& store) {
  Renderer renderer;
  std::vector<RenderResult> results;
  for (const std::string& service : store.services.getMemberNames()) {
    const RenderedFile file =
        renderer.compare(service, read_descriptor(service), store.effective_level(service));
    if (file.verdict == Rendering::kNone) {
      continue;
    }
    const std::string path = printable(rendered_path(service));
    const bool is_new = file.verdict == Rendering::kNew;
    const bool differs = is_new || file.verdict == Rendering::kChanged;
    results.push_back({service, file.verdict, file.fault,
                       differs
                           ? unified_diff(is_new ? "/dev/null" : path, path, file.now, file.wanted)
                           : std::string()});
  }
  return results;
}

std::vector<RenderResult> render_templates(const Store& store) {
  std::vector<RenderResult> results = compare_templates(store);
  const LogWatch watch;
  kelotls::APIProvider().render_service_template();
  const std::vector<std::string> failures = watch.lines(render_failures());

  // Not the lines alone: one of them does not name its service.
  const std::vector<RenderResult> afterwards = compare_templates(store);
  for (std::size_t at = 0; at < results.size() && at < afterwards.size(); ++at) {
    if (!afterwards[at].fault.empty()) {
      results[at].fault = afterwards[at].fault;
    } else if (afterwards[at].verdict != Rendering::kUnchanged) {
      results[at].fault = rendered_path(results[at].service) + " was not written";
    }
    if (!results[at].fault.empty()) {
      results[at].verdict = Rendering::kImpossible;
    }
  }
  if (!failures.empty() && !any_failed(results)) {
    throw Failure(kFailed, "a template was not rendered", "The log line says why.");
  }
  return results;
}

bool any_failed(const std::vector<RenderResult>& results) {
  return std::any_of(results.begin(), results.end(),
                     [](const RenderResult& result) { return !result.fault.empty(); });
}

Json::Value render_json(const std::vector<RenderResult>& results, bool with_diff) {
  Json::Value list(Json::arrayValue);
  for (const RenderResult& result : results) {
    Json::Value value(Json::objectValue);
    value["service"] = result.service;
    value["path"] = rendered_path(result.service);
    value["change"] = change_key(result.verdict);
    if (!result.fault.empty()) {
      value["fault"] = result.fault;
    }
    if (with_diff && !result.diff.empty()) {
      value["diff"] = result.diff;
    }
    list.append(value);
  }
  return list;
}

}  // namespace kelotlsctl
