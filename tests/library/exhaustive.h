// Every sequence of tokens up to a length, for tests that try them all.
#ifndef KELOTLS_TESTS_EXHAUSTIVE_H
#define KELOTLS_TESTS_EXHAUSTIVE_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace kelotls::test {

/// What is added to each length: KELOTLS_LONGER from the environment, less what a slow build is
/// spared.
inline int added_length() {
  const char* const longer = std::getenv("KELOTLS_LONGER");
  return (longer != nullptr ? std::atoi(longer) : 0) - KELOTLS_SHORTER;
}

/// The texts of a frame: each sequence of tokens between what stands before and behind.
struct Frame {
  const char* name;
  std::string before;
  std::string behind;
  std::vector<std::string> tokens;
  int most;  ///< tokens in a sequence
};

inline void PrintTo(const Frame& frame, std::ostream* out) { *out << frame.name; }

namespace internal {

template <typename Visit>
bool visit_longer(const Frame& frame, std::string& text, int left, Visit& visit) {
  const std::size_t size = text.size();
  bool goes_on = true;
  if (left == 0) {
    text += frame.behind;
    goes_on = visit(static_cast<const std::string&>(text));
    text.resize(size);
    return goes_on;
  }
  for (std::size_t token = 0; goes_on && token < frame.tokens.size(); ++token) {
    text += frame.tokens[token];
    goes_on = visit_longer(frame, text, left - 1, visit);
    text.resize(size);
  }
  return goes_on;
}

}  // namespace internal

/// Visits each text, the shorter sequences first, until a visit is false. Says how many there were.
template <typename Visit>
void visit_all(const Frame& frame, Visit visit) {
  const int most = frame.most + added_length();
  long count = 0;
  bool goes_on = true;
  auto counting = [&](const std::string& text) {
    ++count;
    return visit(text);
  };
  for (int length = 0; goes_on && length <= most; ++length) {
    std::string text = frame.before;
    goes_on = internal::visit_longer(frame, text, length, counting);
  }
  std::printf("%s: %ld sequences of up to %d of %zu tokens\n", frame.name, count, most,
              frame.tokens.size());
}

}  // namespace kelotls::test

#endif
