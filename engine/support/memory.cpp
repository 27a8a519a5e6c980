#include "support/memory.h"

#include <cstddef>
#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include "support/abort.h"

namespace qx {
namespace {

constexpr const char* kThisFile = "engine/support/memory.cpp";
constexpr std::size_t kCacheLineBytes = 64;

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
  const std::size_t bytes = block_bytes(count, element_bytes);
  const std::size_t whole_lines = (bytes + kCacheLineBytes - 1) & ~(kCacheLineBytes - 1);
  return bytes == 0 ? nullptr : allocated(std::aligned_alloc(kCacheLineBytes, whole_lines));
}

void* try_allocate(std::int64_t bytes) {
  constexpr std::int64_t kLargePageBytes = std::int64_t{2} << 20;
  const bool large = bytes >= 2 * kLargePageBytes;
  const auto alignment = large ? static_cast<std::size_t>(kLargePageBytes) : kCacheLineBytes;
  if (bytes < 1 || bytes > PTRDIFF_MAX - kLargePageBytes) return nullptr;
  const std::size_t rounded = (static_cast<std::size_t>(bytes) + alignment - 1) & ~(alignment - 1);
  void* const block = std::aligned_alloc(alignment, rounded);
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  // Advice: a system that does not take it changes nothing.
  if (block != nullptr && large) static_cast<void>(madvise(block, rounded, MADV_HUGEPAGE));
#endif
  return block;
}

void expect_writes([[maybe_unused]] void* first, [[maybe_unused]] std::size_t bytes) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
  constexpr std::uintptr_t kLargestPageBytes = 1 << 16;  // of which a kernel has the usual pages
  const auto begin = reinterpret_cast<std::uintptr_t>(first);
  const auto from = (begin + kLargestPageBytes - 1) / kLargestPageBytes * kLargestPageBytes;
  const auto to = (begin + bytes) / kLargestPageBytes * kLargestPageBytes;
  if (from >= to) return;
  auto* const pages = static_cast<std::byte*>(first) + (from - begin);
  static_cast<void>(madvise(pages, to - from, MADV_POPULATE_WRITE));
#endif
}

void* reallocate(void* block, std::int64_t count, std::size_t element_bytes) {
  return allocated(std::realloc(block, block_bytes(count, element_bytes)));
}

void release(void* block) { std::free(block); }

}  // namespace qx
