// kelotlsctl leave: services of a registration leave, with their files.
#include <kelotls/api_provider.h>
#include <unistd.h>

#include <algorithm>

#include "changes/snapshot.h"
#include "changes/way_back.h"
#include "command_line.h"
#include "files.h"
#include "paths.h"
#include "service/remains.h"
#include "service/service_state.h"
#include "store/addresses.h"
#include "store/dated_levels.h"
#include "store/documents.h"
#include "store/history.h"

namespace kelotlsctl {

namespace {

/// The registration with exactly what is there to remove: the library goes by what it is told, and
/// would leave a link behind that is not named, or log the absence of a file that is.
Json::Value registration_to_leave(const Registration& registration) {
  const auto element_of = [](const std::string& service) {
    Json::Value element = object({{"service", service}});
    if (kelotls::exists_at(kelotls::link_path(service))) {
      element["reloader-path"] = kelotls::link_path(service);
    }
    if (kelotls::exists_at(kelotls::rendered_path(service))) {
      element["mustache-path"] = kelotls::rendered_path(service);
    }
    return element;
  };
  return object({{"system-service", kelotls::is_system_service(registration.document)},
                 {"services", list_of(registration.names(), element_of)}});
}

/// A leave that was interrupted can be finished: its services have no entry, but files.
void require_members(const Registration& registration, const Store& store) {
  for (const std::string& service : registration.names()) {
    if (!kelotls::exists_at(kelotls::descriptor_path(service))) {
      require_service(store, service);
    }
  }
}

/// Who leaves, the files that go, and where the rendered one is still named.
Json::Value plan_json(const Registration& registration) {
  const bool keeps_link = kelotls::is_system_service(registration.document);
  std::vector<std::string> rendered;
  for (const std::string& service : registration.names()) {
    if (kelotls::exists_at(kelotls::rendered_path(service))) {
      rendered.push_back(kelotls::rendered_path(service));
    }
  }
  const Json::Value mentions = files_that_name(rendered);
  return list_of(registration.names(), [&](const std::string& service) {
    std::vector<std::string> paths = {keeps_link ? "" : kelotls::link_path(service),
                                      kelotls::descriptor_path(service),
                                      kelotls::rendered_path(service)};
    const std::vector<std::string> temporaries = temporaries_of(service);
    paths.insert(paths.end(), temporaries.begin(), temporaries.end());
    return object({{"service", service},
                   {"removed", list_where(paths, kelotls::exists_at)},
                   {"still-named-in", mentions.get(kelotls::rendered_path(service), list_of({}))}});
  });
}

/// The library knows of no temporary; a failure shows as a file that is still there.
void remove_temporaries(const Registration& registration) {
  for (const std::string& service : registration.names()) {
    for (const std::string& path : temporaries_of(service)) {
      ::unlink(path.c_str());
    }
  }
}

void require_left(const Json::Value& services) {
  const Store store = load_store();
  for (const Json::Value& left : services) {
    const std::string service = left["service"].asString();
    if (store.has(service)) {
      throw Failure(kFailed, "the service \"" + printable(service) + "\" has not left");
    }
    for (const Json::Value& path : left["removed"]) {
      if (kelotls::exists_at(path.asString())) {
        throw Failure(kFailed, printable(path) + " could not be removed");
      }
    }
  }
}

/// What is kept by service in a file of the command's own. One that cannot be used keeps no service
/// from leaving.
template <typename Kept>
void drop_kept_in(Console& console, const std::vector<std::string>& services) {
  try {
    Kept kept = Kept::load();
    const auto dropped =
        std::count_if(services.begin(), services.end(),
                      [&](const std::string& service) { return kept.remove(service); });
    if (dropped != 0) {
      kept.save();
    }
  } catch (const Failure& failure) {
    console.warn(failure.what());
  }
}

void drop_kept(Console& console, const std::vector<std::string>& services) {
  drop_kept_in<Addresses>(console, services);
  drop_kept_in<DatedLevels>(console, services);
}

void execute(const Registration& registration, const Json::Value& services) {
  if (kelotls::APIProvider().leave_framework(registration_to_leave(registration)) != 0) {
    throw Failure(kFailed, "the services have not left", "The log lines say why.");
  }
  remove_temporaries(registration);
  require_left(services);
  Stamp::forget(registration.names());
}

/// A server whose configuration includes a file that is gone does not start any more.
std::vector<std::string> warnings_of_mentions(const Json::Value& services, bool is_done) {
  std::vector<std::string> warnings;
  for (const Json::Value& left : services) {
    const std::string rendered = kelotls::rendered_path(left["service"].asString());
    for (const Json::Value& path : left["still-named-in"]) {
      warnings.push_back(printable(path) + " names " + printable(rendered) +
                         (is_done ? ", which is removed" : ", which would be removed"));
    }
  }
  return warnings;
}

}  // namespace

Report leave_services(Console& console, const Arguments& arguments) {
  const Registration registration = require_registration(arguments.file, kelotls::Purpose::kLeave);
  const WayBack back = way_back(arguments.confirm, arguments.confidence());
  const WriteAccess access(console, arguments.confidence(), back.joins());
  const Store before = load_store();
  require_members(registration, before);
  const Json::Value services = plan_json(registration);
  Report report = {kDone, object({{"written", !arguments.dry_run}, {"services", services}}),
                   warnings_of_mentions(services, !arguments.dry_run)};
  if (arguments.dry_run) {
    return report;
  }
  begin_record(arguments.command, arguments.reason, changes_of(registration.names()));
  const auto snapshot = [&] {
    return take_snapshot(before, registration.names(), Extent::kMembership);
  };
  return make_change(console, back, snapshot, [&] {
    execute(registration, services);
    drop_kept(console, registration.names());
    return report;
  });
}

void print_left(Console& console, const Json::Value& document) {
  const bool is_done = document["written"].asBool();
  for (const Json::Value& left : document["services"]) {
    console.data() << printable(left["service"]) << (is_done ? ": left\n" : ": would leave\n");
    for (const Json::Value& path : left["removed"]) {
      console.data() << (is_done ? "  removed " : "  would remove ") << printable(path) << '\n';
    }
  }
}

}  // namespace kelotlsctl
