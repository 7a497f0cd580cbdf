// The commands about membership: validate, join, leave.
#include <kelotls/api_provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "commands.h"
#include "descriptor.h"
#include "files.h"
#include "json_text.h"
#include "lock.h"
#include "paths.h"
#include "regeneration.h"
#include "registration.h"
#include "stamp.h"
#include "store.h"

namespace kelotlsctl {

namespace {

Json::Value faults_json(const std::vector<Fault>& faults) {
  Json::Value list(Json::arrayValue);
  for (const Fault& fault : faults) {
    Json::Value value(Json::objectValue);
    value["path"] = fault.path;
    value["text"] = fault.text;
    list.append(value);
  }
  return list;
}

void warn_of(Console& console, const Registration& registration) {
  for (const Fault& warning : registration.warnings) {
    console.warn(warning.path + ": " + printable(warning.text));
  }
}

/// What a join of a service may overwrite and, should it fail, takes away.
class FormerFiles {
 public:
  explicit FormerFiles(std::string service)
      : service_(std::move(service)), link_(link_target(service_)) {
    has_descriptor_ = read_file(descriptor_path(service_), descriptor_) &&
                      ::stat(descriptor_path(service_).c_str(), &status_) == 0;
  }

  /// Puts back what is gone. In place: a temporary file in that folder would be read as a service.
  bool put_back() const {
    bool is_back = true;
    if (has_descriptor_ && !stands_at(descriptor_path(service_))) {
      std::ofstream file(descriptor_path(service_), std::ios::binary);
      file << descriptor_;
      is_back = bool(file.flush()) &&
                ::chmod(descriptor_path(service_).c_str(), status_.st_mode & 07777) == 0;
    }
    if (!link_.empty() && !stands_at(link_path(service_))) {
      is_back = ::symlink(link_.c_str(), link_path(service_).c_str()) == 0 && is_back;
    }
    return is_back;
  }

 private:
  std::string service_;
  std::string link_;
  std::string descriptor_;
  struct stat status_ = {};
  bool has_descriptor_ = false;
};

struct Joined {
  std::string service;
  bool is_new = true;
  bool has_link = false;
};

void require_joined(const Registration& registration) {
  const Store store = load_store();
  for (const std::string& service : services_of(registration)) {
    if (!store.has(service) || !read_descriptor(service).usable) {
      throw Failure(kFailed, "the service \"" + printable(service) + "\" has not joined");
    }
  }
}

void forget_stamps(const std::vector<std::string>& services) {
  Stamp stamp = Stamp::load();
  bool any = false;
  for (const std::string& service : services) {
    any = any || stamp.has(service);
    stamp.forget(service);
  }
  if (any) {
    stamp.save();
  }
}

void run_join(const Registration& registration, const Store& store) {
  const std::vector<std::string> services = services_of(registration);
  std::vector<FormerFiles> former(services.begin(), services.end());
  complete_levels(store);
  if (kelotls::APIProvider().join_framework(registration.document) != 0) {
    const auto lost = std::count_if(former.begin(), former.end(),
                                    [](const FormerFiles& files) { return !files.put_back(); });
    throw Failure(kFailed, "the services have not joined",
                  lost == 0 ? "The log lines say why. What stood there before still stands."
                            : "The log lines say why. Files of services that had joined before are "
                              "gone: let these join again.");
  }
  require_joined(registration);
  forget_stamps(services);
}

void report_join(Invocation& invocation, const std::vector<Joined>& joined) {
  Console& console = invocation.console;
  Json::Value document(Json::objectValue);
  document["written"] = !invocation.dry_run;
  document["services"] = Json::Value(Json::arrayValue);
  for (const Joined& service : joined) {
    Json::Value value(Json::objectValue);
    value["service"] = service.service;
    value["new"] = service.is_new;
    value["descriptor"] = descriptor_path(service.service);
    value["reloader-link"] =
        service.has_link ? Json::Value(link_path(service.service)) : Json::Value();
    document["services"].append(value);
    if (!console.json()) {
      console.data() << printable(service.service)
                     << (invocation.dry_run ? ": would join" : ": joined")
                     << (service.is_new ? "" : " again, keeping its level")
                     << (service.has_link ? ", reloader linked" : "") << '\n';
    }
  }
  if (console.json()) {
    console.document(document);
  }
}

/// The registration with exactly what is there to remove: the library goes by what it is told, and
/// would leave a link behind that is not named, or log the absence of a file that is.
Json::Value registration_to_leave(const Registration& registration) {
  Json::Value complete(Json::objectValue);
  complete["system-service"] = is_system_service(registration);
  complete["services"] = Json::Value(Json::arrayValue);
  for (const std::string& service : services_of(registration)) {
    Json::Value element(Json::objectValue);
    element["service"] = service;
    if (stands_at(link_path(service))) {
      element["reloader-path"] = link_path(service);
    }
    if (stands_at(rendered_path(service))) {
      element["mustache-path"] = rendered_path(service);
    }
    complete["services"].append(element);
  }
  return complete;
}

/// A leave that was interrupted can be finished: its services have no entry, but files.
void require_members(const Registration& registration, const Store& store) {
  for (const std::string& service : services_of(registration)) {
    if (!stands_at(descriptor_path(service))) {
      require_service(store, service);
    }
  }
}

/// The files that leaving removes.
std::vector<std::string> files_of(const std::string& service, bool is_system_service) {
  std::vector<std::string> files;
  for (const std::string& path : {is_system_service ? std::string() : link_path(service),
                                  descriptor_path(service), rendered_path(service)}) {
    if (!path.empty() && stands_at(path)) {
      files.push_back(path);
    }
  }
  return files;
}

Json::Value left_json(const std::string& service, const std::vector<std::string>& files) {
  Json::Value value(Json::objectValue);
  value["service"] = service;
  value["removed"] = Json::Value(Json::arrayValue);
  for (const std::string& path : files) {
    value["removed"].append(path);
  }
  return value;
}

void require_left(const std::vector<std::string>& services, const Json::Value& document) {
  const Store store = load_store();
  for (const std::string& service : services) {
    if (store.has(service)) {
      throw Failure(kFailed, "the service \"" + printable(service) + "\" has not left");
    }
  }
  for (const Json::Value& left : document["services"]) {
    for (const Json::Value& path : left["removed"]) {
      if (stands_at(path.asString())) {
        throw Failure(kFailed, printable(path.asString()) + " could not be removed");
      }
    }
  }
}

}  // namespace

int validate_registration(Invocation& invocation, const std::string& file) {
  Console& console = invocation.console;
  const Registration registration = read_registration(file, Purpose::kJoin);
  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["valid"] = registration.faults.empty();
    document["faults"] = faults_json(registration.faults);
    document["warnings"] = faults_json(registration.warnings);
    console.document(document);
  } else {
    for (const Fault& fault : registration.faults) {
      console.data() << fault.path << ": " << printable(fault.text) << '\n';
    }
    warn_of(console, registration);
    if (registration.faults.empty()) {
      console.say(registration.source + " can join.");
    }
  }
  return registration.faults.empty() ? kDone : kNotSo;
}

