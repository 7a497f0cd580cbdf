// Owns the patience with a server.
#include "peers/asker.h"

#include <algorithm>
#include <thread>

namespace kelotlsctl {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstPause(50);
constexpr milliseconds kLongestPause(2000);
constexpr milliseconds kHaste(1000);  // at least this for a server that has answered before
constexpr int kFruitlessRounds = 6;   // of pauses that double, over 3 seconds together

Answer not_tried(const char* reason) {
  Answer none;
  none.reason = reason;
  return none;
}

bool is_close(const Answer& answer) {
  return answer.verdict == Verdict::kNotKnown && answer.reason == kClosed;
}

}  // namespace

/// A server that has answered is given a multiple of its slowest answer first, so that each hello
/// that it never answers does not cost the whole time twice.
Answer Asker::ask_once(const Hello& hello, bool is_hasty) {
  const auto start = std::min(Clock::now() + pace_, end_);
  std::this_thread::sleep_until(start);
  if (is_over()) {
    return not_tried("not tried: the time for everything was over");
  }
  const Clock::duration haste = std::max<Clock::duration>(kHaste, 8 * slowest_);
  const Clock::duration limit = is_hasty && control_
                                    ? std::min<Clock::duration>(haste, patience_.timeout)
                                    : Clock::duration(patience_.timeout);
  Answer answer = ask_(hello, std::min(start + limit, end_));
  if (answer.verdict != Verdict::kNotKnown) {
    control_ = hello;
    is_lost_ = false;
    slowest_ = std::max(slowest_, Clock::now() - start);
    pace_ = pace_ * 7 / 8;
  }
  has_timed_out_ = has_timed_out_ || (answer.reason == kTimedOut && !is_hasty);
  return answer;
}

/// For a server that limits the rate of connections: each further hello waits, too, for less and
/// less the longer all goes well.
void Asker::pause() { pace_ = std::clamp(2 * pace_, kFirstPause, kLongestPause); }

/// Whether a hello that the server has answered before is answered now. One that closes to refuse
/// may never do so again once it was reloaded, and answer another greeting instead.
bool Asker::works(std::optional<Hello> control) {
  return control && (is_answered(*control) ||
                     (expects_closes_ &&
                      std::any_of(greetings_.begin(), greetings_.end(),
                                  [this](const Hello& hello) { return is_answered(hello); })));
}

bool Asker::is_answered(const Hello& hello) {
  return ask_once(hello, true).verdict != Verdict::kNotKnown;
}

Answer Asker::ask(const Hello& hello, int attempts) {
  if (is_lost_ && !control_) {
    return not_tried("not tried: the server has answered nothing");
  }
  Answer answer = ask_once(hello, true);
  if (closes_to_refuse_ && is_close(answer) && works(control_) && is_close(ask_once(hello, true))) {
    answer.verdict = Verdict::kRefused;
    return answer;
  }
  if (answer.is_alert && answer.verdict == Verdict::kNotKnown) {
    return ask_once(hello, true);  // an answer, if not one that tells; it can be an accident once
  }
  return answer.verdict == Verdict::kNotKnown && !is_lost_ ? insist(hello, answer, attempts)
                                                           : answer;
}

void Asker::learn_refusal(const Hello& impossible) {
  constexpr int kTrials = 3;
  int closed = 0;
  while (expects_closes_ && closed < kTrials && works(control_) &&
         is_close(ask_once(impossible, true))) {
    ++closed;
  }
  closes_to_refuse_ = expects_closes_ && closed == kTrials;
}

Answer Asker::greet(const std::vector<Hello>& hellos) {
  greetings_ = hellos;
  Answer first;
  for (int fruitless = 0; fruitless < kFruitlessRounds && !is_over(); ++fruitless) {
    for (const Hello& hello : hellos) {
      const Answer answer = ask_once(hello, false);
      first = &hello == &hellos.front() ? answer : first;
      if (control_) {
        return first;
      }
      fruitless += answer.reason == kTimedOut ? kFruitlessRounds / 4 : 0;
    }
    pause();
  }
  is_lost_ = true;
  return first;
}

Answer Asker::insist(const Hello& hello, Answer answer, int attempts) {
  const milliseconds pace = pace_;
  int fruitless = 0;
  for (int failures = 1; answer.verdict == Verdict::kNotKnown && !is_over(); ++failures) {
    const bool is_silent = answer.reason == kTimedOut;
    if (failures > 1 && works(control_)) {
      pace_ = pace;  // the hello is to blame, not their number
      if (failures >= (is_silent ? 2 : attempts)) {
        break;
      }
    } else if (failures > 1) {
      fruitless += is_silent ? kFruitlessRounds / 2 : 1;
      is_lost_ = fruitless >= kFruitlessRounds;
      if (is_lost_) {
        break;
      }
    }
    pause();
    answer = ask_once(hello, false);
  }
  return answer;
}

}  // namespace kelotlsctl
