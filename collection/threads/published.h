// One pointer to an immutable object that readers take without waiting, and a writer replaces.
#pragma once

#include <atomic>
#include <memory>
#include <thread>

namespace qx::collection {

// Readers enter a gate for the few instructions in which they copy the pointer; a writer that has
// replaced it waits until those who may have seen the old one have left. There are two counters of
// readers: new readers use the one that `phase_` names, so a writer that has turned the phase waits
// for a number that only falls. A reader can read the phase, sleep, and enter by the counter that a
// writer is not looking at: so a writer turns and waits twice.
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
      while (readers_[left].load() != 0) std::this_thread::yield();
    }
  }

 private:
  std::atomic<std::shared_ptr<const T>*> current_;
  mutable std::atomic<std::int64_t> readers_[2] = {};
  std::atomic<int> phase_ = 0;
};

}  // namespace qx::collection
