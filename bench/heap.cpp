// Interposes the C library's allocator, for every library of the program, and counts while a call
// is measured.
#include "heap.h"

#include <malloc.h>

#include <algorithm>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {

bool counting = false;
kelotls::bench::HeapUse use;

void* taken(void* block) {
  if (counting) {
    use.left += static_cast<long>(malloc_usable_size(block));
    use.peak = std::max(use.peak, use.left);
  }
  return block;
}

void* given_back(void* block) {
  if (counting) {
    use.left -= static_cast<long>(malloc_usable_size(block));
  }
  return block;
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) { return taken(__libc_malloc(size)); }
void* calloc(std::size_t count, std::size_t size) { return taken(__libc_calloc(count, size)); }
void* realloc(void* block, std::size_t size) {
  return taken(__libc_realloc(given_back(block), size));
}
void free(void* block) { __libc_free(given_back(block)); }
}

namespace kelotls::bench {

HeapUse heap_use_of(const std::function<void()>& call) {
  use = {};
  counting = true;
  call();
  counting = false;
  return use;
}

}  // namespace kelotls::bench
