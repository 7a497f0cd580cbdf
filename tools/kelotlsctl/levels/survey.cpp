// Owns the questions to a server.
#include "levels/survey.h"

#include <openssl/ec.h>
#include <openssl/x509.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

#include "tls/certificates.h"
#include "tls/registry.h"

namespace kelotlsctl {

namespace {

// How often a hello may fail beside one that works. The last word on one suite takes more.
constexpr int kAttemptsOfMany = 2;
constexpr int kAttemptsOfOne = 4;

constexpr std::uint16_t kP256 = 0x0017;
constexpr std::uint16_t kP384 = 0x0018;
constexpr std::uint16_t kX25519 = 0x001d;
constexpr std::uint16_t kFirstFiniteField = 0x0100;
constexpr std::uint16_t kLastFiniteField = 0x01ff;

bool is_finite_field(std::uint16_t group) {
  return group >= kFirstFiniteField && group <= kLastFiniteField;
}

void remove(Numbers& numbers, std::uint16_t number) {
  numbers.erase(std::remove(numbers.begin(), numbers.end(), number), numbers.end());
}

KeyExchange key_exchange_of(std::uint16_t number) {
  const CipherSuite* const suite = find_suite(number);
  return suite != nullptr ? key_exchange_of(*suite) : KeyExchange::kOther;
}

/// Hellos of a version as any client of its time sent them, short and with common suites. A server
/// that answers none of them answers no other of that version.
std::vector<Numbers> common_suites_of(std::uint16_t version) {
  switch (version) {
    case kTls13:
      return {{0x1301, 0x1302, 0x1303}};
    case kTls12:
      return {{0xc02b, 0xc02f, 0xc02c, 0xc030, 0xcca9, 0xcca8, 0x009e, 0x009c},
              {0xc009, 0xc013, 0x0033, 0x002f, 0x0035}};
    default:
      return {{0xc009, 0xc013, 0x0033, 0x002f, 0x0035}, {0x000a, 0x0005}};
  }
}

/// Suites that need the same of a server together: one that a server chooses and then stumbles
/// over, for want of a group or a key, hides no other.
std::map<KeyExchange, Numbers> classes_of_version(std::uint16_t version) {
  std::map<KeyExchange, Numbers> classes;
  for (const std::uint16_t suite : suites_of_version(version)) {
    classes[key_exchange_of(suite)].push_back(suite);
  }
  return classes;
}

constexpr std::size_t kStepsOfVersion = 2;
constexpr std::size_t kAllSteps = kStepsOfVersion * std::size(kVersions) + 3;

class Surveyor {
 public:
  Surveyor(Asker& asker, const ShakeHands& shake_hands, const Progress& progress)
      : asker_(asker), shake_hands_(shake_hands), progress_(progress) {}

  Survey run() {
    greeting_ = asker_.greet(common_hellos());
    constexpr std::uint16_t kNeverAssigned = 0x0a0a;  // RFC 8701
    asker_.learn_refusal(hello_of_common_suites(kTls12, {kNeverAssigned}));
    // The likeliest first: what is answered tells how long an answer takes.
    for (const std::uint16_t version : {kTls12, kTls13, kTls11, kTls10, kSsl3, kSsl2}) {
      survey_version(version);
      step(kStepsOfVersion);
    }
    const auto is_older = [](const Trial& one, const Trial& other) {
      return one.version < other.version;
    };
    std::stable_sort(survey_.versions.begin(), survey_.versions.end(), is_older);
    std::stable_sort(survey_.suites.begin(), survey_.suites.end(), is_older);
    survey_groups();
    step(1);
    survey_features();
    step(1);
    survey_full_handshakes();
    step(1);
    return std::move(survey_);
  }

 private:
  using MakeHello = std::function<Hello(const Numbers& offered)>;

  void step(std::size_t count) {
    done_ += count;
    if (progress_) {
      progress_(done_, kAllSteps);
    }
  }

