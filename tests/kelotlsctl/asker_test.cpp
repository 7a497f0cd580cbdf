// Patience with servers that fail now and then, all the time, or for good.
#include "peers/asker.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>

namespace kelotls::test {
namespace {

using kelotlsctl::Answer;
using kelotlsctl::Asker;
using kelotlsctl::Clock;
using kelotlsctl::Hello;
using kelotlsctl::kClosed;
using kelotlsctl::kReset;
using kelotlsctl::kTimedOut;
using kelotlsctl::Patience;
using kelotlsctl::Verdict;
using std::chrono::milliseconds;

constexpr int kAttempts = 3;
constexpr char kNotTried[] = "not tried: the server has answered nothing";
constexpr char kTimeIsOver[] = "not tried: the time for everything was over";

Hello hello_of(std::uint16_t suite) {
  Hello hello;
  hello.suites = {suite};
  return hello;
}

const Hello kGood = hello_of(1);
const Hello kBad = hello_of(2);

bool is_good(const Hello& hello) { return hello.suites == kGood.suites; }

Answer accepted() {
  Answer answer;
  answer.verdict = Verdict::kAccepted;
  return answer;
}

Answer refused() {
  Answer answer;
  answer.verdict = Verdict::kRefused;
  answer.is_alert = true;
  return answer;
}

Answer not_known(const std::string& reason) {
  Answer answer;
  answer.reason = reason;
  return answer;
}

/// Sleeps until nobody waits any longer.
Answer silence(Clock::time_point until) {
  std::this_thread::sleep_until(until);
  return not_known(kTimedOut);
}

Patience patience(milliseconds timeout, milliseconds deadline) {
  Patience patience;
  patience.timeout = timeout;
  patience.deadline = deadline;
  return patience;
}

const Patience kPatience = patience(milliseconds(200), std::chrono::minutes(1));

TEST(PatientAsker, AsksOnceWhereThereIsAnAnswer) {
  int asked = 0;
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        ++asked;
        return is_good(hello) ? accepted() : refused();
      },
      kPatience);

  EXPECT_EQ(asker.ask(kGood, kAttempts).verdict, Verdict::kAccepted);
  EXPECT_EQ(asker.ask(kBad, kAttempts).verdict, Verdict::kRefused);
  EXPECT_EQ(asked, 2);
  EXPECT_FALSE(asker.has_given_up());
}

TEST(PatientAsker, AsksAgainAfterAConnectionThatWasLost) {
  for (const char* const reason : {kClosed, kReset, "Connection refused"}) {
    int asked = 0;
    Asker asker([&](const Hello&,
                    Clock::time_point) { return ++asked <= 2 ? not_known(reason) : accepted(); },
                kPatience);

    EXPECT_EQ(asker.ask(kGood, kAttempts).verdict, Verdict::kAccepted) << reason;
    EXPECT_EQ(asked, 3);
    EXPECT_FALSE(asker.has_given_up());
  }
}

TEST(PatientAsker, OutlastsAServerThatTakesOneConnectionInAWhile) {
  constexpr milliseconds kWhile(40);
  Clock::time_point next = Clock::now();
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        if (Clock::now() < next) {
          return not_known(kReset);
        }
        next = Clock::now() + kWhile;
        return is_good(hello) ? accepted() : refused();
      },
      kPatience);

  for (int round = 0; round < 10; ++round) {
    EXPECT_EQ(asker.ask(kGood, kAttempts).verdict, Verdict::kAccepted) << round;
    EXPECT_EQ(asker.ask(kBad, kAttempts).verdict, Verdict::kRefused) << round;
  }
  EXPECT_FALSE(asker.has_given_up());
}

TEST(PatientAsker, TakesACloseForARefusalWhereAnImpossibleHelloIsAlwaysClosedOn) {
  int bad = 0;
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        bad += is_good(hello) ? 0 : 1;
        return is_good(hello) ? accepted() : not_known(kClosed);
      },
      kPatience);
  asker.expect_closes();
  asker.ask(kGood, kAttempts);
  asker.learn_refusal(kBad);
  bad = 0;

  EXPECT_EQ(asker.ask(kBad, kAttempts).verdict, Verdict::kRefused);
  EXPECT_EQ(bad, 2);
  EXPECT_EQ(asker.ask(kGood, kAttempts).verdict, Verdict::kAccepted);
}

TEST(PatientAsker, TakesNoCloseForARefusalWhereAnImpossibleHelloIsRefusedOrReset) {
  const Hello impossible = hello_of(3);
  for (const Answer& refusal : {refused(), not_known(kReset)}) {
    Asker asker(
        [&](const Hello& hello, Clock::time_point) {
          return is_good(hello)                      ? accepted()
                 : hello.suites == impossible.suites ? refusal
                                                     : not_known(kClosed);
        },
        kPatience);
    asker.expect_closes();
    asker.ask(kGood, kAttempts);
    asker.learn_refusal(impossible);

    EXPECT_EQ(asker.ask(kBad, kAttempts).verdict, Verdict::kNotKnown);
  }
}

