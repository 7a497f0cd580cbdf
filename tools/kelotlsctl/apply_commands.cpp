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

void report_rendering(Session& session, const std::vector<RenderResult>& results, bool check) {
  Console& console = session.console;
  const bool is_done = !check && !session.dry_run;
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

void report_reloading(Session& session, const ReloadResult& result) {
  Console& console = session.console;
  if (!result.fault.empty()) {
    console.warn("no reloader has run: " + printable(result.fault));
  }
  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["run"] = !session.dry_run && result.fault.empty();
    document["reloaders"] = reload_json(result);
    if (!result.fault.empty()) {
      document["fault"] = result.fault;
    }
    console.document(document);
    return;
  }
  for (const ReloadResult::Reloader& reloader : result.reloaders) {
    const std::string verdict = session.dry_run          ? "would be run"
                                : reloader.fault.empty() ? "done"
                                                         : reloader.fault;
    console.data() << printable(reloader.path) << ": " << printable(verdict) << '\n';
  }
  if (result.reloaders.empty() && result.fault.empty()) {
    console.say("There is no reloader.");
  }
}

/// What apply would do.
int foresee_application(Session& session, const Store& store) {
  Application application;
  application.rendered = compare_templates(store);
  application.reloaded = list_reloaders();
  if (session.console.json()) {
    Json::Value document = application_json(application);
    document["applied"] = false;
    session.console.document(document);
    return kDone;
  }
  report_rendering(session, application.rendered, false);
  report_reloading(session, application.reloaded);
  return kDone;
}

}  // namespace

int regenerate(Session& session) {
  const Lock lock(session.console, !session.dry_run);
  const Store before = load_store();
  const Regeneration regeneration =
      session.dry_run ? foresee_regeneration(before) : run_regeneration(before);
  Console& console = session.console;
  if (console.json()) {
    Json::Value document = regeneration_json(regeneration);
    document["written"] = !session.dry_run;
    console.document(document);
  } else {
    print_regeneration(console, regeneration, session.dry_run);
  }
  return regeneration.unreadable.empty() ? kDone : kFailed;
}

int render(Session& session, bool check) {
  const bool writes = !check && !session.dry_run;
  const Lock lock(session.console, writes);
  const Store store = load_store();
  const std::vector<RenderResult> results =
      writes ? render_templates(store) : compare_templates(store);
  report_rendering(session, results, check);
  if (any_failed(results)) {
    return kFailed;
  }
  return check && any_change(results) ? kNotSo : kDone;
}

int reload(Session& session) {
  const Lock lock(session.console, !session.dry_run);
  const Store store = load_store();
  const ReloadResult result = session.dry_run ? list_reloaders() : run_reloaders(store);
  report_reloading(session, result);
  return result.code();
}

int apply_levels(Session& session) {
  if (session.dry_run) {
    return foresee_application(session, load_store());
  }
  const Lock lock(session.console, !session.dry_run);
  const Store store = load_store();
  const Application application = apply_to(session.console, store, store.services.getMemberNames());
  print_application(session.console, store, application);
  if (session.console.json()) {
    Json::Value document = application_json(application);
    document["applied"] = true;
    session.console.document(document);
  }
  return application.code();
}

}  // namespace kelotlsctl
