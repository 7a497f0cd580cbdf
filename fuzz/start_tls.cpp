// Any bytes as the replies of a server that is asked for TLS. The first part names the protocol;
// each further one is said after the next thing that the client has said, the first of all before
// it or at the first occasion. What comes of it does not depend on how replies are cut, and a
// client neither says nor takes more than it may.
#include <algorithm>
#include <string>

#include "harness.h"
#include "peers/starttls.h"

namespace kelotls::fuzz {
namespace {

constexpr std::size_t kMostReplies = std::size_t{64} * 1024;
constexpr std::size_t kMostTold = 4096;
constexpr char kSilence[] = "the replies are over";

struct Dialogue {
  std::string reason;  // why TLS is not due; empty where it is
  std::string told;
  std::size_t given = 0;
  std::size_t left = 0;  // said by the server, and not taken
};

/// The replies come in pieces of so many bytes.
Dialogue speak(const std::string& protocol, std::string_view parts, std::size_t piece) {
  Dialogue dialogue;
  std::string pending(take_part(parts));
  const kelotlsctl::PlainStream stream = {[&](const std::string& bytes) {
                                            dialogue.told += bytes;
                                            pending += take_part(parts);
                                            return std::string();
                                          },
                                          [&](std::string& received) {
                                            const std::string next = pending.substr(0, piece);
                                            pending.erase(0, next.size());
                                            received += next;
                                            dialogue.given += next.size();
                                            return std::string(next.empty() ? kSilence : "");
                                          }};
  dialogue.reason = kelotlsctl::start_tls(protocol, "a.example", stream);
  dialogue.left = pending.size();
  return dialogue;
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls::fuzz;
  std::string_view input = text_of(data, size);
  const std::string protocol(take_part(input));
  const auto& known = kelotlsctl::starttls_protocols();
  if (std::find(known.begin(), known.end(), protocol) == known.end()) {
    return 0;
  }
  const Dialogue bytewise = speak(protocol, input, 1);
  const Dialogue whole = speak(protocol, input, std::max<std::size_t>(input.size(), 1));

  require(bytewise.given <= kMostReplies + 1, "a client takes 64 KiB at most");
  require(bytewise.told.size() <= kMostTold, "a client says no more than it has to");
  // What comes behind the reply that goes ahead is left by single bytes, and in one piece refused
  // unless it comes after a further question.
  require(!whole.reason.empty() || bytewise.reason.empty(),
          "what goes ahead as a whole goes ahead by single bytes");
  require(whole.reason.empty() || !bytewise.reason.empty() || bytewise.left > 0,
          "what goes ahead by single bytes and leaves none goes ahead as a whole");
  require(!whole.reason.empty() || whole.told == bytewise.told,
          "a client says the same however it is answered");
  return 0;
}
