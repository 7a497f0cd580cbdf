// kelotlsctl validate: every fault of a registration.
#include "command_line.h"
#include "state/documents.h"

namespace kelotlsctl {

namespace {

Json::Value faults_json(const kelotls::Faults& faults) {
  Json::Value list = list_of({});
  for (const kelotls::Fault& fault : faults) {
    list.append(object({{"path", fault.path}, {"text", fault.text}}));
  }
  return list;
}

}  // namespace

Report validate_registration(Console& console, const Arguments& arguments) {
  const Registration registration = read_registration(arguments.file, kelotls::Purpose::kJoin);
  Report report;
  report.document["valid"] = registration.faults.empty();
  report.document["faults"] = faults_json(registration.faults);
  report.document["warnings"] = faults_json(registration.warnings);
  if (!console.json()) {
    report.warnings = warnings_of(registration);
  }
  if (!registration.faults.empty()) {
    report.code = kNotSo;
  } else if (!console.json()) {
    report.notes.push_back(registration.source + " can join.");
  }
  return report;
}

void print_validated(Console& console, const Json::Value& document) {
  for (const Json::Value& fault : document["faults"]) {
    console.data() << fault["path"].asString() << ": " << printable(fault["text"].asString())
                   << '\n';
  }
}

}  // namespace kelotlsctl
