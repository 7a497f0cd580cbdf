// Owns putting pieces together.
#include "recording/pieces.h"

#include <algorithm>

namespace kelotlsctl {

namespace {

constexpr std::size_t kMostPieces = 256;
constexpr std::size_t kPieceCost = 100;

}  // namespace

bool Pieces::insert(std::size_t offset, std::string_view bytes) {
  const std::size_t end = offset + bytes.size();
  std::size_t at = std::max(offset, beginning_.size());
  auto next = later_.upper_bound(at);
  if (next != later_.begin()) {
    const auto before = std::prev(next);
    at = std::max(at, before->first + before->second.size());
  }
  while (at < end) {
    const std::size_t gap_end = next != later_.end() ? std::min(end, next->first) : end;
    if (at < gap_end) {
      later_.emplace(at, bytes.substr(at - offset, gap_end - at));
      cost_ += gap_end - at + kPieceCost;
    }
    if (next == later_.end()) {
      break;
    }
    at = next->first + next->second.size();
    ++next;
  }
  join();
  return later_.size() <= kMostPieces;
}

void Pieces::join() {
  while (!later_.empty() && later_.begin()->first == beginning_.size()) {
    beginning_ += later_.begin()->second;
    cost_ -= kPieceCost;
    later_.erase(later_.begin());
  }
}

}  // namespace kelotlsctl
