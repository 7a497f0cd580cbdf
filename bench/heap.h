// Counts the bytes that this program holds on the heap.
#ifndef KELOTLS_BENCH_HEAP_H
#define KELOTLS_BENCH_HEAP_H

#include <functional>

namespace kelotls::bench {

struct HeapUse {
  long peak;  // bytes held at once, at most
  long left;  // bytes still held afterwards
};

/// What a call takes beyond what was held before. Each block counts as large as the allocator made
/// it.
HeapUse heap_use_of(const std::function<void()>& call);

}  // namespace kelotls::bench

#endif
