#include "support/heap.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace {

// Fixed storage: the log must not use the heap that it records.
constexpr std::size_t kMostEvents = 4096;

struct Event {
  const void* block;
  std::size_t bytes;  // of one allocation
  bool released;
};

thread_local bool recording = false;
std::size_t event_count = 0;
Event events[kMostEvents];

std::int64_t allocations = 0;
std::int64_t failing_number = 0;  // 0: none
bool failing_from_then_on = false;

// Counts an allocation. Returns true if it must fail.
bool next_fails() {
  if (!recording) return false;
  ++allocations;
  if (failing_number == 0) return false;
  return failing_from_then_on ? allocations >= failing_number : allocations == failing_number;
}

void note(const Event& event) {
  if (!recording || event.block == nullptr) return;
  if (event_count == kMostEvents) std::abort();
  events[event_count++] = event;
}

// Makes an allocation, unless it must fail.
template <typename Allocate>
void* allocate(std::size_t bytes, Allocate real) {
  if (next_fails()) return nullptr;
  void* const block = real();
  note({block, bytes, false});
  return block;
}

}  // namespace

namespace qx_test {

HeapLog record_heap(const std::function<void()>& body) {
  event_count = 0;
  allocations = 0;
  recording = true;
  body();
  recording = false;
  HeapLog log;
  log.allocations = allocations;
  std::vector<Event> held;
  for (std::size_t i = 0; i < event_count; ++i) {
    if (!events[i].released) {
      held.push_back(events[i]);
      continue;
    }
    log.releases.push_back(events[i].block);
    const auto is_it = [&](const Event& had) { return had.block == events[i].block; };
    const auto found = std::find_if(held.begin(), held.end(), is_it);
    if (found != held.end()) held.erase(found);
  }
  for (const Event& had : held) {
    log.still_held.push_back(had.block);
    log.held_bytes += static_cast<std::int64_t>(had.bytes);
  }
  return log;
}

HeapLog with_failing_allocation(std::int64_t number, bool from_then_on,
                                const std::function<void()>& body) {
  failing_number = number;
  failing_from_then_on = from_then_on;
  HeapLog log = record_heap(body);
  failing_number = 0;
  return log;
}

}  // namespace qx_test

extern "C" {

void* __real_malloc(std::size_t bytes);
void* __real_calloc(std::size_t count, std::size_t bytes);
void* __real_aligned_alloc(std::size_t alignment, std::size_t bytes);
void* __real_realloc(void* block, std::size_t bytes);
void __real_free(void* block);

void* __wrap_malloc(std::size_t bytes) {
  return allocate(bytes, [=] { return __real_malloc(bytes); });
}
void* __wrap_calloc(std::size_t count, std::size_t bytes) {
  return allocate(count * bytes, [=] { return __real_calloc(count, bytes); });
}
void* __wrap_aligned_alloc(std::size_t alignment, std::size_t bytes) {
  return allocate(bytes, [=] { return __real_aligned_alloc(alignment, bytes); });
}

// A reallocation that moves counts as a release of the old address and an allocation of the new.
void* __wrap_realloc(void* block, std::size_t bytes) {
  return allocate(bytes, [=] {
    note({block, 0, true});
    return __real_realloc(block, bytes);
  });
}

void __wrap_free(void* block) {
  note({block, 0, true});
  __real_free(block);
}

}  // extern "C"
