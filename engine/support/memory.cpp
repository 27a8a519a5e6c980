#include "support/memory.h"

#include <cstdint>
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

}  // namespace

void* allocate(std::int64_t count, std::size_t element_bytes) {
  const std::size_t bytes = block_bytes(count, element_bytes);
  if (bytes == 0) return nullptr;
  void* const block = std::malloc(bytes);
  if (block == nullptr) abort_allocation(kThisFile, SourceLocation::current());
  return block;
}

void* allocate_cache_aligned(std::int64_t count, std::size_t element_bytes) {
  constexpr std::size_t kLineBytes = 64;
  const std::size_t bytes = block_bytes(count, element_bytes);
  if (bytes == 0) return nullptr;
  void* const block = std::aligned_alloc(kLineBytes, (bytes + kLineBytes - 1) & ~(kLineBytes - 1));
  if (block == nullptr) abort_allocation(kThisFile, SourceLocation::current());
  return block;
}

void* reallocate(void* block, std::int64_t count, std::size_t element_bytes) {
  void* const moved = std::realloc(block, block_bytes(count, element_bytes));
  if (moved == nullptr) abort_allocation(kThisFile, SourceLocation::current());
  return moved;
}

void release(void* block) { std::free(block); }

}  // namespace qx