  Answer ask(const Hello& hello, int attempts = kAttemptsOfOne) {
    Answer answer = asker_.ask(hello, attempts);
    if (!answer.certificates.empty() && answer.verdict == Verdict::kAccepted) {
      note_certificate(answer.certificates.front());
    }
    const KeyExchange exchange = key_exchange_of(answer.suite);
    if (answer.dh_bits != 0 && answer.verdict == Verdict::kAccepted &&
        (exchange == KeyExchange::kDheRsa || exchange == KeyExchange::kDheDss)) {
      const int weakest = survey_.weakest_dh_bits;
      survey_.weakest_dh_bits = weakest == 0 ? answer.dh_bits : std::min(weakest, answer.dh_bits);
    }
    return answer;
  }

  /// A server has one of each kind. One that shows another each time fills no memory.
  void note_certificate(const Bytes& certificate) {
    constexpr std::size_t kMost = 16;
    std::vector<Bytes>& known = survey_.certificates;
    if (known.size() < kMost && std::find(known.begin(), known.end(), certificate) == known.end()) {
      known.push_back(certificate);
    }
  }

  std::vector<Hello> common_hellos() const {
    return {hello_of_common_suites(kTls12, common_suites_of(kTls12).front()),
            hello_of_common_suites(kTls13, common_suites_of(kTls13).front())};
  }

  Hello hello_of_common_suites(std::uint16_t version, const Numbers& suites) const {
    Hello hello = hello_of(version, suites);
    hello.groups = {kP256, kP384, kX25519};
    return hello;
  }

  /// What the version is answered with. Where the complete hello is not answered, a common one may
  /// still be.
  Answer ask_for_version(std::uint16_t version) {
    if (version == kTls12 && asker_.has_given_up()) {
      return greeting_;
    }
    Answer answer = ask(hello_of(version, suites_of_version(version)));
    if (version != kSsl2) {
      for (const Numbers& suites : common_suites_of(version)) {
        if (answer.verdict == Verdict::kNotKnown && !asker_.has_given_up()) {
          answer = ask(hello_of_common_suites(version, suites));
        }
      }
    }
    return answer;
  }

  void survey_version(std::uint16_t version) {
    const Answer first = ask_for_version(version);
    const std::size_t start = survey_.suites.size();
    const bool is_unanswered = first.verdict == Verdict::kNotKnown && !first.is_alert;
    const bool is_settled =
        version == kSsl2 || is_unanswered || says_version_is_refused(first, version);
    if (is_unanswered && version != kSsl2) {
      note_all(version, suites_of_version(version), Verdict::kNotKnown, first.reason,
               survey_.suites);
    } else if (!is_settled) {
      for (const auto& [exchange, members] : classes_of_version(version)) {
        survey_class(version, exchange, members);
      }
    }
    Trial trial = {version, version, first.verdict, first.reason};
    for (std::size_t index = start; index < survey_.suites.size(); ++index) {
      const Trial& suite = survey_.suites[index];
      const bool tells_more =
          suite.verdict == Verdict::kAccepted ||
          (suite.verdict == Verdict::kNotKnown && trial.verdict == Verdict::kRefused);
      if (trial.verdict != Verdict::kAccepted && tells_more) {
        trial.verdict = suite.verdict;
        trial.reason = suite.reason;
      }
    }
    // The complete hello may have been the one thing that the server could not bear.
    const bool all_refused =
        !is_settled && std::all_of(survey_.suites.begin() + static_cast<std::ptrdiff_t>(start),
                                   survey_.suites.end(), [](const Trial& suite) {
                                     return suite.verdict == Verdict::kRefused;
                                   });
    trial.verdict = all_refused ? Verdict::kRefused : trial.verdict;
    survey_.versions.push_back(trial);
  }

  /// An alert about the version, or an answer in another one; not that no suite would do.
  static bool says_version_is_refused(const Answer& answer, std::uint16_t version) {
    return answer.verdict == Verdict::kRefused &&
           (answer.is_about_version || (answer.version != 0 && answer.version != version));
  }

  Hello hello_of(std::uint16_t version, const Numbers& suites) const {
    Hello hello;
    hello.version = version;
    hello.suites = suites;
    hello.groups = groups_of_version(version);
    hello.key_shares = needs_key_shares_ ? hello.groups : Numbers();
    return hello;
  }