TEST(PatientAsker, TakesNoCloseForARefusalWhereNobodySaysSo) {
  Asker asker([&](const Hello& hello,
                  Clock::time_point) { return is_good(hello) ? accepted() : not_known(kClosed); },
              kPatience);
  asker.ask(kGood, kAttempts);
  asker.learn_refusal(kBad);

  EXPECT_EQ(asker.ask(kBad, kAttempts).verdict, Verdict::kNotKnown);
}

TEST(PatientAsker, TakesNoSingleCloseForARefusal) {
  bool is_next_lost = false;
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        const bool is_lost = is_good(hello) && std::exchange(is_next_lost, false);
        return is_good(hello) && !is_lost ? accepted() : not_known(kClosed);
      },
      kPatience);
  asker.expect_closes();
  asker.ask(kGood, kAttempts);
  asker.learn_refusal(kBad);
  is_next_lost = true;

  EXPECT_EQ(asker.ask(kGood, kAttempts).verdict, Verdict::kAccepted);
}

TEST(PatientAsker, FindsAnotherHelloThatIsAnsweredWhereTheServerWasReloaded) {
  const Hello impossible = hello_of(3);
  for (const bool is_before_learning : {true, false}) {
    bool was_reloaded = false;
    int asked = 0;
    Asker asker(
        [&](const Hello& hello, Clock::time_point) {
          ++asked;
          const bool is_impossible = hello.suites == impossible.suites;
          return !is_impossible && is_good(hello) == was_reloaded ? accepted() : not_known(kClosed);
        },
        kPatience);
    asker.expect_closes();
    asker.greet({kBad, kGood});
    was_reloaded = is_before_learning;
    asker.learn_refusal(impossible);
    was_reloaded = true;
    asked = 0;

    EXPECT_EQ(asker.ask(kBad, kAttempts).verdict, Verdict::kRefused) << is_before_learning;
    EXPECT_LE(asked, 5);
    EXPECT_EQ(asker.ask(kGood, kAttempts).verdict, Verdict::kAccepted);
  }
}

TEST(PatientAsker, BlamesAHelloThatAlwaysFailsBesideOneThatWorks) {
  int bad = 0;
  int good = 0;
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        ++(is_good(hello) ? good : bad);
        return is_good(hello) ? accepted() : not_known(kReset);
      },
      kPatience);
  asker.ask(kGood, kAttempts);

  const Answer answer = asker.ask(kBad, kAttempts);

  EXPECT_EQ(answer.verdict, Verdict::kNotKnown);
  EXPECT_EQ(answer.reason, kReset);
  EXPECT_EQ(bad, kAttempts);
  EXPECT_EQ(good, 1 + kAttempts - 1);  // the server itself is well, as is seen each time
  EXPECT_FALSE(asker.has_given_up());
  EXPECT_EQ(asker.ask(kGood, kAttempts).verdict, Verdict::kAccepted);
}

TEST(PatientAsker, AsksOnceMoreAfterAnAlertThatTellsNothing) {
  int asked = 0;
  int failures = 1;
  Asker asker(
      [&](const Hello&, Clock::time_point) {
        Answer answer = not_known("the server's alert: internal error");
        answer.is_alert = true;
        return ++asked <= failures ? answer : accepted();
      },
      kPatience);

  EXPECT_EQ(asker.ask(kGood, kAttempts).verdict, Verdict::kAccepted);
  asked = 0;
  failures = 100;
  EXPECT_EQ(asker.ask(kGood, kAttempts).reason, "the server's alert: internal error");
  EXPECT_EQ(asked, 2);
}

TEST(PatientAsker, AsksAServerNoMoreThatNeverAnswers) {
  int asked = 0;
  Asker asker(
      [&](const Hello&, Clock::time_point) {
        ++asked;
        return not_known(kClosed);
      },
      kPatience);

  EXPECT_EQ(asker.ask(kGood, kAttempts).reason, kClosed);
  EXPECT_TRUE(asker.has_given_up());
  const int until_then = asked;
  EXPECT_GT(until_then, kAttempts);
  EXPECT_EQ(asker.ask(kBad, kAttempts).reason, kNotTried);
  EXPECT_EQ(asked, until_then);
  EXPECT_FALSE(asker.is_over());
}

TEST(PatientAsker, FindsByGreetingWhatTheServerAnswers) {
  int bad = 0;
  Asker asker(
      [&](const Hello& hello, Clock::time_point) {
        bad += is_good(hello) ? 0 : 1;
        return is_good(hello) ? refused() : not_known(kReset);
      },
      kPatience);

  EXPECT_EQ(asker.greet({kBad, kGood}).reason, kReset);  // of the first

  EXPECT_EQ(bad, 1);
  EXPECT_FALSE(asker.has_given_up());
  EXPECT_EQ(asker.ask(kBad, kAttempts).reason, kReset);  // to blame itself
  EXPECT_FALSE(asker.has_given_up());
}

