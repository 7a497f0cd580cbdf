// kelotlsctl check: everything that is wrong with the framework, and what to do about it. Each part
// looks at one kind of thing and changes nothing.
#include <kelotls/tls_profile_level.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <regex>
#include <set>

#include "changes/pending_change.h"
#include "changes/trusted_places.h"
#include "command_line.h"
#include "commands/look/findings.h"
#include "framework_config.h"
#include "levels/dh_parameters.h"
#include "levels/report.h"
#include "paths.h"
#include "regeneration.h"
#include "registration.h"
#include "service/expected_differences.h"
#include "service/service_state.h"
#include "store/addresses.h"
#include "store/dated_levels.h"

namespace kelotlsctl {

namespace {

using kelotls::exists_at;
using kelotls::kConfigDir;
using kelotls::kDataStorePath;
using kelotls::kPackageReloaderDir;

// What a finding is about
constexpr char kDataStore[] = "data-store";
constexpr char kDescriptor[] = "descriptor";
constexpr char kRendering[] = "rendering";
constexpr char kServer[] = "server";
constexpr char kChange[] = "change";
constexpr char kReloader[] = "reloader";
constexpr char kTrust[] = "trust";
constexpr char kDirectory[] = "directory";
constexpr char kDhParameters[] = "dh-parameters";
constexpr char kLeftover[] = "leftover";

/// What is to be done for a service whose level is not in force.
constexpr char kApply[] = "kelotlsctl apply";

/// Each takes two lines; a line that counts the others, and the verdict, come on top.
constexpr std::size_t kMaxPendingShown = 24;

/// The document's list of findings, as it grows; what is added is of one kind.
class Findings {
 public:
  explicit Findings(Json::Value& list, const char* kind = kDataStore) : list_(list), kind_(kind) {}

  Findings of(const char* kind) const { return Findings(list_, kind); }

  void add(const char* severity, const std::string& path, const std::string& text,
           const std::string& action) const {
    list_.append(object({{"kind", kind_},
                         {"severity", severity},
                         {"path", path},
                         {"text", text},
                         {"action", action}}));
  }

