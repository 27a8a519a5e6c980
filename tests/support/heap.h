// A heap that records what the engine asks of it and can fail any allocation. The engine's calls of
// malloc, aligned_alloc, calloc, realloc and free reach it because the target test_heap makes the
// linker wrap them.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace qx_test {

struct HeapLog {
  std::int64_t allocations = 0;         // blocks asked for; a block that moves is asked for anew
  std::vector<const void*> releases;    // blocks given back, in order
  std::vector<const void*> still_held;  // blocks had while recording and not given back
  std::int64_t held_bytes = 0;          // the sizes that these were asked for with
};

// What a piece of code did that calls nothing but the engine.
HeapLog record_heap(const std::function<void()>& body);

// Runs a piece of code in which the allocation of this number (from 1) returns null and, when
// `from_then_on` is set, every later one.
void with_failing_allocation(std::int64_t number, bool from_then_on,
                             const std::function<void()>& body);

}  // namespace qx_test