TEST(PatientAsker, AsksNothingAfterGreetingsInVain) {
  for (const bool is_silent : {false, true}) {
    int asked = 0;
    Asker asker(
        [&](const Hello&, Clock::time_point until) {
          ++asked;
          return is_silent ? silence(until) : not_known(kReset);
        },
        kPatience);

    const Answer answer = asker.greet({kBad, kGood});

    EXPECT_EQ(answer.reason, is_silent ? kTimedOut : kReset);
    EXPECT_TRUE(asker.has_given_up());
    EXPECT_EQ(asker.has_timed_out(), is_silent);
    EXPECT_GE(asked, 2);
    asked = 0;
    EXPECT_EQ(asker.ask(kGood, kAttempts).reason, kNotTried);
    EXPECT_EQ(asked, 0);
  }
}

TEST(PatientAsker, ForgivesAServerThatComesBack) {
  int asked = 0;
  bool is_up = true;
  Asker asker(
      [&](const Hello&, Clock::time_point) {
        ++asked;
        return is_up ? accepted() : not_known("Connection refused");
      },
      kPatience);
  asker.ask(kGood, kAttempts);
  is_up = false;
  asker.ask(kGood, kAttempts);
  ASSERT_TRUE(asker.has_given_up());
  asked = 0;
  EXPECT_EQ(asker.ask(kBad, kAttempts).reason, "Connection refused");
  EXPECT_EQ(asked, 1);  // while it is lost, once each

  is_up = true;

  EXPECT_EQ(asker.ask(kBad, kAttempts).verdict, Verdict::kAccepted);
  EXPECT_FALSE(asker.has_given_up());
}

TEST(PatientAsker, GivesASilentServerTheWholeTimeAndGivesItUp) {
  int asked = 0;
  milliseconds longest(0);
  Asker asker(
      [&](const Hello&, Clock::time_point until) {
        ++asked;
        longest = std::max(longest, std::chrono::ceil<milliseconds>(until - Clock::now()));
        return silence(until);
      },
      patience(milliseconds(100), std::chrono::minutes(1)));

  EXPECT_EQ(asker.ask(kGood, kAttempts).reason, kTimedOut);
  EXPECT_TRUE(asker.has_timed_out());
  EXPECT_TRUE(asker.has_given_up());
  EXPECT_LE(longest, milliseconds(100));
  EXPECT_LE(asked, kAttempts);  // each costs the whole time
}

TEST(PatientAsker, AsksTwiceWhatASoundServerIsSilentAbout) {
  int silent = 0;
  Asker asker(
      [&](const Hello& hello, Clock::time_point until) {
        silent += is_good(hello) ? 0 : 1;
        return is_good(hello) ? accepted() : silence(until);
      },
      patience(milliseconds(50), std::chrono::minutes(1)));
  asker.ask(kGood, kAttempts);

  const Answer answer = asker.ask(kBad, kAttempts);

  EXPECT_EQ(answer.reason, kTimedOut);
  EXPECT_EQ(silent, 2);
  EXPECT_TRUE(asker.has_timed_out());
  EXPECT_FALSE(asker.has_given_up());
}

TEST(PatientAsker, HasNotTimedOutWhereASecondTryWithTheWholeTimeIsAnswered) {
  int asked = 0;
  Asker asker(
      [&](const Hello& hello, Clock::time_point until) {
        const bool is_first = !is_good(hello) && ++asked == 1;
        return is_first ? silence(until) : accepted();
      },
      patience(milliseconds(1500), std::chrono::minutes(1)));
  asker.ask(kGood, kAttempts);

  EXPECT_EQ(asker.ask(kBad, kAttempts).verdict, Verdict::kAccepted);
  EXPECT_FALSE(asker.has_timed_out());
}

TEST(PatientAsker, EndsWithTheDeadlineWhateverTheServerDoes) {
  for (const bool is_silent : {false, true}) {
    const auto start = Clock::now();
    Asker asker(
        [&](const Hello&, Clock::time_point until) {
          return is_silent ? silence(until) : not_known(kReset);
        },
        patience(std::chrono::minutes(1), milliseconds(300)));

    EXPECT_EQ(asker.ask(kGood, 1000).verdict, Verdict::kNotKnown);
    EXPECT_TRUE(asker.is_over());
    EXPECT_TRUE(asker.has_given_up());
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
    EXPECT_GE(Clock::now() - start, milliseconds(300));
  }
}

TEST(PatientAsker, AsksNothingBehindTheDeadline) {
  int asked = 0;
  Asker asker(
      [&](const Hello&, Clock::time_point) {
        ++asked;
        return accepted();
      },
      patience(std::chrono::minutes(1), milliseconds(0)));

  const Answer answer = asker.ask(kGood, kAttempts);

  EXPECT_EQ(answer.verdict, Verdict::kNotKnown);
  EXPECT_EQ(answer.reason, kTimeIsOver);
  EXPECT_EQ(asked, 0);
}

TEST(PatientAsker, PausesNoLongerThanTheDeadline) {
  const auto start = Clock::now();
  Asker asker([&](const Hello&, Clock::time_point) { return not_known(kReset); },
              patience(std::chrono::minutes(1), milliseconds(1700)));

  asker.ask(kGood, 1000);

  EXPECT_LT(Clock::now() - start, milliseconds(1700 + 1000));
}

}  // namespace
}  // namespace kelotls::test