 private:
  Json::Value& list_;
  const char* kind_;
};

std::vector<std::string> names_in(const std::string& directory) {
  std::vector<std::string> names;
  kelotls::list_directory(directory, names);  // where it cannot be listed, its own check says so
  return names;
}

/// "web" of "web.conf"; empty for another kind of name.
std::string service_of_file(const std::string& name) {
  const std::string suffix = kelotls::kServiceFileSuffix;
  const std::size_t length = name.size() - std::min(name.size(), suffix.size());
  return name.compare(length, std::string::npos, suffix) == 0 ? name.substr(0, length)
                                                              : std::string();
}

/// Whether the service has joined, or has a descriptor, and needs but an entry: its files are in
/// use.
bool is_known(const Store& store, const std::string& service) {
  return store.has(service) || exists_at(kelotls::descriptor_path(service));
}

/// Whether it is a directory, where none should be.
bool refuse_directory(const std::string& path, const Findings& findings) {
  struct stat status = {};
  const bool is_directory = ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  if (is_directory) {
    findings.add(kWarning, path, "is a directory", "remove it");
  }
  return is_directory;
}

// The data store

/// Why the library cannot use the data store.
std::string store_fault() {
  Json::Value document;
  std::string fault;
  if (!read_document(kDataStorePath, document, fault)) {
    return fault;
  }
  const kelotls::Faults faults = kelotls::data_store_faults(document);
  return faults.empty() ? "the library refuses it" : faults[0].path + " " + faults[0].text;
}

void check_store(const std::optional<Store>& store, const Findings& findings) {
  if (!store && !exists_at(kDataStorePath)) {
    findings.add(kError, kDataStorePath, "is missing", unreadable_store().advice);
  } else if (!store) {
    findings.add(kError, kDataStorePath, "cannot be used: " + store_fault(),
                 "kelotlsctl recover [--from BACKUP]");
  }
}

void check_level(int level, const std::string& what, const Findings& findings) {
  if (level < 0 || level > 3) {
    findings.add(level < 0 ? kError : kWarning, kDataStorePath,
                 what + " is " + std::to_string(level) +
                     (level < 0 ? ": it gives no context" : ": it counts as intermediate"),
                 "set another level");
  }
}

void check_entries(const Store& store, const Selection& selection, const Findings& findings) {
  check_level(store.default_level(), "the default level", findings);
  if (store.default_level() == 0) {
    findings.add(kWarning, kDataStorePath, "the default level is 0, which counts as intermediate",
                 "kelotlsctl default intermediate, or another level");
  }
  for (const std::string& service : selection.names) {
    check_level(store.stored_level(service), "the level of " + service, findings);
    const auto descriptor = read_service_descriptor(kelotls::descriptor_path(service));
    const std::string fault = kelotls::name_fault(service, !descriptor.template_path().empty());
    if (!fault.empty()) {
      findings.add(kError, kDataStorePath,
                   std::string("the service name \"").append(service) + "\" " + fault,
                   "whoever made it join has to make it leave; kelotlsctl takes no such name");
    }
  }
}

// The directory of descriptors: every file in it is read as one.

/// Whether there is a file that is a descriptor, and which service it describes.
void check_descriptor_file(const std::string& path, const Store& store,
                           std::set<std::string>& described, const Findings& findings) {
  if (!exists_at(path) || refuse_directory(path, findings)) {
    return;
  }
  const ServiceDescriptor descriptor = read_service_descriptor(path);
  if (!descriptor.is_usable()) {
    findings.add(kError, path, "is no descriptor: " + descriptor.fault,
                 "let the service join again, or remove the file");
    return;
  }
  for (const kelotls::Fault& fault : kelotls::descriptor_faults(descriptor.value)) {
    findings.add(kError, path, fault.path + " " + fault.text, "let the service join again");
  }
  const std::string service = kelotls::text_member(descriptor.value, "service");
  const bool is_first = described.insert(service).second;
  if (kelotls::descriptor_path(service) != path) {
    findings.add(kError, path, "is not the descriptor of the service that it names, " + service,
                 "remove it, or let the service join again");
  } else if (is_first && !store.has(service)) {
    findings.add(kError, path, "the service \"" + service + "\" has no entry in the data store",
                 "kelotlsctl regen gives it one; kelotlsctl leave removes the file");
  }
}

void check_descriptors(const Store& store, const Selection& selection, const Findings& findings) {
  std::set<std::string> described;
  std::vector<std::string> paths;
  if (selection.is_all) {
    paths = names_in(kelotls::kServicesDir);
    std::transform(paths.begin(), paths.end(), paths.begin(),
                   [](const std::string& name) { return kelotls::kServicesDir + name; });
  } else {
    std::transform(selection.names.begin(), selection.names.end(), std::back_inserter(paths),
                   kelotls::descriptor_path);
  }
  for (const std::string& path : paths) {
    check_descriptor_file(path, store, described, findings);
  }
}

// Each service's files, and all that is run for services

void check_descriptor(const ServiceStatus& status, const Findings& findings) {
  const ServiceDescriptor& descriptor = status.descriptor;
  if (!exists_at(descriptor.path)) {
    findings.add(kError, descriptor.path, "is missing: " + status.name + " is not rendered",
                 "let the service join again, or leave");
  }
  if (descriptor.is_usable() &&
      descriptor.value["display-name"] != status.document["display-name"]) {
    findings.add(kWarning, descriptor.path, "the display name is not the data store's",
                 "kelotlsctl regen");
  }
}

void check_rendering(const ServiceStatus& status, const Findings& findings) {
  if (status.state == State::kCannotRender && status.descriptor.is_usable()) {
    findings.add(kError, status.descriptor.template_path(),
                 status.name + ": " + status.rendered.fault,
                 "put the template right, then kelotlsctl apply");
  } else if (status.state == State::kNeedsRoot) {
    findings.of(kNotKnown).add(
        kWarning, status.descriptor.path,
        "whether the level of " + status.name + " is in force is not known: needs root",
        "kelotlsctl check, as root");
  } else if (status.state == State::kPendingRender) {
    findings.add(kNote, kelotls::rendered_path(status.name),
                 "is not what the template gives for the level", kApply);
  } else if (status.state == State::kPendingReload) {
    findings.add(kNote, status.descriptor.path,
                 status.name + " has not been reloaded since its level changed", kApply);
  }
}

void check_addresses(const Findings& findings) {
  const bool needs_root = is_withheld(Addresses::kPath);
  const std::string fault = needs_root ? "" : Addresses::fault();
  if (needs_root) {
    findings.of(kNotKnown).add(kWarning, Addresses::kPath,
                               "which running servers there are is not known: needs root",
                               "kelotlsctl check, as root");
  } else if (!fault.empty()) {
    findings.add(kWarning, Addresses::kPath, "cannot be used: " + fault,
                 "mend it, or remove it and keep the addresses anew: kelotlsctl address");
  }
}

/// A change that waits, or that could not be taken back.
void check_pending_change(const Findings& findings) {
  if (is_withheld(PendingChange::kPath)) {
    return;
  }
  const std::string fault = PendingChange::fault();
  if (!fault.empty()) {
    findings.add(kError, PendingChange::kPath, "cannot be used: " + fault,
                 "mend it; or remove it, and everything stays as it is");
    return;
  }
  const std::optional<PendingChange> change = PendingChange::load();
  if (!change) {
    return;
  }
  const Milliseconds left = change->time_left(this_moment());
  if (left > Milliseconds::zero()) {
    findings.add(kNote, PendingChange::kPath,
                 "a change waits to be confirmed, for " + duration_text(left) + " more",
                 "kelotlsctl confirm, or kelotlsctl revert");
  } else {
    const std::string why = change->fault_text();
    findings.add(kError, PendingChange::kPath,
                 "a change is to be taken back" + (why.empty() ? "" : ", which fails: " + why),
                 "kelotlsctl settle; kelotlsctl confirm leaves everything as it is");
  }
}

/// Levels that end at a date, and those that should have ended.
void check_dates(const Store& store, const Selection& selection, const Findings& findings) {
  if (is_withheld(DatedLevels::kPath)) {
    return;
  }
  const std::string fault = DatedLevels::fault();
  if (!fault.empty()) {
    findings.add(kError, DatedLevels::kPath, "cannot be used: " + fault,
                 "mend it; or remove it, and no level has a date");
    return;
  }
  const Moment now = this_moment();
  const DatedLevels dates = DatedLevels::load();
  for (const auto& [service, dated] : dates.all()) {
    const bool is_selected =
        std::binary_search(selection.names.begin(), selection.names.end(), service);
    if (!store.has(service)) {
      findings.add(kWarning, DatedLevels::kPath, service + " has a date, but has not joined",
                   "kelotlsctl settle drops the date once it has come");
    } else if (is_selected && dated.is_over(now)) {
      findings.add(kError, DatedLevels::kPath,
                   service + " was to return to " + level_text(level_json(dated.then)) + " at " +
                       utc_text(dated.until) +
                       (dated.fault.empty() ? "" : ", which fails: " + dated.fault),
                   "kelotlsctl settle");
    }
  }
}

/// What is expected of the running server, and whether it can be at the service's level.
void check_expected(const ServiceStatus& status, const Addresses& addresses,
                    const Findings& findings) {
  const Address* const address = addresses.find(status.name);
  const std::string fault =
      address != nullptr ? ExpectedDifferences::read(address->expected).fault() : "";
  if (!fault.empty()) {
    findings.add(kWarning, address->expected, "no difference is expected by it: " + fault,
                 "mend it, or let the service join again");
  }
  if (status.state == State::kUnreachable) {
    findings.add(
        kError, status.descriptor.path,
        status.name + "'s server cannot be at its level: " + status.document["fault"].asString(),
        "kelotlsctl set " + status.name + " LEVEL");
  }
}

/// What the running server shows of a level that is in force by the service's files.
void check_server(const ServiceStatus& status, const Findings& findings) {
  const Json::Value& server = status.document["server"];
  const std::string text = status.name + ": " + server["text"].asString();
  const std::string address = server["address"].asString();
  if (status.state == State::kDiffers) {
    findings.add(kError, address, text, "kelotlsctl apply; kelotlsctl probe shows everything");
  } else if (status.state == State::kNoAnswer) {
    findings.add(kWarning, address, text, "start the server, or kelotlsctl address");
  } else if (status.state == State::kCannotTell) {
    findings.of(kNotKnown).add(kWarning, address, text,
                               "kelotlsctl probe, with a longer --timeout");
  }
}

void check_program(const std::string& path, const Findings& findings) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) {
    findings.add(kError, path, std::string("the reloader cannot be run: ") + std::strerror(errno),
                 "install it, or let its service leave");
    return;
  }
  if (!S_ISREG(status.st_mode) || (status.st_mode & 0111) == 0) {
    findings.add(
        kError, path,
        S_ISREG(status.st_mode) ? "the reloader is not executable" : "the reloader is no program",
        "put it right, or let its service leave");
  }
  if ((status.st_mode & 0022) != 0) {
    findings.add(kError, path, "the reloader is run as the administrator, but others may change it",
                 "chmod go-w " + path);
  }
}

