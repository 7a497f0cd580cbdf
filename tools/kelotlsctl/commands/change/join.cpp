// kelotlsctl join: services of a registration join, or join again.
#include <kelotls/api_provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "changes/application.h"
#include "changes/snapshot.h"
#include "changes/way_back.h"
#include "command_line.h"
#include "files.h"
#include "framework_config.h"
#include "paths.h"
#include "service/expected_differences.h"
#include "service/templates.h"
#include "store/addresses.h"
#include "store/documents.h"
#include "store/history.h"
#include "store/spelling.h"

namespace kelotlsctl {

namespace {

/// What a join of a service may overwrite and, should it fail, takes away.
class FormerFiles {
 public:
  explicit FormerFiles(const std::string& service)
      : descriptor_path_(kelotls::descriptor_path(service)),
        link_path_(kelotls::link_path(service)),
        link_target_(link_target(service)),
        has_descriptor_(kelotls::read_file(descriptor_path_, descriptor_) &&
                        ::stat(descriptor_path_.c_str(), &status_) == 0) {}

  /// Puts back what is gone. In place: a temporary file in that directory would be read as a
  /// service.
  bool put_back() const {
    bool is_back = true;
    if (has_descriptor_ && !kelotls::exists_at(descriptor_path_)) {
      is_back = kelotls::write_in_place(descriptor_path_, descriptor_) &&
                ::chmod(descriptor_path_.c_str(), status_.st_mode & 07777) == 0;
    }
    if (!link_target_.empty() && !kelotls::exists_at(link_path_)) {
      is_back = ::symlink(link_target_.c_str(), link_path_.c_str()) == 0 && is_back;
    }
    return is_back;
  }

