// Readers that never wait, beside writers that replace what they read: nobody sees an object that
// is gone, and no object stays.
#include "threads/published.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <csignal>
#include <mutex>
#include <vector>

namespace qx::collection {
namespace {

// Numbers that are equal while the object lives. Counts those that live.
class Living {
 public:
  explicit Living(std::int64_t number) {
    numbers_.fill(number);
    ++count;
  }
  Living(const Living&) = delete;
  ~Living() {
    numbers_ = {-1, -2};
    --count;
  }
  // The number, or -1.
  std::int64_t number() const {
    for (const std::int64_t other : numbers_) {
      if (other != numbers_[0]) return -1;
    }
    return numbers_[0];
  }

  static inline std::atomic<std::int64_t> count = 0;

 private:
  std::array<std::int64_t, 8> numbers_;
};

std::shared_ptr<const Living> living(std::int64_t number) {
  return std::make_shared<const Living>(number);
}
auto boxed(std::int64_t number) {
  return std::make_unique<std::shared_ptr<const Living>>(living(number));
}

TEST(Published, GivesWhatWasSetLast) {
  Published<Living> published(living(1));
  const std::shared_ptr<const Living> first = published.get();
  published.set(boxed(2));
  EXPECT_EQ(first->number(), 1);
  EXPECT_EQ(published.get()->number(), 2);
  EXPECT_EQ(Living::count, 2);
}

TEST(Published, KeepsNothingThatNobodyHolds) {
  {
    Published<Living> published(living(0));
    for (int i = 1; i < 100; ++i) {
      published.set(boxed(i));
      EXPECT_EQ(Living::count, 1);
    }
  }
  EXPECT_EQ(Living::count, 0);
}

// Stops a thread, wherever it is, until it may go on.
std::atomic<bool> is_stopped = false;
std::atomic<bool> may_go_on = false;
void stop(int) {
  is_stopped = true;
  while (!may_go_on) std::this_thread::yield();
  is_stopped = false;
}

// A writer that returns has met no reader; one that does not, waits for it.
TEST(Published, WaitsForAReaderThatIsStoppedWhileItReads) {
#if defined(QX_SANITIZED)
  GTEST_SKIP() << "a sanitizer may hold signals back";
#endif
  const auto before = std::signal(SIGUSR1, stop);
  Published<Living> published(living(0));
  std::atomic<bool> is_over = false;
  std::thread reader([&] {
    while (!is_over) published.get();
  });
  bool is_met = false;
  for (std::int64_t i = 1; i < 10000 && !is_met; ++i) {
    may_go_on = false;
    pthread_kill(reader.native_handle(), SIGUSR1);
    while (!is_stopped) std::this_thread::yield();
    auto next = boxed(i);
    std::atomic<bool> has_begun = false, is_set = false;
    std::thread writer([&] {
      has_begun = true;
      published.set(std::move(next));
      is_set = true;
    });
    while (!has_begun) std::this_thread::yield();
    for (int waits = 0; waits < 30 && !is_set; ++waits) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    is_met = !is_set;
    EXPECT_TRUE(!is_met || Living::count == 2);
    may_go_on = true;
    writer.join();
    while (is_stopped) std::this_thread::yield();
  }
  is_over = true;
  reader.join();
  std::signal(SIGUSR1, before);
  EXPECT_TRUE(is_met);
  EXPECT_EQ(Living::count, 1);
}

TEST(Published, IsReadByManyWhileItIsReplaced) {
  constexpr int kReaders = 4;
  constexpr int kWriters = 2;
  constexpr std::int64_t kSets = 5000;
  Published<Living> published(living(0));
  std::mutex writing;
  std::int64_t last = 0;  // under `writing`
  std::atomic<std::int64_t> wrong = 0;
  std::atomic<int> writers = kWriters;
  std::vector<std::thread> threads;
  for (int i = 0; i < kReaders; ++i) {
    threads.emplace_back([&] {
      std::shared_ptr<const Living> held = published.get();
      for (std::int64_t reads = 0; writers > 0; ++reads) {
        const std::shared_ptr<const Living> now = published.get();
        if (now->number() < held->number() || held->number() < 0) ++wrong;
        if (reads % 7 == 0) held = now;
      }
    });
  }
  for (int i = 0; i < kWriters; ++i) {
    threads.emplace_back([&] {
      for (std::int64_t set = 0; set < kSets; ++set) {
        const std::lock_guard lock(writing);
        published.set(boxed(++last));
        if (published.get()->number() != last) ++wrong;
      }
      --writers;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(published.get()->number(), kWriters * kSets);
  EXPECT_EQ(Living::count, 1);
}

}  // namespace
}  // namespace qx::collection
