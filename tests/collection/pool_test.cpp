// The shared threads: every task once, on no more threads than allowed, whatever tasks throw,
// however many callers there are, and across forks.
#include "threads/pool.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string_view>
#include <vector>

#include "support/child.h"
#include "support/error.h"
#include "support/host_environment.h"
#include "threads/fork.h"

// Threads are started in children on purpose.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

// CPUs that the process seems to have, so that there are more threads than the machine has CPUs.
// With 0 the system does not say.
static std::atomic<int> seeming_cpus = 6;
extern "C" int sched_getaffinity(pid_t, std::size_t, cpu_set_t* set) noexcept {
  CPU_ZERO(set);
  for (int i = 0; i < seeming_cpus; ++i) CPU_SET(static_cast<unsigned>(i), set);
  return seeming_cpus == 0 ? -1 : 0;
}

// A host's static object that makes a collection where the system has no memory for what is to be
// done at forks. Of the first collection of a process alone, so before main().
static bool fails_atfork = true;
extern "C" int __real_pthread_atfork(void (*before)(), void (*after)(), void (*in_child)());
extern "C" int __wrap_pthread_atfork(void (*before)(), void (*after)(), void (*in_child)()) {
  return fails_atfork ? ENOMEM : __real_pthread_atfork(before, after, in_child);
}
static const std::int32_t kFirstStatus = [] {
  QxOptions options = {};
  options.dim = 1;
  QxCollection* made = nullptr;
  const std::int32_t status = qx_collection_new(&options, &made);
  fails_atfork = false;
  return made == nullptr ? status : QX_OK;
}();

namespace qx::collection {
namespace {

using namespace std::string_view_literals;

const Progress kSilent(nullptr, nullptr);

// Where `expected` threads meet.
class Meeting {
 public:
  explicit Meeting(int expected) : expected_(expected) {}
  void attend() {
    ++here_;
    while (here_ < expected_) std::this_thread::yield();
  }

 private:
  const int expected_;
  std::atomic<int> here_ = 0;
};

// The workers of `threads` tasks that run at the same time.
std::set<int> workers_at_once(int threads) {
  Meeting meeting(threads);
  std::mutex mutex;
  std::set<int> workers;
  parallel_for(threads, threads, kSilent, [&](std::int64_t, int worker) {
    meeting.attend();
    const std::lock_guard lock(mutex);
    workers.insert(worker);
  });
  return workers;
}
const std::set<int> kThree = {0, 1, 2};

bool sums_up(std::int64_t tasks, int threads) {
  std::atomic<std::int64_t> sum = 0;
  parallel_for(tasks, threads, kSilent, [&](std::int64_t task, int) { sum += task; });
  return sum == tasks * (tasks - 1) / 2;
}

TEST(Pool, DoesEveryTaskOnceAndInOrder) {
  for (const int threads : {1, 2, 3, 6, 20}) {
    for (const std::int64_t tasks : {0, 1, 2, 5, 100, 10000}) {
      std::vector<std::atomic<int>> done(static_cast<std::size_t>(tasks));
      std::vector<std::int64_t> latest(static_cast<std::size_t>(threads), -1);  // of each worker
      std::atomic<int> out_of_order = 0;
      parallel_for(tasks, threads, kSilent, [&](std::int64_t task, int worker) {
        ++done[static_cast<std::size_t>(task)];
        std::int64_t& before = latest[static_cast<std::size_t>(worker)];
        if (before >= task) ++out_of_order;
        before = task;
      });
      EXPECT_TRUE(std::ranges::all_of(done, [](int times) { return times == 1; }));
      EXPECT_EQ(out_of_order, 0);
    }
  }
}

TEST(Pool, RunsTasksAtTheSameTimeUnderDistinctNumbers) {
  EXPECT_EQ(workers_at_once(3), kThree);
  EXPECT_EQ(workers_at_once(6), (std::set<int>{0, 1, 2, 3, 4, 5}));
}

TEST(Pool, UsesNoMoreThreadsThanAllowedAndThereAreCpus) {
  seeming_cpus = 0;
  EXPECT_EQ(cpus(), static_cast<int>(std::thread::hardware_concurrency()));
  for (const int cpu_count : {2, 6}) {
    seeming_cpus = cpu_count;
    EXPECT_EQ(cpus(), cpu_count);
    for (const int threads : {1, 2, 4}) {
      std::atomic<int> running = 0;
      std::atomic<int> most = 0;
      parallel_for(2000, threads, kSilent, [&](std::int64_t, int worker) {
        most = std::max({most.load(), ++running, worker + 1});
        --running;
      });
      EXPECT_LE(most, std::min(threads, cpu_count));
    }
  }
}

TEST(Pool, ThrowsWhatATaskThrew) {
  std::int64_t ran = 0;
  const auto fail_at_5 = [&](std::int64_t task, int) {
    ++ran;
    if (task == 5) refuse("five");
  };
  try {
    parallel_for(100, 1, kSilent, fail_at_5);
    FAIL();
  } catch (const Error& error) {
    EXPECT_EQ(error.status(), QX_INVALID);
    EXPECT_STREQ(error.what(), "five");
  }
  EXPECT_EQ(ran, 6);
}

TEST(Pool, ThrowsWhatAThreadOfItsOwnThrewWhenAllHaveEnded) {
  constexpr int kAll = -1;
  for (const int thrower : {0, 1, 2, kAll}) {
    Meeting meeting(3);
    std::atomic<int> running = 0;
    const auto task = [&](std::int64_t, int worker) {
      ++running;
      meeting.attend();
      for (int i = 0; i < 100; ++i) std::this_thread::yield();
      --running;
      if (worker == thrower || thrower == kAll) throw std::bad_alloc();
    };
    EXPECT_THROW(parallel_for(3, 3, kSilent, task), std::bad_alloc);
    EXPECT_EQ(running, 0);
  }
  EXPECT_TRUE(sums_up(1000, 3));
}

// Notes each report, and cancels after some.
struct Host {
  int cancel_after = -1;
  std::vector<std::int64_t> heard = {};
  std::thread::id thread = std::this_thread::get_id();
  bool elsewhere = false;

