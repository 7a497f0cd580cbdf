// The commands that make services take up their levels: regen, render, reload, apply.
#include "apply.h"
#include "commands.h"
#include "lock.h"
#include "paths.h"
#include "regeneration.h"

namespace kelotlsctl {

namespace {

const char* verb(Rendering verdict, bool is_done) {
  switch (verdict) {
    case Rendering::kNew:
      return is_done ? "made" : "would be made";
    case Rendering::kChanged:
      return is_done ? "changed" : "would change";
    case Rendering::kImpossible:
      return "FAILED";
    default:
      return "unchanged";
  }
}

void report_rendering(Invocation& invocation, const std::vector<RenderResult>& results,
                      bool check) {
  Console& console = invocation.console;
  const bool is_done = !check && !invocation.dry_run;
  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["written"] = is_done;
    document["services"] = render_json(results, check);
    console.document(document);
  }
  for (const RenderResult& result : results) {
    if (!result.fault.empty()) {
      console.warn(printable(result.service) + ": " + printable(result.fault));
    }
    if (console.json()) {
      continue;
    }
    if (check) {
      console.data() << result.diff;
    } else {
      console.data() << printable(result.service) << ": "
                     << rendered_path(printable(result.service)) << ' '
                     << verb(result.verdict, is_done) << '\n';
    }
  }
}

bool any_change(const std::vector<RenderResult>& results) {
  for (const RenderResult& result : results) {
    if (result.verdict == Rendering::kNew || result.verdict == Rendering::kChanged) {
      return true;
    }
  }
  return false;
}

void report_reloading(Invocation& invocation, const ReloadResult& result) {
  Console& console = invocation.console;
  if (!result.fault.empty()) {
    console.warn("no reloader has run: " + printable(result.fault));
  }
  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["run"] = !invocation.dry_run && result.fault.empty();
    document["reloaders"] = reload_json(result);
    if (!result.fault.empty()) {
      document["fault"] = result.fault;
    }
    console.document(document);
    return;
  }
  for (const ReloadResult::Reloader& reloader : result.reloaders) {
    const std::string verdict = invocation.dry_run       ? "would be run"
                                : reloader.fault.empty() ? "done"
                                                         : reloader.fault;
    console.data() << printable(reloader.path) << ": " << printable(verdict) << '\n';
  }
  if (result.reloaders.empty() && result.fault.empty()) {
    console.say("There is no reloader.");
  }
}

/// What apply would do.
int foresee_application(Invocation& invocation, const Store& store) {
  Application application;
  application.rendered = compare_templates(store);
  application.reloaded = list_reloaders();
  if (invocation.console.json()) {
    Json::Value document = application_json(application);
    document["applied"] = false;
    invocation.console.document(document);
    return kDone;
  }
  report_rendering(invocation, application.rendered, false);
  report_reloading(invocation, application.reloaded);
  return kDone;
}

}  // namespace

int regenerate(Invocation& invocation) {
  const Lock lock(invocation.console, !invocation.dry_run);
  const Store before = load_store();
  const Regeneration regeneration =
      invocation.dry_run ? foresee_regeneration(before) : run_regeneration(before);
  Console& console = invocation.console;
  if (console.json()) {
    Json::Value document = regeneration_json(regeneration);
    document["written"] = !invocation.dry_run;
    console.document(document);
  } else {
    print_regeneration(console, regeneration, invocation.dry_run);
  }
  return regeneration.unreadable.empty() ? kDone : kFailed;
}

int render(Invocation& invocation, bool check) {
  const bool writes = !check && !invocation.dry_run;
  const Lock lock(invocation.console, writes);
  const Store store = load_store();
  const std::vector<RenderResult> results =
      writes ? render_templates(store) : compare_templates(store);
  report_rendering(invocation, results, check);
  if (any_failed(results)) {
    return kFailed;
  }
  return check && any_change(results) ? kNotSo : kDone;
}

int reload(Invocation& invocation) {
  const Lock lock(invocation.console, !invocation.dry_run);
  const Store store = load_store();
  const ReloadResult result = invocation.dry_run ? list_reloaders() : run_reloaders(store);
  report_reloading(invocation, result);
  return result.code();
}

int apply_levels(Invocation& invocation) {
  if (invocation.dry_run) {
    return foresee_application(invocation, load_store());
  }
  const Lock lock(invocation.console, !invocation.dry_run);
  const Store store = load_store();
  const Application application =
      apply_to(invocation.console, store, store.services.getMemberNames());
  print_application(invocation.console, store, application);
  if (invocation.console.json()) {
    Json::Value document = application_json(application);
    document["applied"] = true;
    invocation.console.document(document);
  }
  return application.code();
}

}  // namespace kelotlsctl
