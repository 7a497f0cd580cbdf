// Owns the guess at what a misspelt name was meant to be.
#include "output/suggestion.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace kelotlsctl {

namespace {

// Beyond them nothing is near; that keeps a name out of a file from costing time.
constexpr std::size_t kMaxName = 64;
constexpr std::size_t kMaxEdits = 2;

std::string plain(std::string name) {
  for (char& character : name) {
    character = character == '_'
                    ? '-'
                    : static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  }
  return name;
}

/// How many characters have to be put in, left out, replaced, or swapped with the next.
std::size_t edits_between(const std::string& from, const std::string& to) {
  std::vector<std::vector<std::size_t>> edits(from.size() + 1,
                                              std::vector<std::size_t>(to.size() + 1));
  for (std::size_t i = 0; i <= from.size(); ++i) {
    for (std::size_t j = 0; j <= to.size(); ++j) {
      if (i == 0 || j == 0) {
        edits[i][j] = i + j;
        continue;
      }
      const std::size_t replaced = edits[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      edits[i][j] = std::min({edits[i - 1][j] + 1, edits[i][j - 1] + 1, replaced});
      const bool is_swapped =
          i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
      if (is_swapped) {
        edits[i][j] = std::min(edits[i][j], edits[i - 2][j - 2] + 1);
      }
    }
  }
  return edits[from.size()][to.size()];
}

}  // namespace

std::string nearest(const std::string& name, const std::vector<std::string>& candidates) {
  std::string found;
  if (name.size() > kMaxName) {
    return found;
  }
  // Of a short name, two characters are most of it.
  std::size_t allowed = std::min(kMaxEdits, name.size() / 3);
  for (const std::string& candidate : candidates) {
    if (candidate.size() > kMaxName) {
      continue;
    }
    const std::size_t edits = edits_between(plain(name), plain(candidate));
    if (edits < allowed || (edits == allowed && found.empty())) {
      found = candidate;
      allowed = edits;
    }
  }
  return found;
}

std::string did_you_mean(const std::string& name, const std::vector<std::string>& candidates) {
  const std::string meant = nearest(name, candidates);
  return meant.empty() ? std::string() : "; did you mean \"" + meant + "\"?";
}

}  // namespace kelotlsctl
