#include "support/memory.h"

#include <cstdlib>

#include "support/abort.h"

namespace qx {
namespace {

constexpr const char* kThisFile = "engine/support/memory.cpp";

// The size of a block in bytes. A size that no address space holds is a failed allocation.
std::size_t block_bytes(std::int64_t count, std::size_t element_bytes) {
  std::size_t bytes = 0;
  if (count < 0 || __builtin_mul_overflow(count, element_bytes, &bytes) || bytes > PTRDIFF_MAX) {
    abort_allocation(kThisFile, SourceLocation::current());
  }
  return bytes;
}

// The block, of which the system was asked at `location`.
void* allocated(void* block, SourceLocation location = SourceLocation::current()) {
  if (block == nullptr) abort_allocation(kThisFile, location);
  return block;
}

}  // namespace

void* allocate(std::int64_t count, std::size_t element_bytes) {
  const std::size_t bytes = block_bytes(count, element_bytes);
  return bytes == 0 ? nullptr : allocated(std::malloc(bytes));
}

void* allocate_cache_aligned(std::int64_t count, std::size_t element_bytes) {
  constexpr std::size_t kLineBytes = 64;
  const std::size_t bytes = block_bytes(count, element_bytes);
  const std::size_t whole_lines = (bytes + kLineBytes - 1) & ~(kLineBytes - 1);
  return bytes == 0 ? nullptr : allocated(std::aligned_alloc(kLineBytes, whole_lines));
}

void* reallocate(void* block, std::int64_t count, std::size_t element_bytes) {
  return allocated(std::realloc(block, block_bytes(count, element_bytes)));
}

void release(void* block) { std::free(block); }

}  // namespace qx
