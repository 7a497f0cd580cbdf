// Checks of the data store and of the descriptors that stand behind its entries.
#include <kelotls/service_desc.h>
#include <sys/stat.h>

#include <set>

#include "checks.h"
#include "descriptor.h"
#include "files.h"
#include "json_text.h"
#include "level.h"
#include "log_capture.h"
#include "paths.h"
#include "registration.h"
#include "schema.h"

namespace kelotlsctl {

namespace {

const char kRecover[] = "kelotlsctl recover [--from BACKUP]";

/// Why the library cannot use the data store, in this order: the schema's words, the library's.
std::string reason_of(const LogWatch& watch) {
  Json::Value document;
  std::string fault;
  if (!read_json_file(kDataStorePath, document, fault)) {
    return fault;
  }
  const std::vector<Fault> faults = schema_faults(document, kDataStoreSchema);
  if (!faults.empty()) {
    return faults[0].path + " " + faults[0].text;
  }
  const std::vector<std::string> lines = watch.lines();
  return lines.empty() ? "the library refuses it" : lines[0];
}

void check_level(int level, const std::string& what, Findings& findings) {
  if (level < 0) {
    findings.push_back({Severity::kError, kDataStorePath,
                        what + " is " + std::to_string(level) + ": it gives no context",
                        "set another level"});
  } else if (level > 3) {
    findings.push_back({Severity::kWarning, kDataStorePath,
                        what + " is " + std::to_string(level) + ": it counts as intermediate",
                        "set another level"});
  }
}

/// Descriptors that the library passes over, or that stop it.
bool is_readable(const std::string& path, const Json::Value& document, bool parses,
                 const std::string& fault, Findings& findings) {
  if (!parses || !document.isObject()) {
    findings.push_back({Severity::kError, path,
                        "is no descriptor: " + (parses ? "it is no JSON object" : fault),
                        "let the service join again, or remove the file"});
    return false;
  }
  for (const Fault& found : schema_faults(document, kDescriptorSchema)) {
    findings.push_back(
        {Severity::kError, path, found.path + " " + found.text, "let the service join again"});
  }
  return true;
}

}  // namespace

bool check_store(Store& store, Findings& findings) {
  const LogWatch watch;
  switch (try_store(store)) {
    case StoreCondition::kUsable:
      return true;
    case StoreCondition::kMissing: {
      const Failure failure = unreadable_store();
      findings.push_back({Severity::kError, kDataStorePath, "is missing", failure.advice()});
      return false;
    }
    default:
      findings.push_back(
          {Severity::kError, kDataStorePath, "cannot be used: " + reason_of(watch), kRecover});
      return false;
  }
}

void check_entries(const Store& store, Findings& findings) {
  check_level(store.default_level, "the default level", findings);
  if (store.default_level == 0) {
    findings.push_back({Severity::kWarning, kDataStorePath,
                        "the default level is 0, which counts as intermediate",
                        "kelotlsctl default intermediate, or another level"});
  }
  for (const std::string& service : store.services.getMemberNames()) {
    check_level(store.stored_level(service), "the level of " + service, findings);
    const std::string fault =
        name_fault(service, !read_descriptor(service).template_path().empty());
    if (!fault.empty()) {
      findings.push_back(
          {Severity::kError, kDataStorePath,
           std::string("the service name \"").append(service) + "\" " + fault,
           "whoever made it join has to make it leave; kelotlsctl takes no such name"});
    }
  }
}

void check_descriptors(const Store& store, Findings& findings) {
  std::vector<std::string> names;
  if (!list_folder(kServicesDir, names)) {
    return;  // the folders' check says so
  }
  std::set<std::string> described;
  for (const std::string& name : names) {
    const std::string path = kServicesDir + name;
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      findings.push_back({Severity::kWarning, path, "is a folder", "remove it"});
      continue;
    }
    Json::Value document;
    std::string fault;
    const bool parses = read_json_file(path, document, fault);
    if (!is_readable(path, document, parses, fault, findings)) {
      continue;
    }
    const std::string service = text_member(document, "service");
    const bool is_first = described.insert(service).second;
    if (descriptor_path(service) != path) {
      findings.push_back({Severity::kError, path,
                          "is not the descriptor of the service that it names, " + service,
                          "remove it, or let the service join again"});
    } else if (is_first && !store.has(service)) {
      findings.push_back({Severity::kError, path,
                          "the service \"" + service + "\" has no entry in the data store",
                          "kelotlsctl regen gives it one; kelotlsctl leave removes the file"});
    }
  }
}

}  // namespace kelotlsctl
