// Owns what each command trusts.
#include "changes/trusted_places.h"

#include <kelotls/tls_profile_level.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <set>

#include "changes/application.h"
#include "files.h"
#include "json_document.h"
#include "paths.h"
#include "profile.h"

namespace kelotlsctl {

namespace {

using Texts = std::vector<std::string>;

constexpr char kWalking[] = "looking who may change";

/// The paths of what is in a directory; none where it cannot be listed.
Texts entries_of(const std::string& directory) {
  Texts names;
  kelotls::list_directory(directory, names);
  for (std::string& name : names) {
    name.insert(0, directory);
  }
  return names;
}

/// Every name that a template may mean by a partial. Tags may have other delimiters than braces, so
/// whatever follows a ">" counts: up to the next blank, and up to the next brace.
std::set<std::string> names_of_partials(const std::string& text) {
  constexpr char kBlanks[] = " \t\r\n";
  std::set<std::string> names;
  for (std::size_t at = text.find('>'); at != std::string::npos; at = text.find('>', at + 1)) {
    const std::size_t begin = text.find_first_not_of(kBlanks, at + 1);
    if (begin == std::string::npos) {
      break;
    }
    for (const char* const ends : {" \t\r\n}", "}\n"}) {
      const std::string name = text.substr(begin, text.find_first_of(ends, begin) - begin);
      names.insert(name.substr(0, name.find_last_not_of(kBlanks) + 1));
    }
  }
  return names;
}

/// What the template names is of interest only where the template itself is trusted.
void walk_template(const std::string& path, std::set<std::string>& walked, TrustWalk& walk) {
  const std::size_t faults_before = walk.faults().size();
  if (!walked.insert(path).second) {
    return;
  }
  walk.add(path);
  std::string text;
  if (walk.faults().size() != faults_before || !kelotls::read_file(path, text)) {
    return;
  }
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  for (const std::string& name : names_of_partials(text)) {
    const std::string partial = directory + name + ".mustache";
    if (kelotls::exists_at(partial)) {
      walk_template(partial, walked, walk);
    }
  }
}

void walk_descriptors(Console& console, const Texts& descriptors, bool with_templates,
                      TrustWalk& walk) {
  ProgressBar progress(console, kWalking, descriptors.size());
  std::set<std::string> walked;
  kelotls::JsonReader reader;
  for (const std::string& path : descriptors) {
    progress.next(path);
    walk.add(path);
    Json::Value descriptor;
    if (with_templates && reader.read(path, descriptor)) {
      const std::string named = kelotls::text_member(descriptor, "mustache-path");
      if (!named.empty()) {
        walk_template(named, walked, walk);
      }
    }
  }
}

void walk_dh_files(TrustWalk& walk) {
  walk.add(std::string(kelotls::kDhParamDir));
  for (const int level :
       {kelotls::TLS_PROFILE_LEVEL_INTERMEDIATE, kelotls::TLS_PROFILE_LEVEL_OLD}) {
    walk.add(std::string(kelotls::kDhParamDir) + kelotls::profile_of_level(level).dh_file);
  }
}

TrustWalk walk_kinds(Console& console, unsigned int kinds, const Texts& descriptors,
                     const Texts& reloaders) {
  TrustWalk walk;
  if ((kinds & kFrameworkPlaces) != 0) {
    walk.add(Texts(std::begin(kDirectories), std::end(kDirectories)));
    walk.add(std::string(kelotls::kDataStorePath));
  }
  if ((kinds & kDescriptorPlaces) != 0) {
    walk_descriptors(console, descriptors, (kinds & kTemplatePlaces) != 0, walk);
  }
  if ((kinds & kDhPlaces) != 0) {
    walk_dh_files(walk);
  }
  if ((kinds & kReloaderPlaces) != 0) {
    ProgressBar progress(console, kWalking, reloaders.size());
    for (const std::string& reloader : reloaders) {
      progress.next(reloader);
      walk.add(reloader);
    }
  }
  return walk;
}

/// A command may walk more than once, and what it goes on in spite of is said once.
bool is_news(const Distrust& fault) {
  static std::set<std::string> told;
  return told.insert(fault.component).second;
}

std::string fault_text(const Distrust& fault) {
  return printable(fault.component) + ": " + fault.reason;
}

void log_blind_trust(const Confidence& confidence, const std::string& text) {
  if (!confidence.is_dry_run) {
    ::syslog(LOG_AUTHPRIV | LOG_WARNING, "kelotlsctl %s: %s", confidence.command.c_str(),
             text.c_str());
  }
}

}  // namespace

TrustWalk walk_places(Console& console, unsigned int kinds) {
  Texts reloaders;
  for (const char* const directory : {kelotls::kSystemReloaderDir, kelotls::kPackageReloaderDir}) {
    const Texts entries = entries_of(directory);
    reloaders.emplace_back(directory);
    reloaders.insert(reloaders.end(), entries.begin(), entries.end());
  }
  return walk_kinds(console, kinds, entries_of(kelotls::kServicesDir), reloaders);
}

TrustWalk walk_places(Console& console, unsigned int kinds, const Selection& selection) {
  Texts descriptors;
  std::transform(selection.names.begin(), selection.names.end(), std::back_inserter(descriptors),
                 kelotls::descriptor_path);
  Texts reloaders;
  const Json::Value listed = list_reloaders(selection);
  for (const Json::Value& reloader : listed["reloaders"]) {
    reloaders.push_back(reloader["path"].asString());
  }
  return walk_kinds(console, kinds, descriptors, reloaders);
}

TrustWalk walk_templates(const Texts& paths) {
  TrustWalk walk;
  std::set<std::string> walked;
  for (const std::string& path : paths) {
    walk_template(path, walked, walk);
  }
  return walk;
}

TrustWalk walk_registration(Console& console, const std::vector<kelotls::ServiceDesc>& services) {
  TrustWalk walk;
  std::set<std::string> walked;
  ProgressBar progress(console, kWalking, services.size());
  for (const kelotls::ServiceDesc& service : services) {
    progress.next(service.get_service_name());
    walk.add(kelotls::descriptor_path(service.get_service_name()));
    if (service.has_mustache()) {
      walk_template(service.get_mustahce_path(), walked, walk);
    }
    if (service.has_reloader()) {
      walk.add(service.get_reloader_path());
    }
  }
  return walk;
}

void require_trust(Console& console, const TrustWalk& walk, const Confidence& confidence) {
  if (walk.faults().empty()) {
    return;
  }
  std::string list;
  for (const Distrust& fault : walk.faults()) {
    const std::string text = "trusted anyway: " + fault_text(fault);
    list += (list.empty() ? "" : "\n  ") + fault_text(fault);
    if (confidence.is_blind && is_news(fault)) {
      console.warn(text);
      log_blind_trust(confidence, text);
    }
  }
  if (!confidence.is_blind) {
    throw Failure(kFailed, list,
                  "Nothing was done. " + printable(walk.faults()[0].remedy) +
                      "; kelotlsctl check names each such place. --trust-anyway goes on in spite "
                      "of it.");
  }
}

}  // namespace kelotlsctl