 private:
  std::string descriptor_path_;
  std::string link_path_;
  std::string link_target_;
  std::string descriptor_;
  struct stat status_ = {};
  bool has_descriptor_;
};

/// What a service had, has from now on, and with it: one row for its template, one for its
/// reloader.
struct FileChange {
  const char* kind;
  std::string from;
  std::string to;
  std::string stale;  ///< the file that is removed with it; empty where there is none
};

std::vector<FileChange> file_changes(const kelotls::ServiceDesc& service) {
  const std::string name = service.get_service_name();
  const ServiceDescriptor former = read_service_descriptor(kelotls::descriptor_path(name));
  const std::string rendered = kelotls::rendered_path(name);
  const bool loses_template =
      !former.template_path().empty() && service.get_mustahce_path().empty();
  const bool loses_link = !link_target(name).empty() && !kelotls::needs_reloader_link(service);
  return {{"template", former.template_path(), service.get_mustahce_path(),
           loses_template && kelotls::exists_at(rendered) ? rendered : ""},
          {"reloader", former.reloader_path(), service.get_reloader_path(),
           loses_link ? kelotls::link_path(name) : ""}};
}

/// [{"kind", "path", "removed"}]: what was there, or has left a file, and is there no more.
Json::Value dropped_json(const std::vector<FileChange>& changes) {
  Json::Value list = list_of({});
  for (const FileChange& change : changes) {
    const bool is_dropped = !change.from.empty() && change.to.empty();
    if (is_dropped || !change.stale.empty()) {
      list.append(
          object({{"kind", change.kind},
                  {"path", is_dropped ? Json::Value(change.from) : Json::Value()},
                  {"removed", change.stale.empty() ? Json::Value() : Json::Value(change.stale)}}));
    }
  }
  return list;
}

/// [{"kind", "from", "to"}]: what another registration brought.
Json::Value replaced_json(const std::vector<FileChange>& changes) {
  Json::Value list = list_of({});
  for (const FileChange& change : changes) {
    if (!change.from.empty() && !change.to.empty() && change.from != change.to) {
      list.append(object({{"kind", change.kind}, {"from", change.from}, {"to", change.to}}));
    }
  }
  return list;
}

/// Who joins, as it is reported.
Json::Value plan_json(const Registration& registration, const Store& store) {
  const auto services = kelotls::services_of(registration.document);
  const std::map<std::string, Address> addresses = registration.addresses();
  return list_of(services, [&](const kelotls::ServiceDesc& service) {
    const std::string name = service.get_service_name();
    const bool has_link = kelotls::needs_reloader_link(service);
    const std::vector<FileChange> changes = file_changes(service);
    const auto address = addresses.find(name);
    return object(
        {{"service", name},
         {"new", !store.has(name)},
         {"descriptor", kelotls::descriptor_path(name)},
         {"reloader-link", has_link ? kelotls::link_path(name) : Json::Value()},
         {"probe", address != addresses.end() ? address_json(address->second) : Json::Value()},
         {"dropped", dropped_json(changes)},
         {"replaced", replaced_json(changes)}});
  });
}

/// Two packages that take one name for two services would each undo the other's join.
void refuse_replacement(const Json::Value& plan) {
  std::string text;
  for (const Json::Value& service : plan) {
    for (const Json::Value& replaced : service["replaced"]) {
      text += (text.empty() ? "" : "\n  ") + printable(service["service"]) +
              " joined before with the " + replaced["kind"].asString() + " " +
              printable(replaced["from"]) + ", not " + printable(replaced["to"]);
    }
  }
  if (!text.empty()) {
    throw Failure(kFailed, text,
                  "Nothing was changed. Where this registration shall take the other's place: "
                  "kelotlsctl join --replace");
  }
}

/// Nothing renders or runs them any more, but a server would still include the one, and a reload
/// run the other.
void remove_stale(const Json::Value& plan) {
  for (const Json::Value& service : plan) {
    for (const Json::Value& dropped : service["dropped"]) {
      const std::string path = dropped["removed"].isNull() ? "" : dropped["removed"].asString();
      if (!path.empty() && ::unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw system_failure(path);
      }
    }
  }
}

void require_joined(const std::vector<std::string>& services) {
  const Store store = load_store();
  for (const std::string& service : services) {
    if (!store.has(service) ||
        !read_service_descriptor(kelotls::descriptor_path(service)).is_usable()) {
      throw Failure(kFailed, "the service \"" + printable(service) + "\" has not joined");
    }
  }
}

/// Before anything is written: the library would find a store too large only once it is there.
void require_room(const Registration& registration, Store store) {
  kelotls::merge_service_entries(store.root, kelotls::services_of(registration.document));
  require_readable_back(store);
}

/// What the registration brings takes the place of what is kept; what it does not bring stays.
Addresses addresses_with(const std::map<std::string, Address>& brought) {
  Addresses addresses = brought.empty() ? Addresses() : Addresses::load();
  for (const auto& [service, address] : brought) {
    addresses.set(service, address);
  }
  return addresses;
}

void execute(const Registration& registration, Store& store) {
  const std::vector<std::string> services = registration.names();
  const std::vector<FormerFiles> former(services.begin(), services.end());
  const bool was_incomplete = complete_levels(store);
  require_room(registration, store);
  if (was_incomplete) {
    save_store(store);
  }
  if (kelotls::APIProvider().join_framework(registration.document) != 0) {
    const auto lost = std::count_if(former.begin(), former.end(),
                                    [](const FormerFiles& files) { return !files.put_back(); });
    throw Failure(kFailed, "the services have not joined",
                  lost == 0 ? "The log lines say why. What stood there before still stands."
                            : "The log lines say why. Files of services that had joined before are "
                              "gone: let these join again.");
  }
  require_joined(services);
  Stamp::forget(services);
}

void warn_of(Console& console, const kelotls::Faults& faults) {
  for (const kelotls::Fault& fault : faults) {
    console.warn(fault_text(fault));
  }
}

Report with_note_of_pending(const Registration& registration, Report report) {
  if (any_pending(load_store(), registration.names())) {
    report.notes.emplace_back("Not in force yet: kelotlsctl apply");
  }
  return report;
}

/// What is to be confirmed has to be in force.
Report applied(Console& console, const Registration& registration, Report report) {
  const Report application =
      apply_to(console, load_store(), {registration.names(), false}, ReloadOptions());
  record_results(application.document["probed"]);
  report.code = application.code;
  report.document["apply"] = application.document;
  return report;
}

}  // namespace

Report join_services(Console& console, const Arguments& arguments) {
  const Registration registration = require_registration(arguments.file, kelotls::Purpose::kJoin);
  require_trust(console, walk_registration(console, kelotls::services_of(registration.document)),
                arguments.confidence());
  const TemplateVerdicts templates = judge_templates(console, registration.document);
  const WayBack back = way_back(arguments.confirm, arguments.confidence());
  const WriteAccess access(console, arguments.confidence(), back.joins());
  Store store = load_store();
  const std::map<std::string, Address> brought = registration.addresses();
  const Addresses addresses = addresses_with(brought);
  warn_of(console, file_warnings(registration.document));
  warn_of(console, misspelt_members(registration.document));
  warn_of(console, templates.faults);
  warn_of(console, templates.warnings);
  Report report;
  report.document["services"] = plan_json(registration, store);
  if (!arguments.replace) {
    refuse_replacement(report.document["services"]);
  }
  refuse_unreachable_levels(addresses, store, registration.names());
  report.document["written"] = !arguments.dry_run;
  if (arguments.dry_run) {
    return report;
  }
  begin_record(arguments.command, arguments.reason, changes_of(registration.names()));
  const auto snapshot = [before = store, &registration] {
    return take_snapshot(before, registration.names(), Extent::kMembership);
  };
  return make_change(console, back, snapshot, [&] {
    execute(registration, store);
    if (!brought.empty()) {
      addresses.save();
    }
    remove_stale(report.document["services"]);
    return back.wait ? applied(console, registration, report)
                     : with_note_of_pending(registration, report);
  });
}

namespace {

/// "  its template /x is dropped, and its rendered file PATH is removed"
void print_dropped(Console& console, const Json::Value& dropped, bool is_written) {
  const bool is_template = dropped["kind"] == "template";
  std::string text;
  if (!dropped["path"].isNull()) {
    text = "its " + dropped["kind"].asString() + " " + printable(dropped["path"]) + " is dropped";
  }
  if (!dropped["removed"].isNull()) {
    text += (text.empty() ? "its " : ", and its ") +
            std::string(is_template ? "rendered file " : "link ") + printable(dropped["removed"]) +
            (is_written ? " is removed" : " would be removed");
  }
  console.data() << "  " << text << '\n';
}

void print_changes(Console& console, const Json::Value& service, bool is_written) {
  for (const Json::Value& dropped : service["dropped"]) {
    print_dropped(console, dropped, is_written);
  }
  for (const Json::Value& replaced : service["replaced"]) {
    console.data() << "  its " << replaced["kind"].asString() << " is " << printable(replaced["to"])
                   << " in place of " << printable(replaced["from"]) << '\n';
  }
}

}  // namespace

void print_joined(Console& console, const Json::Value& document) {
  for (const Json::Value& service : document["services"]) {
    console.data() << printable(service["service"])
                   << (document["written"].asBool() ? ": joined" : ": would join")
                   << (service["new"].asBool() ? "" : " again, keeping its level")
                   << (service["reloader-link"].isNull() ? "" : ", reloader linked")
                   << (service["probe"].isNull()
                           ? ""
                           : ", address " + printable(service["probe"]["address"]) + " kept")
                   << '\n';
    print_changes(console, service, document["written"].asBool());
  }
}

}  // namespace kelotlsctl
