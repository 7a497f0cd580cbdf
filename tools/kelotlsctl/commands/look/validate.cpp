// kelotlsctl validate: every fault of a registration.
#include "command_line.h"
#include "state/documents.h"
#include "state/spelling.h"
#include "state/templates.h"

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

}  // namespace

Report validate_registration(Console& console, const Arguments& arguments) {
  const Registration registration = read_registration(arguments.file, kelotls::Purpose::kJoin);
  const TemplateVerdicts templates = judge_templates(registration.document);
  const kelotls::Faults faults = joined({registration.faults, templates.faults});
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
