// Checks of folders, of Diffie-Hellman files, and of what is left behind.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>

#include "checks.h"
#include "files.h"
#include "json_text.h"
#include "owners.h"
#include "paths.h"

namespace kelotlsctl {

namespace {

/// Nobody but the administrator may change what the framework trusts.
void check_safety(const std::string& path, const struct stat& status, Findings& findings) {
  if ((status.st_mode & 0022) != 0) {
    findings.push_back(
        {Severity::kError, path, "others than its owner may change it", "chmod go-w " + path});
  }
  if (status.st_uid != 0) {
    findings.push_back({Severity::kWarning, path,
                        "belongs to the user " + std::to_string(status.st_uid) + ", not to root",
                        "chown root " + path});
  }
}

void check_folder(const std::string& path, Findings& findings) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) {
    findings.push_back({Severity::kError, path, std::strerror(errno),
                        errno == ENOENT ? "mkdir -p -m 0755 " + path : "put the folder right"});
    return;
  }
  if (!S_ISDIR(status.st_mode)) {
    findings.push_back({Severity::kError, path, "is no folder", "put a folder in its place"});
    return;
  }
  if ((status.st_mode & 0555) != 0555) {
    findings.push_back({Severity::kWarning, path, "services that are not root cannot read it",
                        "chmod 0755 " + path});
  }
  check_safety(path, status, findings);
}

void check_data_store_file(Findings& findings) {
  struct stat status = {};
  if (::stat(kDataStorePath, &status) != 0) {
    return;  // the data store's own check says so
  }
  check_safety(kDataStorePath, status, findings);
  if ((status.st_mode & 0444) != 0444) {
    findings.push_back({Severity::kWarning, kDataStorePath,
                        "services that are not root cannot read it",
                        std::string("chmod 0644 ") + kDataStorePath});
  }
}

DhOwner parse_parameters(const std::string& text) {
  const BioOwner bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  DhOwner parameters(PEM_read_bio_DHparams(bio.get(), nullptr, nullptr, nullptr));
  ERR_clear_error();
  return parameters;
}

void check_dh_file(const char* name, int bits, const char* level, Findings& findings) {
  const std::string path = std::string(kDhParamDir) + name;
  const std::string action =
      "openssl dhparam -out " + path + " " + std::to_string(bits) + ", or the appliance's own file";
  const std::string consequence = std::string("; level ") + level + " offers no DHE suite";
  std::string text;
  if (!read_file(path, text)) {
    findings.push_back({Severity::kWarning, path, std::strerror(errno) + consequence, action});
    return;
  }
  const DhOwner parameters = parse_parameters(text);
  if (parameters == nullptr) {
    findings.push_back({Severity::kWarning, path, "holds no DH parameters" + consequence, action});
  } else if (DH_bits(parameters.get()) != bits) {
    findings.push_back({Severity::kWarning, path,
                        "holds parameters of " + std::to_string(DH_bits(parameters.get())) +
                            " bits, not " + std::to_string(bits),
                        action});
  }
}

/// Names that the library's and this program's writers give their temporary files.
bool is_temporary(const std::string& name) {
  static const std::regex pattern(R"((datastore\.json\.[0-9]+-[0-9]+|.*\.(conf|json)\.\w{6}))");
  return std::regex_match(name, pattern);
}

void check_temporaries(const std::string& folder, Findings& findings) {
  std::vector<std::string> names;
  list_folder(folder, names);
  for (const std::string& name : names) {
    if (is_temporary(name)) {
      findings.push_back({Severity::kWarning, folder + name,
                          "was left behind by a step that failed or was interrupted", "remove it"});
    }
  }
}

void check_rendered_files(const Store& store, Findings& findings) {
  const std::string suffix = kServiceFileSuffix;
  std::vector<std::string> names;
  list_folder(kConfigDir, names);
  for (const std::string& name : names) {
    if (is_temporary(name)) {
      continue;
    }
    const bool has_suffix = name.size() > suffix.size() &&
                            name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
    if (!has_suffix || !store.has(name.substr(0, name.size() - suffix.size()))) {
      findings.push_back({Severity::kWarning, kConfigDir + name,
                          "belongs to no service that has joined", "remove it"});
    }
  }
}

void check_stamp(Findings& findings) {
  Json::Value document;
  std::string fault;
  if (stands_at(kStampPath) && (!read_json_file(kStampPath, document, fault) ||
                                find_member(document, "services") == nullptr)) {
    findings.push_back({Severity::kWarning, kStampPath,
                        "cannot be used: every service counts as not yet reloaded",
                        "kelotlsctl reload writes it anew"});
  }
}

}  // namespace

void check_folders(Findings& findings) {
  for (const char* folder :
       {kFrameworkDir, kServicesDir, kConfigDir, kSystemReloaderDir, kPackageReloaderDir}) {
    check_folder(folder, findings);
  }
  check_data_store_file(findings);
}

void check_dh_files(Findings& findings) {
  check_dh_file("dh2048.pem", 2048, "intermediate", findings);
  check_dh_file("dh1024.pem", 1024, "old", findings);
}

void check_leftovers(const Store* store, Findings& findings) {
  for (const char* folder : {kFrameworkDir, kConfigDir}) {
    check_temporaries(folder, findings);
  }
  if (store != nullptr) {
    check_rendered_files(*store, findings);
  }
  check_stamp(findings);
}

}  // namespace kelotlsctl
