// Owns the patience with a server: asking again what is not known yet, with pauses, and no longer
// than a deadline.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "peers/connection.h"

namespace kelotlsctl {

using Ask = std::function<Answer(const Hello& hello, Clock::time_point until)>;

struct Patience {
  std::chrono::milliseconds timeout = std::chrono::seconds(10);    ///< of one hello
  std::chrono::milliseconds deadline = std::chrono::seconds(300);  ///< of everything
};

class Asker {
 public:
  Asker(Ask ask, const Patience& patience)
      : ask_(std::move(ask)), patience_(patience), end_(Clock::now() + patience.deadline) {}

  /// The answer, asked for again while it is not known: until the hello has failed so many times
  /// beside another that worked, or the server has answered nothing at all for a while. Then the
  /// server counts as lost, and each hello is tried once until one is answered again; none where
  /// none ever was. An alert is an answer: where it tells nothing, it is asked for once more.
  Answer ask(const Hello& hello, int attempts);

  /// Looks for a hello that the server answers, so that it can be told from another that it does
  /// not, now and whenever the one that it answered last is answered no more. Where it answers none
  /// of these, it counts as lost. Returns what came of the first.
  Answer greet(const std::vector<Hello>& hellos);

  /// The server is said to refuse without an alert, by closing the connection.
  void expect_closes() { expects_closes_ = true; }

  /// Where that is said, tries a hello that no server can accept. One that closes on it, each time
  /// and beside a hello that works, is taken to refuse so from now on, once it has closed twice.
  void learn_refusal(const Hello& impossible);

  /// Whether it is no use to ask for less at a time.
  bool has_given_up() const { return is_lost_ || is_over(); }

  /// When what is begun now has to be over.
  Clock::time_point until() const { return std::min(Clock::now() + patience_.timeout, end_); }

  /// Whether the deadline has struck. What is asked for then is not known.
  bool is_over() const { return Clock::now() >= end_; }

  /// Whether the time for one hello has struck.
  bool has_timed_out() const { return has_timed_out_; }

 private:
  Answer ask_once(const Hello& hello, bool is_hasty);
  Answer insist(const Hello& hello, Answer answer, int attempts);
  bool works(std::optional<Hello> control);
  bool is_answered(const Hello& hello);
  void pause();

  Ask ask_;
  const Patience patience_;
  const Clock::time_point end_;
  std::vector<Hello> greetings_;  // any of them may be answered
  std::optional<Hello> control_;  // the last hello that was accepted or refused
  std::chrono::milliseconds pace_{0};
  Clock::duration slowest_{0};
  bool is_lost_ = false;
  bool expects_closes_ = false;
  bool closes_to_refuse_ = false;
  bool has_timed_out_ = false;
};

}  // namespace kelotlsctl
