// kelotlsctl check --plugin: what is wrong in one line, for a monitoring system.
#include <algorithm>
#include <exception>

#include "commands/look/findings.h"
#include "output/text.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kMostColumns = 400;  // what carries a line to the monitoring may have 1 KiB

/// Which findings count for the state; what is not known counts as nothing else.
int count(const Json::Value& findings, const std::string& severity) {
  return static_cast<int>(
      std::count_if(findings.begin(), findings.end(), [&](const Json::Value& finding) {
        return (finding["kind"] == kNotKnown ? kNotKnown : finding["severity"]) == severity;
      }));
}

struct Counts {
  explicit Counts(const Json::Value& findings)
      : errors(count(findings, kError)),
        warnings(count(findings, kWarning)),
        notes(count(findings, kNote)),
        not_known(count(findings, kNotKnown)) {}

  /// What is known to be wrong outweighs what is not known.
  PluginState state() const {
    return errors != 0 ? kCritical : warnings != 0 ? kWarn : not_known != 0 ? kUnknown : kOk;
  }

  int errors;
  int warnings;
  int notes;
  int not_known;
};

/// "2 errors, ", nothing of none.
std::string counted(int number, const std::string& one, const std::string& many) {
  return number == 0 ? "" : std::to_string(number) + " " + (number == 1 ? one : many) + ", ";
}

/// The counts, and the first finding of the worst kind.
std::string summary(const Json::Value& findings, const Counts& counts) {
  std::string text = counted(counts.errors, "error", "errors") +
                     counted(counts.warnings, "warning", "warnings") +
                     counted(counts.not_known, "thing not known", "things not known") +
                     counted(counts.notes, "note", "notes");
  text.resize(text.size() - std::min<std::size_t>(text.size(), 2));
  const std::string worst = counts.state() == kCritical ? kError
                            : counts.state() == kWarn   ? kWarning
                                                        : kNotKnown;
  for (const Json::Value& finding : findings) {
    const bool is_not_known = finding["kind"] == kNotKnown;
    if ((is_not_known ? kNotKnown : finding["severity"]) == worst) {
      return text + ": " + finding["path"].asString() + ": " + finding["text"].asString();
    }
  }
  return text.empty() ? "nothing is wrong" : "nothing is wrong, " + text;
}

/// 'label'=value;warn;crit;min of each count: one is too many where it stands.
std::string performance(std::size_t services, const Counts& counts) {
  return "'services'=" + std::to_string(services) +
         ";;;0 'errors'=" + std::to_string(counts.errors) +
         ";;0;0 'warnings'=" + std::to_string(counts.warnings) +
         ";0;;0 'not_known'=" + std::to_string(counts.not_known) +
         ";;;0 'notes'=" + std::to_string(counts.notes) + ";;;0";
}

Report report_line(PluginState state, const std::string& line) {
  return {
      state, object({{"line", line}}), {}, {}, [](Console& console, const Json::Value& document) {
        console.data() << document["line"].asString() << '\n';
      }};
}

Report judge(Console& console, const Arguments& arguments) {
  const std::optional<Store> store = try_store();
  if (!store) {
    throw unreadable_store();
  }
  const Json::Value findings =
      find_faults(console, store, arguments.services, ask_with_short_patience);
  const Counts counts(findings);
  const std::size_t services = select_services(*store, arguments.services).names.size();
  return report_line(counts.state(), plugin_line(counts.state(), summary(findings, counts)) +
                                         " | " + performance(services, counts));
}

}  // namespace

std::string plugin_line(PluginState state, const std::string& text) {
  constexpr const char* kNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
  std::string line = std::string("KELOTLS ") + kNames[state] + " - ";
  for (const char character : printable(text)) {
    switch (character) {
      case '|':
        line += "\\x7c";
        break;
      case '\'':
        line += "\\x27";
        break;
      case '"':
        line += "\\x22";
        break;
      default:
        line += character;
    }
  }
  return cut(line, kMostColumns);
}

Report check_as_plugin(Console& console, const Arguments& arguments) {
  console.silence();  // some read both outputs as one
  console.set_form(Form::kText);
  try {
    return judge(console, arguments);
  } catch (const std::exception& exception) {
    return report_line(kUnknown, plugin_line(kUnknown, exception.what()));
  }
}

}  // namespace kelotlsctl
