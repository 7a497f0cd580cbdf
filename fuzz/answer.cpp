// Any bytes as a server's first flight. The first byte says which version the hello was of, the
// second how the rest is cut into pieces: it is read as the same answer however it comes, and
// nothing that is read ends the process or grows beyond what came.
#include "tls/answer.h"

#include <algorithm>
#include <tuple>

#include "harness.h"
#include "levels/survey.h"

namespace kelotls::fuzz {
namespace {

using kelotlsctl::Answer;
using kelotlsctl::AnswerReader;
using kelotlsctl::Hello;
using kelotlsctl::Verdict;

constexpr char kSilence[] = "silence";

Hello hello_of(std::size_t choice) {
  Hello hello;
  hello.version = kelotlsctl::kVersions[choice % std::size(kelotlsctl::kVersions)];
  hello.suites = kelotlsctl::suites_of_version(hello.version);
  hello.groups = kelotlsctl::groups_of_version(hello.version);
  return hello;
}

/// In pieces of so many bytes, each one longer than the piece before.
Answer read(const Hello& hello, std::string_view flight, std::size_t piece, std::size_t growth) {
  AnswerReader reader(hello);
  bool is_complete = false;
  while (!flight.empty()) {
    const bool was_complete = is_complete;
    is_complete = reader.take(std::string(flight.substr(0, piece)));
    require(is_complete || !was_complete, "a complete answer stays complete");
    flight.remove_prefix(std::min(piece, flight.size()));
    piece += growth;
  }
  return reader.finish(kSilence);
}

auto members(const Answer& answer) {
  return std::make_tuple(answer.verdict, answer.reason, answer.version, answer.suite, answer.group,
                         answer.dh_bits, answer.is_alert, answer.is_about_version,
                         answer.wants_key_share, answer.has_session_id, answer.compression,
                         answer.session_ticket, answer.secure_renegotiation,
                         answer.extended_master_secret, answer.certificates);
}

void check(const Hello& hello, const Answer& answer, std::size_t size) {
  std::size_t kept = 0;
  for (const auto& certificate : answer.certificates) {
    kept += certificate.size();
  }
  require(kept <= size && answer.certificates.size() <= size, "no more is kept than came");
  require((answer.verdict == Verdict::kAccepted) == answer.reason.empty(),
          "what is not accepted has a reason");
  require(answer.verdict != Verdict::kAccepted || answer.version == hello.version,
          "another version is not accepted");
  require(answer.dh_bits >= 0 && static_cast<std::size_t>(answer.dh_bits) <= 8 * size,
          "a prime has no more bits than came");
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls::fuzz;
  if (size < 2) {
    return 0;
  }
  const Hello hello = hello_of(data[0]);
  const std::string_view flight = text_of(data, size).substr(2);
  const Answer whole = read(hello, flight, std::max<std::size_t>(flight.size(), 1), 0);

  check(hello, whole, flight.size());
  require(members(read(hello, flight, 1, 0)) == members(whole),
          "single bytes are read as the whole is");
  require(members(read(hello, flight, 1 + data[1] % 16, data[1] / 16)) == members(whole),
          "pieces are read as the whole is");
  return 0;
}
