// The engine's only door to the heap. It knows sizes, not what they are for. No function returns
// null for a size above 0: failure ends the process. A size of 0 owns no block and is null.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx {

// A new block of `count` elements of `element_bytes` each, aligned for any element type.
void* allocate(std::int64_t count, std::size_t element_bytes);

// The same, beginning at a cache line, for what is read by the line: a vector of whole lines then
// lies on no line more than it fills.
void* allocate_at_line(std::int64_t count, std::size_t element_bytes);

// Moves a block (or null) to `count` elements, keeping what fits. `count` is above 0.
void* reallocate(void* block, std::int64_t count, std::size_t element_bytes);

// Gives a block back; null is fine.
void release(void* block);

}  // namespace qx