void check_link(const ServiceStatus& status, const Findings& findings) {
  const std::string link = kelotls::link_path(status.name);
  const std::string described = status.descriptor.reloader_path();
  if (described.empty()) {
    return;
  }
  if (!exists_at(link)) {
    findings.add(kNote, link,
                 status.name +
                     " names a reloader that is not linked: right for a service "
                     "of the base system only",
                 "otherwise let the service join again");
    check_program(described, findings);
  } else if (status.link_target.empty()) {
    findings.add(kWarning, link, "is no link", "remove it and let the service join again");
  } else if (status.link_target != described) {
    findings.add(kWarning, link,
                 "leads to " + status.link_target + ", the descriptor says " + described,
                 "let the service join again");
  }
}

void check_services(Console& console, const Store& store, const Selection& selection,
                    const SeeServer& see, const Findings& findings) {
  ServiceInspector inspector(store);
  inspector.see_servers(see);
  const Addresses addresses = Addresses::load_usable();
  ProgressBar progress(console, "checking", selection.names.size());
  for (const std::string& service : selection.names) {
    progress.next(service);
    if (!kelotls::name_fault(service, false).empty()) {
      continue;  // check_entries has said so; its files may lie anywhere
    }
    const ServiceStatus status = inspector.inspect(service);
    check_descriptor(status, findings.of(kDescriptor));
    check_rendering(status, findings.of(kRendering));
    check_expected(status, addresses, findings.of(kServer));
    check_server(status, findings.of(kServer));
    check_link(status, findings.of(kReloader));
  }
}