int join_services(Invocation& invocation, const std::string& file) {
  const Registration registration = require_registration(file, Purpose::kJoin);
  const Lock lock(invocation.console, !invocation.dry_run);
  const Store store = load_store();
  warn_of(invocation.console, registration);

  std::vector<Joined> joined;
  for (const Json::Value& service : registration.document["services"]) {
    const std::string name = service["service"].asString();
    const bool has_link = service.isMember("reloader-path") && !is_system_service(registration);
    joined.push_back({name, !store.has(name), has_link});
  }
  if (!invocation.dry_run) {
    run_join(registration, store);
  }
  report_join(invocation, joined);
  if (!invocation.dry_run) {
    invocation.console.say("Not in force yet: kelotlsctl apply");
  }
  return kDone;
}

int leave_services(Invocation& invocation, const std::string& file) {
  Console& console = invocation.console;
  const Registration registration = require_registration(file, Purpose::kLeave);
  const Lock lock(invocation.console, !invocation.dry_run);
  const Store store = load_store();
  require_members(registration, store);

  const std::vector<std::string> services = services_of(registration);
  Json::Value document(Json::objectValue);
  document["written"] = !invocation.dry_run;
  document["services"] = Json::Value(Json::arrayValue);
  for (const std::string& service : services) {
    document["services"].append(
        left_json(service, files_of(service, is_system_service(registration))));
  }
  if (!invocation.dry_run) {
    const Json::Value complete = registration_to_leave(registration);
    if (kelotls::APIProvider().leave_framework(complete) != 0) {
      throw Failure(kFailed, "the services have not left", "The log lines say why.");
    }
    require_left(services, document);
    forget_stamps(services);
  }

  if (console.json()) {
    console.document(document);
    return kDone;
  }
  for (const Json::Value& left : document["services"]) {
    console.data() << printable(left["service"].asString())
                   << (invocation.dry_run ? ": would leave" : ": left") << '\n';
    for (const Json::Value& path : left["removed"]) {
      console.data() << "  " << (invocation.dry_run ? "would remove " : "removed ")
                     << printable(path.asString()) << '\n';
    }
  }
  return kDone;
}

}  // namespace kelotlsctl
