// Checks of each service's files, and of everything that is run for services.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "checks.h"
#include "files.h"
#include "paths.h"
#include "registration.h"
#include "service_state.h"

namespace kelotlsctl {

namespace {

void check_rendering(const ServiceStatus& status, Findings& findings) {
  const std::string rendered = rendered_path(status.name);
  switch (status.state) {
    case State::kCannotRender:
      if (status.descriptor.usable) {
        findings.push_back({Severity::kError, status.descriptor.template_path(),
                            status.name + ": " + status.rendered.fault,
                            "put the template right, then kelotlsctl apply"});
      }
      break;
    case State::kPendingRender:
      findings.push_back({Severity::kNote, rendered, "is not what the template gives for the level",
                          "kelotlsctl apply"});
      break;
    case State::kPendingReload:
      findings.push_back({Severity::kNote, status.descriptor.path,
                          status.name + " has not been reloaded since its level changed",
                          "kelotlsctl apply"});
      break;
    default:
      break;
  }
}

void check_descriptor(const ServiceStatus& status, Findings& findings) {
  if (!stands_at(status.descriptor.path)) {
    findings.push_back({Severity::kError, status.descriptor.path,
                        "is missing: " + status.name + " is not rendered",
                        "let the service join again, or leave"});
  }
  if (status.descriptor.usable && status.descriptor.value["display-name"] != status.display_name) {
    findings.push_back({Severity::kWarning, status.descriptor.path,
                        "the display name is not the data store's", "kelotlsctl regen"});
  }
}

void check_link(const ServiceStatus& status, Findings& findings) {
  const std::string link = link_path(status.name);
  const std::string wanted = status.descriptor.reloader_path();
  if (wanted.empty()) {
    return;
  }
  if (!stands_at(link)) {
    findings.push_back({Severity::kNote, link,
                        status.name + " names a reloader that is not linked: right for a service "
                                      "of the base system only",
                        "otherwise let the service join again"});
    check_program(wanted, findings);
  } else if (status.link_target.empty()) {
    findings.push_back(
        {Severity::kWarning, link, "is no link", "remove it and let the service join again"});
  } else if (status.link_target != wanted) {
    findings.push_back({Severity::kWarning, link,
                        "leads to " + status.link_target + ", the descriptor says " + wanted,
                        "let the service join again"});
  }
}

std::string service_of_link(const std::string& name) {
  const std::string suffix = kServiceFileSuffix;
  return name.size() > suffix.size() &&
                 name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0
             ? name.substr(0, name.size() - suffix.size())
             : std::string();
}

}  // namespace

void check_services(const Store& store, Findings& findings) {
  ServiceInspector inspector(store);
  for (const std::string& service : store.services.getMemberNames()) {
    if (!name_fault(service, false).empty()) {
      continue;  // said already; its files may lie anywhere
    }
    const ServiceStatus status = inspector.inspect(service);
    check_descriptor(status, findings);
    check_rendering(status, findings);
    check_link(status, findings);
  }
}

void check_program(const std::string& path, Findings& findings) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) {
    findings.push_back({Severity::kError, path,
                        std::string("the reloader cannot be run: ") + std::strerror(errno),
                        "install it, or let its service leave"});
    return;
  }
  if (!S_ISREG(status.st_mode) || (status.st_mode & 0111) == 0) {
    findings.push_back(
        {Severity::kError, path,
         S_ISREG(status.st_mode) ? "the reloader is not executable" : "the reloader is no program",
         "put it right, or let its service leave"});
  }
  if ((status.st_mode & 0022) != 0) {
    findings.push_back({Severity::kError, path,
                        "the reloader is run as the administrator, but others may change it",
                        "chmod go-w " + path});
  }
}

void check_reloaders(const Store* store, Findings& findings) {
  for (const std::string& folder :
       {std::string(kSystemReloaderDir), std::string(kPackageReloaderDir)}) {
    std::vector<std::string> names;
    list_folder(folder, names);
    for (const std::string& name : names) {
      const std::string path = folder + name;
      struct stat status = {};
      if (::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        findings.push_back({Severity::kWarning, path, "is a folder", "remove it"});
        continue;
      }
      check_program(path, findings);
      const std::string service = service_of_link(name);
      if (folder == kPackageReloaderDir && store != nullptr && !store->has(service)) {
        findings.push_back(
            {Severity::kWarning, path, "belongs to no service that has joined", "remove it"});
      }
    }
  }
}

}  // namespace kelotlsctl