  void survey_class(std::uint16_t version, KeyExchange exchange, const Numbers& suites) {
    const auto plain = [&](const Numbers& offered) { return hello_of(version, offered); };
    Numbers refused = eliminate(version, suites, plain, &Answer::suite, survey_.suites);
    // A server that negotiates its DH group may want to be offered one.
    const bool is_dhe = exchange == KeyExchange::kDheRsa || exchange == KeyExchange::kDheDss ||
                        exchange == KeyExchange::kDhAnon;
    if (is_dhe) {
      refused = eliminate(
          version, refused,
          [&](const Numbers& offered) {
            Hello hello = hello_of(version, offered);
            hello.groups = groups_of_version(kTls13);
            return hello;
          },
          &Answer::suite, survey_.suites);
    }
    // A server may know no HelloRetryRequest.
    if (version == kTls13 && accepted_in(survey_.suites, version).empty()) {
      needs_key_shares_ = true;
      refused = eliminate(version, refused, plain, &Answer::suite, survey_.suites);
      needs_key_shares_ = !accepted_in(survey_.suites, version).empty();
    }
    note_all(version, refused, Verdict::kRefused, "", survey_.suites);
  }

  static void note_all(std::uint16_t version, const Numbers& numbers, Verdict verdict,
                       const std::string& reason, std::vector<Trial>& trials) {
    for (const std::uint16_t number : numbers) {
      trials.push_back({version, number, verdict, reason});
    }
  }

  /// Offers them all, then without what the server chose, until it refuses the rest. What it does
  /// not answer is offered in halves. Returns what was refused; the rest is noted.
  Numbers eliminate(std::uint16_t version, Numbers left, const MakeHello& make_hello,
                    std::uint16_t Answer::*chosen, std::vector<Trial>& trials) {
    Numbers stumbling;
    while (!left.empty()) {
      const Answer answer =
          ask(make_hello(left), left.size() == 1 ? kAttemptsOfOne : kAttemptsOfMany);
      const std::uint16_t choice = answer.*chosen;
      if (answer.verdict == Verdict::kNotKnown) {
        left = eliminate_halves(version, left, answer.reason, make_hello, chosen, trials);
        break;
      }
      if (!contains(left, choice)) {
        if (answer.verdict == Verdict::kAccepted && choice == 0) {
          note_all(version, left, Verdict::kNotKnown, "the server does not say what it chose",
                   trials);
          left.clear();
        }
        break;  // refused, all of them
      }
      remove(left, choice);
      if (answer.verdict == Verdict::kAccepted) {
        trials.push_back({version, choice, Verdict::kAccepted, ""});
      } else {
        stumbling.push_back(choice);  // chosen, and then not used
      }
    }
    left.insert(left.end(), stumbling.begin(), stumbling.end());
    return left;
  }

  Numbers eliminate_halves(std::uint16_t version, const Numbers& numbers, const std::string& reason,
                           const MakeHello& make_hello, std::uint16_t Answer::*chosen,
                           std::vector<Trial>& trials) {
    if (numbers.size() == 1 || asker_.has_given_up()) {
      note_all(version, numbers, Verdict::kNotKnown, reason, trials);
      return {};
    }
    const auto middle = numbers.begin() + static_cast<std::ptrdiff_t>(numbers.size() / 2);
    Numbers refused =
        eliminate(version, Numbers(numbers.begin(), middle), make_hello, chosen, trials);
    const Numbers others =
        eliminate(version, Numbers(middle, numbers.end()), make_hello, chosen, trials);
    refused.insert(refused.end(), others.begin(), others.end());
    return refused;
  }

  void survey_groups() {
    if (serves(survey_, kTls13)) {
      const Numbers suites = accepted_in(survey_.suites, kTls13);
      survey_groups_of(kTls13, suites, 0);
    }
    for (const std::uint16_t version : {kTls12, kTls11, kTls10}) {
      if (!suites_with(version, {KeyExchange::kEcdheEcdsa, KeyExchange::kEcdheRsa}).empty()) {
        survey_curves(version);
        return;
      }
    }
  }

