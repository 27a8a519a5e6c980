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

// A thread that reads on, and can be stopped wherever it is.
class Reader {
 public:
  explicit Reader(const Published<Living>& published)
      : thread_([this, &published] {
          here = this;
          for (is_running_ = true; !is_over_;) published.get();
        }) {
    wait_for(is_running_, true);
  }
  Reader(const Reader&) = delete;
  ~Reader() {
    is_over_ = true;
    thread_.join();
  }
  void stop() {
    may_go_on_ = false;
    pthread_kill(thread_.native_handle(), SIGUSR1);
    wait_for(is_stopped_, true);
  }
  void go_on() {
    may_go_on_ = true;
    wait_for(is_stopped_, false);
  }
  static void handle(int) {
    here->is_stopped_ = true;
    wait_for(here->may_go_on_, true);
    here->is_stopped_ = false;
  }

 private:
  static void wait_for(const std::atomic<bool>& flag, bool value) {
    while (flag != value) std::this_thread::yield();
  }

  static inline thread_local Reader* here = nullptr;
  std::atomic<bool> is_running_ = false, is_over_ = false, is_stopped_ = false, may_go_on_ = false;
  std::thread thread_;
};

// One change, by a thread of its own.
class Writer {
 public:
  Writer(Published<Living>& published, std::int64_t number)
      : thread_([this, &published, next = boxed(number)]() mutable {
          has_begun_ = true;
          published.set(std::move(next));
          is_set_ = true;
        }) {
    while (!has_begun_) std::this_thread::yield();
  }  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the thread has its state
  Writer(const Writer&) = delete;
  ~Writer() { thread_.join(); }
  bool waits(int milliseconds) const {
    for (int polls = 0; polls < milliseconds && !is_set_; ++polls) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return !is_set_;
  }

 private:
  std::atomic<bool> has_begun_ = false, is_set_ = false;
  std::thread thread_;
};

// A writer that returns has met no reader; one that does not, waits for it.
class PublishedToStopped : public testing::Test {
 protected:
  void SetUp() override {
#if defined(QX_SANITIZED)
    GTEST_SKIP() << "a sanitizer may hold signals back";
#endif
    before_ = std::signal(SIGUSR1, Reader::handle);
  }
  void TearDown() override { std::signal(SIGUSR1, before_); }

 private:
  void (*before_)(int) = SIG_DFL;
};

TEST_F(PublishedToStopped, WaitsForAReaderThatIsStoppedWhileItReads) {
  Published<Living> published(living(0));
  Reader reader(published);
  bool is_met = false;
  for (std::int64_t i = 1; i < 10000 && !is_met; ++i) {
    reader.stop();
    const Writer writer(published, i);
    is_met = writer.waits(30);
    EXPECT_TRUE(!is_met || Living::count == 2);
    reader.go_on();
  }
  EXPECT_TRUE(is_met);
}

// While a writer waits for the first reader, the second comes in by the other counter.
TEST_F(PublishedToStopped, WaitsForTheReadersOfBothCounters) {
  Published<Living> published(living(0));
  Reader first(published), second(published);
  bool is_met = false;
  for (std::int64_t i = 1; i < 100 && !is_met; ++i) {
    first.stop();
    const Writer writer(published, i);
    if (writer.waits(30)) {
      second.stop();
      first.go_on();
      is_met = writer.waits(400);  // a writer that does not wait may get no CPU for long
      EXPECT_TRUE(!is_met || Living::count == 2);
      second.go_on();
    }
    first.go_on();
  }
  EXPECT_TRUE(is_met);
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
  threads.reserve(kReaders + kWriters);
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
