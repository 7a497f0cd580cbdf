// kelotlsctl validate: every fault of a registration.
#include "command_line.h"
#include "state/documents.h"

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

}  // namespace

Report validate_registration(Console& console, const Arguments& arguments) {
  const Registration registration = read_registration(arguments.file, kelotls::Purpose::kJoin);
  const bool is_valid = registration.faults.empty();
  Report report = {is_valid ? kDone : kNotSo,
                   object({{"valid", is_valid},
                           {"faults", faults_json(registration.faults)},
                           {"warnings", faults_json(file_warnings(registration.document))}})};
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
