// kelotlsctl validate: every fault of a registration.
#include <unistd.h>

#include "command_line.h"
#include "json_document.h"
#include "service/templates.h"
#include "store/documents.h"
#include "store/spelling.h"

namespace kelotlsctl {

namespace {

Json::Value faults_json(const kelotls::Faults& faults) {
  return list_of(faults, [](const kelotls::Fault& fault) {
    return object({{"path", fault.path}, {"text", fault.text}});
  });
}

std::string text_of(const Json::Value& fault) {
  return fault_text({fault["path"].asString(), fault["text"].asString()});
}

kelotls::Faults joined(std::initializer_list<kelotls::Faults> parts) {
  kelotls::Faults all;
  for (const kelotls::Faults& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

TrustWalk walk_file(const std::string& path, bool is_template) {
  if (is_template) {
    return walk_templates({path});
  }
  TrustWalk walk;
  walk.add(path);
  return walk;
}

/// What others than root may change of the files that are named: joining refuses that. Who is not
/// root prepares a package, and whom its files will belong to is not decided yet.
kelotls::Faults trust_faults(const Json::Value& registration) {
  kelotls::Faults faults;
  const Json::Value* const services = kelotls::find_member(registration, "services");
  const Json::ArrayIndex count = services != nullptr && services->isArray() ? services->size() : 0;
  for (Json::ArrayIndex index = 0; index < count && ::geteuid() == 0; ++index) {
    for (const std::string key : {"mustache-path", "reloader-path"}) {
      const std::string path = kelotls::text_member((*services)[index], key);
      if (path.empty() || path[0] != '/') {
        continue;
      }
      const std::string place = kelotls::path_of_element("$.services", index) + "." + key;
      const TrustWalk walk = walk_file(path, key == "mustache-path");
      for (const Distrust& fault : walk.faults()) {
        faults.push_back({place, fault.component + ": " + fault.reason});
      }
    }
  }
  return faults;
}

}  // namespace

Report validate_registration(Console& console, const Arguments& arguments) {
  const Registration registration = read_registration(arguments.file, kelotls::Purpose::kJoin);
  const kelotls::Faults distrust =
      arguments.trust_anyway ? kelotls::Faults() : trust_faults(registration.document);
  const TemplateVerdicts templates =
      distrust.empty() ? judge_templates(console, registration.document) : TemplateVerdicts();
  const kelotls::Faults faults = joined({registration.faults, distrust, templates.faults});
  const kelotls::Faults warnings =
      joined({file_warnings(registration.document), misspelt_members(registration.document),
              templates.warnings});
  const bool is_valid = faults.empty();
  Report report = {is_valid ? kDone : kNotSo, object({{"valid", is_valid},
                                                      {"faults", faults_json(faults)},
                                                      {"warnings", faults_json(warnings)}})};
  if (is_valid && !console.json()) {
    report.notes.push_back(registration.source + " can join.");
  }
  return report;
}

void print_validated(Console& console, const Json::Value& document) {
  for (const Json::Value& fault : document["faults"]) {
    console.data() << text_of(fault) << '\n';
  }
  for (const Json::Value& warning : document["warnings"]) {
    console.warn(text_of(warning));
  }
}

}  // namespace kelotlsctl