bool is_reloader(const std::string& path) {
  return path.rfind(kelotls::kSystemReloaderDir, 0) == 0 || path.rfind(kPackageReloaderDir, 0) == 0;
}

/// All that is in the reloaders' directories is run as the administrator.
void check_reloaders(const std::optional<Store>& store, const Findings& findings) {
  for (const std::string directory : {kelotls::kSystemReloaderDir, kPackageReloaderDir}) {
    for (const std::string& name : names_in(directory)) {
      const std::string path = directory + name;
      if (refuse_directory(path, findings)) {
        continue;
      }
      check_program(path, findings);
      if (directory == kPackageReloaderDir && store && !is_known(*store, service_of_file(name))) {
        findings.add(kWarning, path, "belongs to no service that has joined", "remove it");
      }
    }
  }
}

/// The same of some services' own.
void check_reloaders_of(const Selection& selection, const Findings& findings) {
  for (const std::string& service : selection.names) {
    const std::string path = kelotls::link_path(service);
    if (exists_at(path) && !refuse_directory(path, findings)) {
      check_program(path, findings);
    }
  }
}

// Directories, Diffie-Hellman files, and what is left behind

/// A place that is itself at fault is named as the framework spells it. A reloader that others may
/// change was found where it is looked at as a program.
void check_trust(const TrustWalk& walk, const Findings& findings) {
  for (const Distrust& fault : walk.faults()) {
    const bool is_the_place =
        fault.place == fault.component || fault.place == fault.component + "/";
    if (!fault.is_end || fault.kind != Distrust::Kind::kMode || !is_reloader(fault.place)) {
      const bool is_unknown = fault.kind == Distrust::Kind::kUnknown;
      (is_unknown ? findings.of(kNotKnown) : findings)
          .add(kError, is_the_place ? fault.place : fault.component, fault.reason, fault.remedy);
    }
  }
}