  static std::int32_t hear(void* context, std::int64_t done, std::int64_t total) {
    auto& host = *static_cast<Host*>(context);
    host.elsewhere |= std::this_thread::get_id() != host.thread || done < 1 || done > total;
    host.heard.push_back(done);
    return std::ssize(host.heard) == host.cancel_after;
  }
};

TEST(Pool, ReportsAfterEachTaskOfTheCallingThread) {
  Host host;
  parallel_for(4, 1, Progress(Host::hear, &host), [](std::int64_t, int) {});
  EXPECT_EQ(host.heard, (std::vector<std::int64_t>{1, 2, 3, 4}));
  Host many;
  parallel_for(5000, 6, Progress(Host::hear, &many), [](std::int64_t, int) {});
  EXPECT_TRUE(std::ranges::is_sorted(many.heard));
  EXPECT_FALSE(many.elsewhere);
}

TEST(Pool, EndsWhenTheHostCancels) {
  for (const int threads : {1, 6}) {
    Host host{2};
    std::atomic<std::int64_t> ran = 0;
    const auto task = [&](std::int64_t, int) { ++ran; };
    try {
      parallel_for(1'000'000'000, threads, Progress(Host::hear, &host), task);
      FAIL();
    } catch (const Error& error) {
      EXPECT_EQ(error.status(), QX_CANCELLED);
    }
    EXPECT_EQ(host.heard.size(), 2u);
    EXPECT_LE(ran, threads == 1 ? 2 : 999'999'999);
  }
}

TEST(Pool, ServesSeveralCallersAtOnce) {
  seeming_cpus = 3;
  Meeting meeting(4);  // each caller, and a thread that helps it
  std::vector<std::thread> callers;
  callers.reserve(2);
  std::atomic<int> right = 0;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([&] {
      parallel_for(2, 2, kSilent, [&](std::int64_t, int) { meeting.attend(); });
      for (int turn = 0; turn < 300; ++turn) right += sums_up(turn, 1 + turn % 4);
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(right, 600);
  seeming_cpus = 6;
}

TEST(Pool, StartsThreadsThatLeaveTheHostsSignalsAndEnvironmentAlone) {
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  const std::vector<qx_test::FpEnvironment>& environments = qx_test::fp_environments();
  const auto host = std::ranges::find(environments, "rounds down"sv, &qx_test::FpEnvironment::name);
  ASSERT_NE(host, environments.end());
  host->set();
  sigset_t seen;
  bool is_standard = false;
  std::thread started = start_thread([&] {
    is_standard = qx_test::FpEnvironment::current() == environments.front();
    pthread_sigmask(SIG_SETMASK, nullptr, &seen);
  });
  const bool kept = qx_test::FpEnvironment::current() == *host;
  environments.front().set();
  started.join();
  EXPECT_TRUE(is_standard);
  EXPECT_TRUE(kept);
  EXPECT_EQ(sigismember(&seen, SIGTERM), 1);
  EXPECT_EQ(sigismember(&seen, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&seen, SIGSEGV), 0);
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
}

// Runs the body in a child; true if the child ends by itself, with this status.
bool child_ends_with(int status, const std::function<void()>& body) {
  const qx_test::ChildEnd end = qx_test::run_in_child(body);
  if (end.exit_status != status) std::fputs(end.standard_error.c_str(), stderr);
  return end.exit_status == status;
}

TEST(Pool, DoesTheWorkWithThoseThreadsThatCanBeStarted) {
  EXPECT_TRUE(child_ends_with(7, [] {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 46);
    pthread_setattr_default_np(&attributes);  // no thread gets such a stack
    std::set<int> workers;
    parallel_for(50, 6, kSilent, [&](std::int64_t, int worker) { workers.insert(worker); });
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 20);
    pthread_setattr_default_np(&attributes);
    if (workers == std::set<int>{0} && workers_at_once(3) == kThree) std::exit(7);
  }));
}

TEST(Pool, LetsTheProcessExit) {
  EXPECT_TRUE(child_ends_with(7, [] {
    if (workers_at_once(6).size() == 6) std::exit(7);
  }));
  EXPECT_TRUE(child_ends_with(7, [] {
    Meeting meeting(2);
    parallel_for(2, 2, kSilent, [&](std::int64_t, int worker) {
      meeting.attend();
      if (worker != 0) std::exit(7);
      while (true) std::this_thread::yield();
    });
  }));
}

TEST(Fork, IsPreparedForOrThereIsNoCollection) { EXPECT_EQ(kFirstStatus, QX_OUT_OF_MEMORY); }

TEST(Fork, GivesTheChildThreadsOfItsOwn) {
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(workers_at_once(3), kThree);
    EXPECT_TRUE(child_ends_with(7, [] {
      const bool again = child_ends_with(8, [] {
        if (workers_at_once(3) == kThree) _exit(8);
      });
      if (again && workers_at_once(3) == kThree && sums_up(1000, 6)) _exit(7);
    }));
  }
}

TEST(Fork, WaitsForWhatAThreadDoesUnderAMutexOfAGuard) {
  std::mutex mutex;
  const ForkGuard guard(mutex, [] {});
  std::atomic<bool> is_half_done = false;
  std::atomic<bool> is_over = false;
  std::thread writer([&] {
    while (!is_over) {
      {
        const std::lock_guard lock(mutex);
        is_half_done = true;
        for (int i = 0; i < 100; ++i) std::this_thread::yield();
        is_half_done = false;
      }
      std::this_thread::yield();
    }
  });
  for (int i = 0; i < 20; ++i) {
    while (!is_half_done) std::this_thread::yield();
    EXPECT_TRUE(child_ends_with(7, [&] {
      if (!is_half_done) _exit(7);
    }));
  }
  is_over = true;
  writer.join();
}

// A thread of the library that works, and waits, under a mutex that forks know.
class Background {
 public:
  Background() { begin(); }
  Background(const Background&) = delete;
  ~Background() { end(); }

