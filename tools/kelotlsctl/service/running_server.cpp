// Owns asking a service's running server.
#include "service/running_server.h"

#include <exception>
#include <stdexcept>
#include <thread>

#include "levels/offer.h"
#include "levels/report.h"
#include "output/console.h"
#include "service/expected_differences.h"
#include "system/interruption.h"

namespace kelotlsctl {

namespace {

constexpr Patience kPatience = {std::chrono::seconds(10), std::chrono::seconds(60)};
constexpr std::chrono::seconds kGrace(5);
constexpr std::chrono::milliseconds kPause(100);
/// Servers that replace their processes have both for a tenth of a second or so.
constexpr std::chrono::seconds kOverlap(1);

Json::Value outcome(const Address& address, const char* verdict, const std::string& text) {
  Json::Value result = object({{"address", address_text(address)}, {"verdict", verdict}});
  if (!text.empty()) {
    result["text"] = text;
  }
  return result;
}

/// "X25519, RC4-SHA: Accepted although the level does not ask for it."
std::string sentence_of(const Json::Value& entries, const std::string& text) {
  std::string names;
  for (const Json::Value& entry : entries) {
    if (entry["text"] == text) {
      names += (names.empty() ? "" : ", ") + entry["what"].asString();
    }
  }
  return names + ": " + text;
}

/// Of what is not known, the first that was tried, which tells why the others were not.
std::string telling_reason(const Json::Value& not_known) {
  for (const Json::Value& entry : not_known) {
    if (entry["text"].asString().rfind("not tried", 0) != 0) {
      return entry["text"].asString();
    }
  }
  return not_known[0]["text"].asString();
}

/// Each reason for which something is expected, once.
std::string expected_reasons(const Json::Value& report) {
  std::string text;
  Json::Value told(Json::arrayValue);
  for (const char* const list : {"differences", kKindNotKnown}) {
    for (const Json::Value& entry : expected_of(report[list], true)) {
      const std::string reason = entry["expected"].asString();
      if (!contains(told, reason)) {
        told.append(reason);
        text += (text.empty() ? "" : " ") + reason;
      }
    }
  }
  return text;
}

void stop_when_interrupted(std::size_t, std::size_t) {
  if (interruption() != 0) {
    throw std::runtime_error("not asked to the end: " + signal_name(interruption()));
  }
}

/// What came of a probe, told as of a running server. unbelieved: why no difference is expected.
Json::Value judged(const Address& address, const Json::Value& report,
                   const std::string& unbelieved) {
  const std::string remark =
      unbelieved.empty() ? "" : " (no difference is expected: " + unbelieved + ")";
  const std::string difference = first_own_difference(report, false);
  const Json::Value not_known = expected_of(report["not-known"], false);
  const std::string reasons = expected_reasons(report);
  return !difference.empty()
             ? outcome(address, "differs", sentence_of(report["differences"], difference) + remark)
         : !not_known.empty()
             ? outcome(address, "cannot-tell", sentence_of(not_known, telling_reason(not_known)))
         : !reasons.empty() ? outcome(address, "as-expected", reasons)
                            : outcome(address, "agrees", "");
}

bool agrees(const Json::Value& seen) { return !seen.isNull() && is_good(seen["verdict"]); }

/// Or until the grace is over. A server that answers is asked twice at least: of a slow one, all of
/// the grace can pass between its first answer, from before it has reloaded, and its last.
Json::Value ask_until_it_agrees(const Addresses& addresses, const std::string& service, int level) {
  const auto end = Clock::now() + kGrace;
  Json::Value seen = ask_running_server(addresses, service, level, kPatience);
  bool is_due = !seen.isNull() && seen["verdict"] != "no-answer";
  while (!seen.isNull() && !agrees(seen) && (is_due || Clock::now() < end) && interruption() == 0) {
    std::this_thread::sleep_for(kPause);
    seen = ask_running_server(addresses, service, level, kPatience);
    is_due = false;
  }
  return seen;
}

}  // namespace

Json::Value ask_running_server(const Addresses& addresses, const std::string& service, int level,
                               const Patience& patience) {
  Json::Value seen = survey_running_server(addresses, service, level, patience);
  if (!seen.isNull()) {
    seen.removeMember("certificates");
  }
  return seen;
}

Json::Value survey_running_server(const Addresses& addresses, const std::string& service, int level,
                                  const Patience& patience) {
  const Address* const address = addresses.find(service);
  if (address == nullptr) {
    return Json::Value();
  }
  ProbeTarget target;
  const kelotls::ContextOwner context = make_level_context(level);
  target.context = context.get();
  target.address = *address;
  target.patience = patience;
  const ExpectedDifferences expected = ExpectedDifferences::read(address->expected);
  target.find_expected = expected.at_level(level);
  target.closing = expected.closing();
  try {
    const Json::Value report = probe(target, level, stop_when_interrupted);
    Json::Value seen = judged(*address, report, expected.fault());
    seen["certificates"] = report["certificates"];
    return seen;
  } catch (const std::exception& exception) {
    Json::Value unseen = outcome(*address, "no-answer", exception.what());
    unseen["certificates"] = Json::Value(Json::arrayValue);
    return unseen;
  }
}

std::vector<Json::Value> ask_reloaded_servers(const Addresses& addresses, const Store& store,
                                              const std::vector<std::string>& services,
                                              const std::function<void()>& progress) {
  std::vector<Json::Value> seen;
  auto last_agreement = Clock::time_point::min();
  for (const std::string& service : services) {
    seen.push_back(ask_until_it_agrees(addresses, service, store.effective_level(service)));
    last_agreement = agrees(seen.back()) ? Clock::now() : last_agreement;
    progress();
  }
  if (last_agreement != Clock::time_point::min() && interruption() == 0) {
    std::this_thread::sleep_until(last_agreement + kOverlap);
  }
  for (std::size_t index = 0; index < services.size(); ++index) {
    if (agrees(seen[index])) {
      const std::string& service = services[index];
      seen[index] = ask_until_it_agrees(addresses, service, store.effective_level(service));
    }
  }
  return seen;
}

bool is_good(const Json::Value& verdict) { return verdict == "agrees" || verdict == "as-expected"; }

std::string wire_text(const std::string& verdict) {
  return verdict == "agrees"        ? "as asked"
         : verdict == "as-expected" ? "as expected"
         : verdict == "differs"     ? "DIFFERS"
         : verdict == "cannot-tell" ? "cannot tell"
                                    : "no answer";
}

}  // namespace kelotlsctl
