// The command check: everything that is wrong with the framework, and what to do about it.
#include <algorithm>
#include <array>

#include "checks.h"
#include "commands.h"

namespace kelotlsctl {

namespace {

struct SeverityWords {
  const char* key;
  const char* colour;
};

constexpr std::array<SeverityWords, 3> kWords = {
    {{"error", "\033[31m"}, {"warning", "\033[33m"}, {"note", "\033[36m"}}};

const SeverityWords& words_of(Severity severity) {
  return kWords[static_cast<std::size_t>(severity)];
}

Findings find_all() {
  Findings findings;
  Store store;
  const bool has_store = check_store(store, findings);
  check_folders(findings);
  if (has_store) {
    check_entries(store, findings);
    check_descriptors(store, findings);
    check_services(store, findings);
  }
  check_reloaders(has_store ? &store : nullptr, findings);
  check_dh_files(findings);
  check_leftovers(has_store ? &store : nullptr, findings);
  return findings;
}

Json::Value findings_json(const Findings& findings) {
  Json::Value list(Json::arrayValue);
  for (const Finding& finding : findings) {
    Json::Value value(Json::objectValue);
    value["severity"] = words_of(finding.severity).key;
    value["path"] = finding.path;
    value["text"] = finding.text;
    value["action"] = finding.action;
    list.append(value);
  }
  return list;
}

void print_finding(Console& console, const Finding& finding) {
  const SeverityWords& words = words_of(finding.severity);
  std::ostream& out = console.data();
  if (console.colour()) {
    out << words.colour << words.key << "\033[0m";
  } else {
    out << words.key;
  }
  out << ": " << printable(finding.path) << ": " << printable(finding.text) << "\n  "
      << printable(finding.action) << '\n';
}

}  // namespace

int check_framework(Invocation& invocation) {
  Console& console = invocation.console;
  const Findings findings = find_all();
  const bool is_healthy = std::all_of(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.severity == Severity::kNote;
  });
  if (console.json()) {
    Json::Value document(Json::objectValue);
    document["healthy"] = is_healthy;
    document["findings"] = findings_json(findings);
    console.document(document);
  } else {
    for (const Finding& finding : findings) {
      print_finding(console, finding);
    }
    if (is_healthy) {
      console.say("Nothing is wrong.");
    }
  }
  return is_healthy ? kDone : kNotSo;
}

}  // namespace kelotlsctl