  /// The accepted suites of the version with one of these key exchanges.
  Numbers suites_with(std::uint16_t version, std::initializer_list<KeyExchange> exchanges) const {
    Numbers suites = accepted_in(survey_.suites, version);
    suites.erase(std::remove_if(suites.begin(), suites.end(),
                                [&](std::uint16_t suite) {
                                  return std::find(exchanges.begin(), exchanges.end(),
                                                   key_exchange_of(suite)) == exchanges.end();
                                }),
                 suites.end());
    return suites;
  }

  /// Before TLS 1.3 the curve of an ECDSA certificate has to be among the client's groups.
  void survey_curves(std::uint16_t version) {
    const Numbers with_rsa = suites_with(version, {KeyExchange::kEcdheRsa});
    if (!with_rsa.empty()) {
      survey_groups_of(version, with_rsa, 0);
      return;
    }
    std::uint16_t curve = 0;
    for (const Bytes& certificate : survey_.certificates) {
      curve = curve != 0 ? curve : group_number(describe_certificate(certificate).curve);
    }
    survey_groups_of(version, suites_with(version, {KeyExchange::kEcdheEcdsa}), curve);
  }

  /// always: a group that every hello has to offer, last; 0: none.
  void survey_groups_of(std::uint16_t version, const Numbers& suites, std::uint16_t always) {
    Numbers groups = groups_of_version(version);
    remove(groups, always);
    const auto make_hello = [&](const Numbers& offered) {
      Hello hello = hello_of(version, suites);
      hello.groups = offered;
      hello.key_shares = needs_key_shares_ ? offered : Numbers();
      if (always != 0) {
        hello.groups.push_back(always);
      }
      return hello;
    };
    Numbers refused = eliminate(version, groups, make_hello, &Answer::group, survey_.groups);
    if (always != 0) {
      const Answer answer = ask(make_hello({}));
      survey_.groups.push_back({version, always, answer.verdict, answer.reason});
      settle_hidden_groups(version, refused, make_hello);
      return;
    }
    note_all(version, refused, Verdict::kRefused, "", survey_.groups);
  }

  /// A server that prefers the certificate's curve hides the others behind it. Alone they can show
  /// that they are accepted, not that they are refused.
  void settle_hidden_groups(std::uint16_t version, const Numbers& groups,
                            const MakeHello& make_hello) {
    const bool client_counts = follows_order_of_groups(version, make_hello);
    note_all(version, groups, client_counts ? Verdict::kRefused : Verdict::kNotKnown,
             client_counts ? "" : "hidden behind the curve of the server's certificate",
             survey_.groups);
  }

  /// Whether of the certificate's curve and another group that one is chosen which comes first.
  bool follows_order_of_groups(std::uint16_t version, const MakeHello& make_hello) {
    Hello hello = make_hello({});
    const std::uint16_t curve = hello.groups.back();
    Numbers others = accepted_in(survey_.groups, version);
    remove(others, curve);
    if (others.empty()) {
      return false;
    }
    hello.groups.push_back(others.front());
    return ask(hello).group == curve && ask(make_hello({others.front()})).group == others.front();
  }

  void survey_features() {
    for (const std::uint16_t version : {kTls12, kTls11, kTls10, kSsl3}) {
      const Numbers suites = accepted_in(survey_.suites, version);
      if (!suites.empty()) {
        survey_extensions(version, suites);
        break;
      }
    }
    for (const std::uint16_t version : {kTls13, kTls12, kTls11, kTls10, kSsl3}) {
      const Numbers suites = accepted_in(survey_.suites, version);
      if (suites.size() > 1) {
        survey_order(version, suites);
        break;
      }
    }
  }

  void note(const char* feature, const Answer& answer, bool is_there) {
    survey_.features[feature] = answer.verdict != Verdict::kAccepted ? Verdict::kNotKnown
                                : is_there                           ? Verdict::kAccepted
                                                                     : Verdict::kRefused;
  }

