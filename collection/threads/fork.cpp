#include "threads/fork.h"

#include <algorithm>
#include <new>
#include <vector>

#if __has_include(<pthread.h>)
#include <pthread.h>
#endif

namespace qx::collection {
namespace {

// Guards in the order in which their mutexes are locked. Never destroyed, since a process may fork
// while it exits.
struct Registry {
  std::mutex mutex;
  std::vector<ForkGuard*> guards;
};
Registry& registry();

void before_fork() {
  registry().mutex.lock();
  for (const ForkGuard* guard : registry().guards) guard->mutex().lock();
}

void after_fork() {
  for (const ForkGuard* guard : registry().guards) guard->mutex().unlock();
  registry().mutex.unlock();
}

void after_fork_in_child() {
  for (const ForkGuard* guard : registry().guards) guard->in_child();
  after_fork();
}

Registry* make_registry() {
  auto made = std::make_unique<Registry>();
#if __has_include(<pthread.h>)
  if (pthread_atfork(before_fork, after_fork, after_fork_in_child) != 0) throw std::bad_alloc();
#endif
  return made.release();
}

Registry& registry() {
  static Registry& only = *make_registry();
  return only;
}

}  // namespace

ForkGuard::ForkGuard(std::mutex& mutex, std::function<void()> in_child, Order order)
    : mutex_(mutex), in_child_(std::move(in_child)) {
  const std::lock_guard lock(registry().mutex);
  std::vector<ForkGuard*>& guards = registry().guards;
  guards.insert(order == Order::kLast ? guards.end() : guards.begin(), this);
}

ForkGuard::~ForkGuard() {
  const std::lock_guard lock(registry().mutex);
  std::erase(registry().guards, this);
}

}  // namespace qx::collection
