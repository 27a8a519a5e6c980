// The engine's only access to the heap. It knows sizes, not what they are for. No function but
// try_allocate() returns null for a size above 0: failure ends the process. For a size of 0 there
// is no block, and null.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx {

// A new block of `count` elements of `element_bytes` each, aligned for any element type.
void* allocate(std::int64_t count, std::size_t element_bytes);

// The same, aligned to a cache line, so that no vector straddles one more line than needed.
void* allocate_cache_aligned(std::int64_t count, std::size_t element_bytes);

// A new block of that many bytes, aligned to a cache line, for data that a caller can do without:
// null if there is no memory. A large block is aligned to a large page, and the system is asked for
// large pages where it can be, which saves a scan the misses of the page table.
void* try_allocate(std::int64_t bytes);

// Advice: `bytes` from `first` on, which are of one block, are soon written to. The system may give
// their pages at once, and more cheaply than one by one. What is in them stays.
void expect_writes(void* first, std::size_t bytes);

// Moves a block (or null) to `count` elements, keeping what fits. `count` is above 0.
void* reallocate(void* block, std::int64_t count, std::size_t element_bytes);

// Releases a block, or null.
void release(void* block);

}  // namespace qx
