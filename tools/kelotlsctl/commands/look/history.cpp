// kelotlsctl history: what was changed, by whom and why, and what came of it.
#include "store/history.h"

#include "command_line.h"
#include "output/characters.h"
#include "output/text.h"

namespace kelotlsctl {

namespace {

/// Leaves of the record what is about the service. Whether that is anything.
bool keep_what_concerns(Json::Value& record, const std::string& service) {
  Json::Value changes = list_of({});
  for (const Json::Value& change : record["changes"]) {
    if (change["service"].asString() == service) {
      changes.append(change);
    }
  }
  record["changes"] = changes;
  return !changes.empty();
}

/// What came of one service. Where that differs among them, the record names those for which it is
/// not "done".
std::string result_of(const Json::Value& record, const std::string& service) {
  for (const Json::Value& outcome : record["services"]) {
    if (outcome["service"].asString() == service) {
      return outcome["result"].asString();
    }
  }
  return record["services"].empty() ? record["result"].asString() : "done";
}

void add_rows(Table& table, const Json::Value& record) {
  std::string who = record["who"]["user"].asString();
  for (const char* const key : {"login", "sudo"}) {  // the first is the surer one
    if (record["who"].isMember(key)) {
      who += " (" + record["who"][key].asString() + ")";
      break;
    }
  }
  const auto add = [&](const std::string& service, const std::string& levels) {
    table.add({record["time"].asString(), who, record["command"].asString(), service, levels,
               result_of(record, service), record["reason"].asString()});
  };
  for (const Json::Value& change : record["changes"]) {
    add(change["service"].asString(),
        change.isMember("to")
            ? change["from"].asString() + " " + arrow() + " " + change["to"].asString()
            : "");
  }
  if (record["changes"].empty()) {
    add("-", "");
  }
}

}  // namespace

Report show_history(Console& console, const Arguments& arguments) {
  Report report;
  report.document["changes"] = list_of({});
  Json::Value records = look_at_history(report.warnings);
  for (Json::Value& record : records) {
    if (arguments.service.empty() || keep_what_concerns(record, arguments.service)) {
      report.document["changes"].append(record);
    }
  }
  if (report.document["changes"].empty() && !console.json()) {
    report.notes.emplace_back("No change is on record.");
  }
  return report;
}

void print_history(Console& console, const Json::Value& document) {
  if (document["changes"].empty()) {
    return;
  }
  Table table({"TIME", "WHO", "COMMAND", "SERVICE", "LEVEL", "RESULT", "REASON"});
  for (const Json::Value& record : document["changes"]) {
    add_rows(table, record);
  }
  table.print(console.data(), console.colour());
}

}  // namespace kelotlsctl
