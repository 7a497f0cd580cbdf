// kelotlsctl clients: what the word behind it asks for.
#include <algorithm>
#include <iterator>

#include "command_line.h"
#include "output/suggestion.h"

namespace kelotlsctl {

namespace {

struct Action {
  const char* name;
  std::size_t least_words;
  std::size_t most_words;
  const char* usage;
  CommandFunction* run;
  PrintFunction* print;
};

constexpr std::size_t kAny = static_cast<std::size_t>(-1);

constexpr Action kActions[] = {
    {"record", 1, kAny, "record SERVICE...", record_clients, print_recorded},
    {"import", 2, 2, "import SERVICE FILE", import_clients, print_recorded},
    {"show", 1, 1, "show SERVICE", show_clients, print_clients},
    {"judge", 2, 2, "judge SERVICE LEVEL", judge_clients, print_judged},
    {"forget", 1, 1, "forget SERVICE", forget_recorded_clients, print_forgotten},
};

const Action& find_action(const std::string& name) {
  const auto* const action = std::find_if(std::begin(kActions), std::end(kActions),
                                          [&](const Action& one) { return one.name == name; });
  if (action == std::end(kActions)) {
    std::vector<std::string> names;
    for (const Action& one : kActions) {
      names.emplace_back(one.name);
    }
    throw Failure(
        kUsage,
        "\"" + printable(name) + "\" is nothing that clients does" + did_you_mean(name, names),
        "It does record, import, show, judge and forget.");
  }
  return *action;
}

}  // namespace

Report manage_clients(Console& console, const Arguments& arguments) {
  const Action& action = find_action(arguments.subject);
  const std::size_t words = arguments.services.size();
  if (words < action.least_words || words > action.most_words) {
    throw Failure(kUsage, std::string("this is no kelotlsctl clients ") + action.usage);
  }
  Report report = action.run(console, arguments);
  report.print = report.print != nullptr ? report.print : action.print;
  return report;
}

}  // namespace kelotlsctl
