// What lets a process fork while threads of the library wait or work. The child has the thread that
// forked and no other: it gets every mutex in a known state, and what threads had begun is
// forgotten.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace qx::collection {

// While it lives, `mutex` is locked before each fork and unlocked after it in both processes; in
// the child, `in_child` is called before, in which everything is to be renewed that a thread may
// have been waiting on or working at. It must not throw.
//
// Required, so that a fork cannot deadlock: no thread holds two registered mutexes, except that one
// that comes last (the pool's) may be taken under any other; a fork, and making or destroying a
// guard, happen under none.
class ForkGuard {
 public:
  enum class Order { kAny, kLast };

  ForkGuard(std::mutex& mutex, std::function<void()> in_child, Order order = Order::kAny);
  ForkGuard(const ForkGuard&) = delete;
  ~ForkGuard();

  std::mutex& mutex() const { return mutex_; }
  void in_child() const { in_child_(); }

 private:
  std::mutex& mutex_;
  std::function<void()> in_child_;
};

// Makes an object anew without ending the old one, which could wait for threads that the child does
// not have: condition variables with waiters, std::thread.
template <typename T>
void renew(T& object) noexcept {
  std::construct_at(std::addressof(object));
}

}  // namespace qx::collection
