#include "support/heap.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace {

// Fixed storage: the log must not use the heap that it records.
constexpr std::size_t kMostEvents = 4096;

struct Event {
  const void* block;
  bool released;
};

bool recording = false;
std::size_t event_count = 0;
Event events[kMostEvents];

std::int64_t allocations = 0;
std::int64_t failing_number = 0;  // 0: none
bool failing_from_then_on = false;

// Counts an allocation that is asked for; whether it is to fail.
bool next_fails() {
  if (!recording) return false;
  ++allocations;
  if (failing_number == 0) return false;
  return failing_from_then_on ? allocations >= failing_number : allocations == failing_number;
}

void note(const void* block, bool released) {
  if (!recording || block == nullptr) return;
  if (event_count == kMostEvents) std::abort();
  events[event_count++] = {block, released};
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
  for (std::size_t i = 0; i < event_count; ++i) {
    if (!events[i].released) {
      log.still_held.push_back(events[i].block);
      continue;
    }
    log.releases.push_back(events[i].block);
    const auto held = std::find(log.still_held.begin(), log.still_held.end(), events[i].block);
    if (held != log.still_held.end()) log.still_held.erase(held);
  }
  return log;
}

void with_failing_allocation(std::int64_t number, bool from_then_on,
                             const std::function<void()>& body) {
  failing_number = number;
  failing_from_then_on = from_then_on;
  record_heap(body);
  failing_number = 0;
}

}  // namespace qx_test

extern "C" {

void* __real_malloc(std::size_t bytes);
void* __real_calloc(std::size_t count, std::size_t bytes);
void* __real_aligned_alloc(std::size_t alignment, std::size_t bytes);
void* __real_realloc(void* block, std::size_t bytes);
void __real_free(void* block);

void* __wrap_malloc(std::size_t bytes) {
  if (next_fails()) return nullptr;
  void* const block = __real_malloc(bytes);
  note(block, false);
  return block;
}

void* __wrap_calloc(std::size_t count, std::size_t bytes) {
  if (next_fails()) return nullptr;
  void* const block = __real_calloc(count, bytes);
  note(block, false);
  return block;
}

void* __wrap_aligned_alloc(std::size_t alignment, std::size_t bytes) {
  if (next_fails()) return nullptr;
  void* const block = __real_aligned_alloc(alignment, bytes);
  note(block, false);
  return block;
}

// A block that moves is given back at its old place and had at its new one.
void* __wrap_realloc(void* block, std::size_t bytes) {
  if (next_fails()) return nullptr;
  note(block, true);
  void* const moved = __real_realloc(block, bytes);
  note(moved, false);
  return moved;
}

void __wrap_free(void* block) {
  note(block, true);
  __real_free(block);
}

}  // extern "C"
