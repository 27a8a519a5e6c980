// A heap that records what the engine asks of it, on the recording thread alone, and can fail any
// allocation. The engine's calls of malloc, aligned_alloc, calloc, realloc and free reach it
// because the target test_heap makes the linker wrap them.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace qx_test {

struct HeapLog {
  std::int64_t allocations = 0;         // also counts reallocations that move
  std::vector<const void*> releases;    // released addresses, in order
  std::vector<const void*> still_held;  // allocated while recording, and not released
  std::int64_t held_bytes = 0;          // the requested sizes of these
};

// Records the allocations of code that calls only the engine.
HeapLog record_heap(const std::function<void()>& body);

// Runs code in which the allocation of this number (from 1) returns null and, with `from_then_on`,
// every later one.
HeapLog with_failing_allocation(std::int64_t number, bool from_then_on,
                                const std::function<void()>& body);

}  // namespace qx_test