void check_directory(const std::string& path, const Findings& findings) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) {
    findings.add(kError, path, std::strerror(errno),
                 errno == ENOENT ? "mkdir -p -m 0755 " + path : "put the directory right");
    return;
  }
  if (!S_ISDIR(status.st_mode)) {
    findings.add(kError, path, "is no directory", "put a directory in its place");
    return;
  }
  if ((status.st_mode & 0555) != 0555) {
    findings.add(kWarning, path, "services that are not root cannot read it", "chmod 0755 " + path);
  }
}

/// The data store's owner and mode.
void check_store_file(const Findings& findings) {
  struct stat status = {};
  if (::stat(kDataStorePath, &status) != 0) {
    return;  // the data store's own check says so
  }
  if ((status.st_mode & 0444) != 0444) {
    findings.add(kWarning, kDataStorePath, "services that are not root cannot read it",
                 std::string("chmod 0644 ") + kDataStorePath);
  }
}

void check_dh_file(const kelotls::Profile& profile, const Findings& findings) {
  const DhFile file = read_dh_file(profile);
  if (file.fault.empty()) {
    return;
  }
  std::string text = file.error == ENOENT ? std::strerror(ENOENT) : file.fault;
  if (file.parameters == nullptr) {
    text += std::string("; level ") + profile.name + " offers no DHE suite";
  }
  findings.add(file.is_unsafe ? kError : kWarning, file.path, text,
               "kelotlsctl dh, or the appliance's own file");
}

/// Names that the library's and this program's writers give their temporary files.
bool is_temporary(const std::string& name) {
  static const std::regex pattern(R"(.*\.json\.[0-9]+-[0-9]+|.*\.(conf|json)\.\w{6})");
  return std::regex_match(name, pattern);
}

/// The name of a service whose rendering left the temporary file; empty for another kind of name.
std::string service_of_temporary(const std::string& name) {
  const std::size_t suffix = name.rfind('.');
  return is_temporary(name) ? service_of_file(name.substr(0, suffix)) : std::string();
}

void check_temporaries(const std::string& directory, const Selection& selection,
                       const Findings& findings) {
  const std::set<std::string> selected(selection.names.begin(), selection.names.end());
  for (const std::string& name : names_in(directory)) {
    if (is_temporary(name) &&
        (selection.is_all || selected.count(service_of_temporary(name)) != 0)) {
      findings.add(kWarning, directory + name,
                   "was left behind by a step that failed or was interrupted", "remove it");
    }
  }
}

void check_leftovers(const std::optional<Store>& store, const Findings& findings) {
  for (const std::string& name : names_in(kConfigDir)) {
    const std::string service = service_of_file(name);
    if (store && !is_temporary(name) && (service.empty() || !is_known(*store, service))) {
      findings.add(kWarning, kConfigDir + name, "belongs to no service that has joined",
                   "remove it");
    }
  }
  if (Stamp::is_broken()) {
    findings.add(kWarning, Stamp::kPath, "cannot be used: every service counts as not yet reloaded",
                 "kelotlsctl reload writes it anew");
  }
}

/// All that lies outside of single services.
void check_surroundings(Console& console, const std::optional<Store>& store,
                        const Findings& findings) {
  for (const char* directory : kDirectories) {
    check_directory(directory, findings.of(kDirectory));
  }
  check_trust(walk_places(console, kAllPlaces), findings.of(kTrust));
  check_pending_change(findings.of(kChange));
  check_reloaders(store, findings.of(kReloader));
  for (const int level :
       {kelotls::TLS_PROFILE_LEVEL_INTERMEDIATE, kelotls::TLS_PROFILE_LEVEL_OLD}) {
    check_dh_file(kelotls::profile_of_level(level), findings.of(kDhParameters));
  }
  check_temporaries(kelotls::kFrameworkDir, {{}, true}, findings.of(kLeftover));
  check_temporaries(kConfigDir, {{}, true}, findings.of(kLeftover));
  check_leftovers(store, findings.of(kLeftover));
}