  void survey_extensions(std::uint16_t version, const Numbers& suites) {
    Hello hello = hello_of(version, suites);
    const Answer plain = ask(hello);
    note(kSessionIds, plain, plain.has_session_id);
    hello.compression = true;
    hello.session_ticket = true;
    hello.extended_master_secret = true;
    const Answer answer = ask(hello);
    note(kCompression, answer, answer.compression);
    note(kSessionTickets, answer, answer.session_ticket);
    note(kSecureRenegotiation, answer, answer.secure_renegotiation);
    note(kExtendedMasterSecret, answer, answer.extended_master_secret);
  }

  void survey_order(std::uint16_t version, const Numbers& suites) {
    const Answer one = ask(hello_of(version, {suites[0], suites[1]}));
    const Answer other = ask(hello_of(version, {suites[1], suites[0]}));
    const bool is_known = one.verdict == Verdict::kAccepted && other.verdict == Verdict::kAccepted;
    survey_.features[kServerOrder] = !is_known                  ? Verdict::kNotKnown
                                     : one.suite == other.suite ? Verdict::kAccepted
                                                                : Verdict::kRefused;
  }

  /// By kind of certificate. A ticket that holds a session, encrypted and authenticated, is longer
  /// than one that only names it.
  void survey_full_handshakes() {
    constexpr std::size_t kLongestName = 64;
    if (!serves(survey_, kTls13) || !shake_hands_) {
      return;
    }
    bool is_complete = false;
    FullHandshake all;
    for (const char* const algorithms : kSignaturesByKind) {
      const FullHandshake handshake = shake_hands_(algorithms);
      is_complete = is_complete || handshake.is_complete;
      all.has_ticket = all.has_ticket || handshake.has_ticket;
      all.longest_ticket = std::max(all.longest_ticket, handshake.longest_ticket);
      if (!handshake.certificates.empty()) {
        note_certificate(handshake.certificates.front());
      }
    }
    const auto verdict = [&](bool is_there) {
      return is_there ? Verdict::kAccepted : is_complete ? Verdict::kRefused : Verdict::kNotKnown;
    };
    survey_.features[kTls13Tickets] = verdict(all.has_ticket);
    survey_.features[kTls13StatelessTickets] = verdict(all.longest_ticket > kLongestName);
  }

  Asker& asker_;
  const ShakeHands& shake_hands_;
  const Progress& progress_;
  std::size_t done_ = 0;
  Answer greeting_;                // what came of a short hello of TLS 1.2
  bool needs_key_shares_ = false;  // a hello of TLS 1.3 without any is refused
  Survey survey_;
};

}  // namespace

bool contains(const Numbers& numbers, std::uint16_t number) {
  return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

bool serves(const Survey& survey, std::uint16_t version) {
  return std::any_of(survey.versions.begin(), survey.versions.end(), [&](const Trial& trial) {
    return trial.version == version && trial.verdict == Verdict::kAccepted;
  });
}

Numbers accepted_in(const std::vector<Trial>& trials, std::uint16_t version) {
  Numbers numbers;
  for (const Trial& trial : trials) {
    if (trial.version == version && trial.verdict == Verdict::kAccepted) {
      numbers.push_back(trial.number);
    }
  }
  return numbers;
}

Survey survey(Asker& asker, const ShakeHands& shake_hands, const Progress& progress) {
  return Surveyor(asker, shake_hands, progress).run();
}

Numbers suites_of_version(std::uint16_t version) {
  Numbers suites;
  for (const CipherSuite& suite : all_suites()) {
    if ((key_exchange_of(suite) == KeyExchange::kLeftOpen) == (version == kTls13)) {
      suites.push_back(suite.number);
    }
  }
  return suites;
}

Numbers groups_of_version(std::uint16_t version) {
  Numbers groups;
  for (const NamedGroup& group : all_groups()) {
    if (version == kTls13 || !is_finite_field(group.number)) {
      groups.push_back(group.number);
    }
  }
  return groups;
}

}  // namespace kelotlsctl