  // Lets the thread go one round.
  void poke() {
    const std::lock_guard lock(mutex_);
    ++pokes_;
    poked_.notify_one();
  }
  void begin() {
    thread_ = start_thread([this] { run(); });
  }
  void end() {
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
      poked_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
    ended_ = false;
  }
  int forks() const { return forks_; }
  std::int64_t rounds() {
    const std::lock_guard lock(mutex_);
    return rounds_;
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    while (!ended_) {
      poked_.wait(lock, [&] { return pokes_ > 0 || ended_; });
      pokes_ = std::max(0, pokes_ - 1);
      parallel_for(4, 3, kSilent, [](std::int64_t, int) {});  // under the mutex
      ++rounds_;
      lock.unlock();
      parallel_for(20, 3, kSilent, [](std::int64_t, int) {});
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable poked_;
  int pokes_ = 0;
  std::int64_t rounds_ = 0;
  bool ended_ = false;
  int forks_ = 0;
  std::thread thread_;
  ForkGuard guard_{mutex_, [this] {
                     renew(poked_);
                     renew(thread_);
                     pokes_ = 0;
                     ++forks_;
                   }};
};

TEST(Fork, MayHappenWhileThreadsOfTheLibraryWorkAndWait) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "g++'s thread sanitizer ends a child that starts threads after abandoning one";
#elif defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "g++'s address sanitizer forks with its allocator's locks held by other threads";
#endif
  std::vector<std::unique_ptr<Background>> busy;
  busy.reserve(2);
  for (int i = 0; i < 2; ++i) busy.push_back(std::make_unique<Background>());
  for (int i = 0; i < 60; ++i) {
    for (const auto& one : busy) one->poke();
    EXPECT_TRUE(child_ends_with(7, [&] {
      bool right = workers_at_once(3) == kThree;
      for (const auto& one : busy) {
        right &= one->forks() == 1;
        const std::int64_t before = one->rounds();
        one->begin();
        one->poke();
        while (one->rounds() == before) std::this_thread::yield();
        one->end();
      }
      busy.clear();
      if (right) _exit(7);
    }));
    EXPECT_EQ(busy[0]->forks(), 0);
  }
}

}  // namespace
}  // namespace qx::collection
