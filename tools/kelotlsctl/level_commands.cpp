// The commands that change levels: set, default.
#include <exception>

#include "apply.h"
#include "commands.h"
#include "level.h"
#include "lock.h"
#include "service_state.h"
#include "steps.h"
#include "store.h"

namespace kelotlsctl {

namespace {

/// A change of one service's level, as it is reported.
struct Change {
  std::string service;
  int former = 0;
  int level = 0;
  int effective = 0;
  bool is_undone = false;
};

Json::Value change_json(const Invocation& invocation, const Change& change) {
  Json::Value value(Json::objectValue);
  value["service"] = change.service;
  value["former-level"] = level_json(change.former);
  value["stored-level"] =
      level_json(change.is_undone || invocation.dry_run ? change.former : change.level);
  value["requested-level"] = level_json(change.level);
  value["written"] = !invocation.dry_run && !change.is_undone && change.former != change.level;
  value["undone"] = change.is_undone;
  return value;
}

void print_change(Invocation& invocation, const Change& change) {
  const std::string name = printable(change.service);
  const std::string level = describe_levels(change.level, change.effective);
  if (change.former == change.level) {
    invocation.console.data() << name << ": already " << level << '\n';
  } else {
    invocation.console.data() << name << ": " << level_name(change.former)
                              << (invocation.dry_run ? " would become " : " became ") << level
                              << '\n';
  }
}

/// Everything as it was before, as far as that can be had.
void undo(Console& console, Change& change) {
  write_service_level(change.service, change.former);
  change.is_undone = true;
  bool is_in_force = false;
  try {
    is_in_force = apply_to(console, load_store(), {}).code() == kDone;
  } catch (const std::exception& exception) {
    console.warn(printable(exception.what()));
  }
  console.warn(
      printable(change.service) + " is back at " + level_name(change.former) +
      (is_in_force ? ", rendered and reloaded" : ", but rendering or reloading failed again"));
}

/// Sets the level and brings it into force; should a step fail, undoes it.
int set_and_apply(Invocation& invocation, Change& change, Json::Value& document) {
  Console& console = invocation.console;
  write_service_level(change.service, change.level);
  try {
    const Store store = load_store();
    const Application application = apply_to(console, store, {change.service});
    print_application(console, store, application);
    document["apply"] = application_json(application);
    if (application.code() == kDone) {
      return kDone;
    }
    undo(console, change);
    return application.code();
  } catch (const std::exception&) {
    if (!change.is_undone) {
      undo(console, change);
    }
    throw;
  }
}

/// How the new level gets to the service.
std::string next_step(const std::string& service) {
  const Store store = load_store();
  return ServiceInspector(store).inspect(service).state == State::kNextContext
             ? "In force from the service's next context on."
             : "Not in force yet: kelotlsctl apply";
}

}  // namespace

int set_level(Invocation& invocation, const std::string& service, const std::string& level,
              bool apply) {
  Console& console = invocation.console;
  const int wanted = parse_level(level);
  const Lock lock(invocation.console, !invocation.dry_run);
  const Store store = load_store();
  require_service(store, service);

  Change change;
  change.service = service;
  change.former = store.stored_level(service);
  change.level = wanted;
  change.effective = wanted != 0 ? wanted : store.default_level;
  Json::Value applied(Json::objectValue);
  int code = kDone;
  if (!invocation.dry_run && apply) {
    code = set_and_apply(invocation, change, applied);
  } else if (!invocation.dry_run && change.former != wanted) {
    write_service_level(service, wanted);
  }

  if (console.json()) {
    Json::Value document = change_json(invocation, change);
    document["apply"] = applied["apply"];
    console.document(document);
    return code;
  }
  if (!change.is_undone) {
    print_change(invocation, change);
  }
  if (!apply && !invocation.dry_run && change.former != wanted) {
    console.say(next_step(service));
  }
  return code;
}

int show_default(Invocation& invocation) {
  const Store store = load_store();
  if (invocation.console.json()) {
    Json::Value document(Json::objectValue);
    document["default-level"] = level_json(store.default_level);
    document["written"] = false;
    invocation.console.document(document);
  } else {
    invocation.console.data() << describe_levels(store.default_level, store.default_level) << '\n';
  }
  return kDone;
}

int set_default(Invocation& invocation, const std::string& level) {
  Console& console = invocation.console;
  const int wanted = parse_level(level);
  const Lock lock(invocation.console, !invocation.dry_run);
  const int former = load_store().default_level;
  const bool writes = !invocation.dry_run && former != wanted;
  if (writes) {
    write_default_level(wanted);
  }

  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["default-level"] = level_json(invocation.dry_run ? former : wanted);
    document["former-level"] = level_json(former);
    document["requested-level"] = level_json(wanted);
    document["written"] = writes;
    console.document(document);
  } else if (former == wanted) {
    console.data() << "default level: already " << level_name(wanted) << '\n';
  } else {
    console.data() << "default level: " << level_name(former)
                   << (invocation.dry_run ? " would become " : " became ") << level_name(wanted)
                   << '\n';
  }
  if (wanted == 0) {
    console.warn("a default level cannot follow itself; 0 counts as intermediate");
  }
  if (writes) {
    console.say("Not in force yet: kelotlsctl apply");
  }
  return kDone;
}

}  // namespace kelotlsctl