void check_selected(Console& console, const Store& store, const Selection& selection,
                    const SeeServer& see, const Findings& findings) {
  check_entries(store, selection, findings);
  check_descriptors(store, selection, findings.of(kDescriptor));
  check_addresses(findings.of(kServer));
  check_dates(store, selection, findings.of(kChange));
  check_services(console, store, selection, see, findings);
  if (!selection.is_all) {
    check_reloaders_of(selection, findings.of(kReloader));
    check_temporaries(kConfigDir, selection, findings.of(kLeftover));
  }
}

const char* colour_of(const std::string& severity) {
  return severity == kError ? "\033[31m" : severity == kWarning ? "\033[33m" : "\033[36m";
}

/// Only a service that is pending has a note with this advice, and only one.
bool is_pending(const Json::Value& finding) {
  return finding["severity"] == kNote && finding["action"] == kApply;
}

void print_finding(Console& console, const Json::Value& finding) {
  const std::string severity = finding["severity"].asString();
  console.data() << (console.colour() ? colour_of(severity) + severity + "\033[0m" : severity)
                 << ": " << printable(finding["path"]) << ": " << printable(finding["text"])
                 << "\n  " << printable(finding["action"]) << '\n';
}

void print_verdict(Console& console, const Json::Value& document) {
  if (document["healthy"].asBool()) {
    console.say(document["findings"].empty() ? "Nothing is wrong."
                                             : "Nothing is wrong beyond what is noted above.");
  }
}

void print_all_findings(Console& console, const Json::Value& document) {
  for (const Json::Value& finding : document["findings"]) {
    print_finding(console, finding);
  }
  print_verdict(console, document);
}

}  // namespace

std::vector<std::string> finding_kinds() {
  return {kChange, kDataStore, kDescriptor, kRendering,    kServer,  kReloader,
          kTrust,  kDirectory, kLeftover,   kDhParameters, kNotKnown};
}

bool is_healthy(const Json::Value& findings) {
  return std::all_of(findings.begin(), findings.end(),
                     [](const Json::Value& finding) { return finding["severity"] == kNote; });
}

Json::Value find_faults(Console& console, const std::optional<Store>& store,
                        const std::vector<std::string>& services, const SeeServer& see) {
  Json::Value list = list_of({});
  const Findings findings(list);
  check_store(store, findings);
  check_store_file(findings);
  const Selection selection = store ? select_services(*store, services) : Selection();
  if (!services.empty()) {
    check_trust(walk_places(console, store ? kAllPlaces : kFrameworkPlaces, selection),
                findings.of(kTrust));
  }
  if (store) {
    check_selected(console, *store, selection, see, findings);
  }
  if (services.empty()) {
    check_surroundings(console, store, findings);
  }
  return list;
}

Report check_framework(Console& console, const Arguments& arguments) {
  if (arguments.plugin) {
    return check_as_plugin(console, arguments);
  }
  const Json::Value findings =
      find_faults(console, try_store(), arguments.services, ask_with_short_patience);
  return {is_healthy(findings) ? kDone : kNotSo,
          object({{"healthy", is_healthy(findings)}, {"findings", findings}}),
          {},
          {},
          arguments.all ? print_all_findings : nullptr};
}

void print_findings(Console& console, const Json::Value& document) {
  std::size_t pending = 0;
  for (const Json::Value& finding : document["findings"]) {
    pending += is_pending(finding) ? 1 : 0;
    if (!is_pending(finding) || pending <= kMaxPendingShown) {
      print_finding(console, finding);
    }
  }
  if (pending > kMaxPendingShown) {
    console.data() << "and " << pending - kMaxPendingShown
                   << " more services that are pending: kelotlsctl check --all\n";
  }
  print_verdict(console, document);
}

}  // namespace kelotlsctl
