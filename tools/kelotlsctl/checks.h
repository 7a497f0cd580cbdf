// The parts of the health report. Each looks at one kind of thing and changes nothing.
#ifndef KELOTLSCTL_CHECKS_H
#define KELOTLSCTL_CHECKS_H

#include <string>
#include <vector>

#include "store.h"

namespace kelotlsctl {

enum class Severity {
  kError,    ///< something does not work, or is not safe
  kWarning,  ///< something is not as it should be
  kNote,     ///< nothing is wrong, but it should be known
};

struct Finding {
  Severity severity = Severity::kError;
  std::string path;
  std::string text;
  std::string action;  ///< what to do
};

using Findings = std::vector<Finding>;

/// The data store itself. Gives the store when it can be used.
bool check_store(Store& store, Findings& findings);

/// Levels and names in the data store.
void check_entries(const Store& store, Findings& findings);

/// The folder of descriptors: every file in it is read as one.
void check_descriptors(const Store& store, Findings& findings);

/// Each service's descriptor, template, rendered file, link and reloader.
void check_services(const Store& store, Findings& findings);

/// The reloaders' folders: everything there is run as the administrator.
void check_reloaders(const Store* store, Findings& findings);

/// Whether a reloader can be run, and only its owner can change it.
void check_program(const std::string& path, Findings& findings);

void check_dh_files(Findings& findings);

/// Folders and files of the framework: there, and nobody else's to change.
void check_folders(Findings& findings);

/// What interrupted writers have left behind, and files of services that are gone.
void check_leftovers(const Store* store, Findings& findings);

}  // namespace kelotlsctl

#endif
