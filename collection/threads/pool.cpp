#include "threads/pool.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>

#include "support/error.h"
#include "support/fp_environment.h"
#include "threads/fork.h"

#if __has_include(<sched.h>)
#include <sched.h>
#endif
#if __has_include(<dlfcn.h>)
#include <dlfcn.h>
#include <signal.h>
#endif

namespace qx::collection {
namespace {

// One parallel_for, on the stack of its caller.
class Call {
 public:
  Call(std::int64_t tasks, int most_helpers, const std::function<void(std::int64_t, int)>& task)
      : helpers(most_helpers), tasks_(tasks), task_(task) {}

  bool wants_helper() const { return joined < helpers && next_.load() < tasks_; }

  // Takes tasks until there is none. `after_each` is called with how many have ended.
  template <typename AfterEach>
  void work(int worker, AfterEach after_each) noexcept {
    try {
      for (std::int64_t i; (i = next_.fetch_add(1)) < tasks_;) {
        task_(i, worker);
        after_each(ended_.fetch_add(1) + 1);
      }
    } catch (...) {
      next_.store(tasks_);
      if (!failed_.exchange(true)) exception_ = std::current_exception();
    }
  }

  // Requires: every worker has ended.
  void rethrow() const {
    if (exception_) std::rethrow_exception(exception_);
  }

  // Under the mutex of the pool.
  const int helpers;  // at most
  int invited = 0;
  int joined = 0;
  int inside = 0;
  std::condition_variable all_left;
  Call* next_call = nullptr;

 private:
  const std::int64_t tasks_;
  const std::function<void(std::int64_t, int)>& task_;
  std::atomic<std::int64_t> next_ = 0;
  std::atomic<std::int64_t> ended_ = 0;
  std::atomic<bool> failed_ = false;
  std::exception_ptr exception_;
};

// There are as many threads as the calls want together, at most one fewer than CPUs. Sleeping ones
// cost a system call each to wake: the caller wakes two, and each of them two
// more.
class Pool {
 public:
  void run(Call& call, std::int64_t tasks, const Progress& progress) {
    std::unique_lock lock(mutex_);
    Call** last = &calls_;
    int wanted = call.helpers;
    for (; *last != nullptr; last = &(*last)->next_call) wanted += (*last)->helpers;
    *last = &call;
    const int sleeping = invite(call);
    const int missing = std::max(0, std::min(wanted, cpus() - 1) - threads_);
    threads_ += missing;
    lock.unlock();
    wake(sleeping);
    start(missing);
    call.work(0, [&](std::int64_t ended) { progress.report(ended, tasks); });
    lock.lock();
    Call** link = &calls_;
    while (*link != &call) link = &(*link)->next_call;
    *link = call.next_call;
    call.all_left.wait(lock, [&] { return call.inside == 0; });
    call.rethrow();
  }

 private:
  // How many threads are to be woken now.
  static int invite(Call& call) {
    const int more = std::min(2, call.helpers - call.invited);
    call.invited += more;
    return more;
  }

  // Without the mutex, which those woken take first.
  void wake(int sleeping) {
    for (; sleeping > 0; --sleeping) wake_.notify_one();
  }

  // Without the mutex, since the loader of libraries may wait for one who waits for the mutex.
  void start(int missing) {
    try {
      for (; missing > 0; --missing) start_thread([this] { help(); }).detach();
    } catch (...) {  // the work is done by the threads that there are
      const std::lock_guard lock(mutex_);
      threads_ -= missing;
    }
  }

  void help() {
    std::unique_lock lock(mutex_);
    while (true) {
      Call* call = calls_;
      while (call != nullptr && !call->wants_helper()) call = call->next_call;
      if (call == nullptr) {
        wake_.wait(lock);
        continue;
      }
      const int worker = ++call->joined;
      ++call->inside;
      const int sleeping = invite(*call);
      lock.unlock();
      wake(sleeping);
      call->work(worker, [](std::int64_t) {});
      lock.lock();
      if (--call->inside == 0) call->all_left.notify_one();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  Call* calls_ = nullptr;
  int threads_ = 0;
  ForkGuard guard_{mutex_,
                   [this] {
                     renew(wake_);
                     calls_ = nullptr;
                     threads_ = 0;
                   },
                   ForkGuard::Order::kLast};
};

// Never destroyed: at exit its threads sleep on, and are not waited for.
Pool& pool() {
  static Pool& only = *new Pool;
  return only;
}

void keep_loaded() {
#if __has_include(<dlfcn.h>)
  static std::atomic<bool> kept = false;
  if (kept.exchange(true)) return;
  Dl_info here = {};  // stays so in a program without shared libraries, and names that
  dladdr(reinterpret_cast<void*>(&cpus), &here);
  dlopen(here.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
#endif
}

// While it lives, this thread, and so the threads that it starts, takes no signals but those of its
// own faults.
class NoSignals {
#if __has_include(<dlfcn.h>)
 public:
  NoSignals() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGPROF}) {
      sigdelset(&signals, own);
    }
    pthread_sigmask(SIG_SETMASK, &signals, &before_);
  }
  NoSignals(const NoSignals&) = delete;
  ~NoSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
#endif
};

}  // namespace

int cpus() {
#if defined(__linux__)
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof(set), &set) == 0) return CPU_COUNT(&set);
#endif
  return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

std::thread start_thread(std::function<void()> body) {
  pool();  // made while there are only threads of the host, so never during a fork
  keep_loaded();
  [[maybe_unused]] const NoSignals no_signals;
  return std::thread([body = std::move(body)] {
    const DefaultFpEnvironment not_the_hosts;
    body();
  });
}

void Progress::report(std::int64_t done, std::int64_t total) const {
  if (callback_ == nullptr) return;
  if (callback_(context_, before_ + done, whole_ == 0 ? total : whole_) != 0) {
    throw Error(QX_CANCELLED, "cancelled by the progress callback");
  }
}

void parallel_for(std::int64_t tasks, int threads, const Progress& progress,
                  const std::function<void(std::int64_t task, int worker)>& task) {
  if (tasks <= 0) return;
  const auto most = static_cast<int>(std::min<std::int64_t>({tasks, threads, cpus()}));
  if (most == 1) {  // searches of many host threads do not meet at the pool
    for (std::int64_t i = 0; i < tasks; ++i) {
      task(i, 0);
      progress.report(i + 1, tasks);
    }
    return;
  }
  Call call(tasks, most - 1, task);
  pool().run(call, tasks, progress);
}

}  // namespace qx::collection
