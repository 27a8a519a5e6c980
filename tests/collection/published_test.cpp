// Readers that never wait, beside writers that replace what they read: nobody sees an object that
// is gone, and no object stays.
#include "threads/published.h"

#include <gtest/gtest.h>

#include <array>
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
