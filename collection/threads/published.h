// One pointer to an immutable object that readers take without waiting, and a writer replaces.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

namespace qx::collection {

// Readers enter a gate for the few instructions in which they copy the pointer; a writer that has
// replaced it waits until those who may have seen the old one have left.
//
// All operations on atomics are in one order. A reader that loads the old pointer has counted
// itself before, so before the writer's exchange; whichever counter it is in, the writer then sees
// that counter at zero only after the reader has left. So it is enough to see each counter at zero
// once after the exchange, and what that reader did happened before the old pointer is destroyed.
// Later readers find the new pointer, and do not matter.
//
// Two counters, so that a stream of readers cannot keep the writer: new ones enter by the counter
// that `phase_` names, and the writer turns the phase away from the counter before it waits for it.
// From then on only those enter there who have read the phase before: at most one for each thread.
//
// A reader that a fork leaves behind would stay in the gate: threads of the library read under a
// mutex that a ForkGuard has.
template <typename T>
class Published {
 public:
  explicit Published(std::shared_ptr<const T> first)
      : current_(new std::shared_ptr<const T>(std::move(first))) {}
  Published(const Published&) = delete;
  ~Published() { delete current_.load(); }

  std::shared_ptr<const T> get() const {
    std::atomic<std::int64_t>& readers = readers_[phase_.load()];
    readers.fetch_add(1);
    std::shared_ptr<const T> copy = *current_.load();
    readers.fetch_sub(1);
    return copy;
  }

  // Writers must exclude each other. `next` was allocated before, since this must not fail.
  void set(std::unique_ptr<std::shared_ptr<const T>> next) noexcept {
    const std::unique_ptr<std::shared_ptr<const T>> old(current_.exchange(next.release()));
    for (int turn = 0; turn < 2; ++turn) {
      const int left = phase_.load();
      phase_.store(1 - left);
      wait_until_empty(readers_[left]);
    }
  }

 private:
  // A reader that is not running may need this very CPU, at a lower priority.
  static void wait_until_empty(const std::atomic<std::int64_t>& readers) noexcept {
    for (int polls = 0; readers.load() != 0; ++polls) {
      if (polls < 100) {
        std::this_thread::yield();
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    }
  }

  std::atomic<std::shared_ptr<const T>*> current_;
  mutable std::atomic<std::int64_t> readers_[2] = {};
  std::atomic<int> phase_ = 0;
};

}  // namespace qx::collection
