// Owns bytes that arrive in pieces: in any order, twice, or overlapping.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace kelotlsctl {

/// Puts the beginning of a sequence of bytes together. Of two pieces that differ where they
/// overlap, the bytes that came first stay.
class Pieces {
 public:
  /// False where that would make more than so many separate pieces: nobody sends that by chance.
  bool insert(std::size_t offset, std::string_view bytes);

  /// All bytes from the first on, up to the first gap.
  const std::string& beginning() const { return beginning_; }

  /// How much memory it takes, about.
  std::size_t cost() const { return cost_; }

 private:
  void join();

  std::string beginning_;
  std::map<std::size_t, std::string> later_;  // by offset; none touches another, or the beginning
  std::size_t cost_ = 0;
};

}  // namespace kelotlsctl
