// How much of the calling thread's stack the reads use: no more than the header says.
#include <pthread.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <numeric>
#include <vector>

#include "gtest/gtest.h"
#include "qx_runtime.h"
#include "read/row_bitmap.h"

// Sanitizers give frames a size of their own.
#if defined(__SANITIZE_ADDRESS__)
#define QX_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define QX_SANITIZED 1
#endif
#endif

namespace {

constexpr std::size_t kKiB = 1024;

// Runs a call on a stack of its own, which was painted before, and returns how much lost its paint.
std::size_t painted_over_by(std::function<void()> call) {
  constexpr unsigned char kPaint = 0xA5;
  constexpr std::size_t kStackBytes = 1024 * kKiB;
  alignas(4096) static unsigned char stack[kStackBytes];
  std::memset(stack, kPaint, kStackBytes);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  EXPECT_EQ(pthread_attr_setstack(&attributes, stack, kStackBytes), 0);
  pthread_t thread;
  const auto run = [](void* work) -> void* {
    (*static_cast<std::function<void()>*>(work))();
    return nullptr;
  };
  EXPECT_EQ(pthread_create(&thread, &attributes, run, &call), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  std::size_t untouched = 0;
  while (untouched < kStackBytes && stack[untouched] == kPaint) ++untouched;
  return kStackBytes - untouched;
}

// How much of it the call took: what a thread needs for itself is on the same stack.
std::size_t stack_of(const std::function<void()>& call) {
  static const std::size_t of_a_thread = painted_over_by([] {});
  return painted_over_by(call) - of_a_thread;
}

// An index large enough that walks mark rows and scans estimate.
class Stack : public testing::Test {
 protected:
  static constexpr std::int32_t kRows = 20000;
  static constexpr std::int32_t kDim = 16;

  void SetUp() override {
#if defined(QX_SANITIZED)
    GTEST_SKIP() << "sanitizers give frames a size of their own";
#endif
    std::iota(ids_.begin(), ids_.end(), 0);
    ids_[5] = 6;
    for (std::size_t i = 0; i < vectors_.size(); ++i) {
      vectors_[i] = static_cast<float>(i * 7919 % 2001) / 100.0f;
    }
    for (std::size_t i = 0; i < labels_.size(); ++i) labels_[i] = static_cast<std::int64_t>(i % 50);
    const std::int32_t offsets[] = {0, kRows / 2, kRows};
    ASSERT_EQ(qx_index_build(index_, vectors_.data(), kRows, kDim, ids_.data(), nullptr, nullptr,
                             nullptr, 0),
              0);
    qx_index_insert(index_, vectors_.data(), ids_.data(), 200);
    qx_index_delete(index_, ids_.data() + 5000, 200);
    qx_index_set_rowmeta(index_, ids_.data(), labels_.data(), nullptr, 0, kRows);
    qx_index_set_ivf(index_, 1, 2, 2, vectors_.data(), ids_.data(), offsets, kRows);
  }
  void TearDown() override { qx_index_free(index_); }

 public:  // for the functions of threads
  QxIndex* index_ = qx_index_new(kDim, 0);
  std::vector<float> vectors_ = std::vector<float>(std::size_t{kRows} * kDim);
  std::vector<std::int64_t> ids_ = std::vector<std::int64_t>(kRows);
  std::vector<std::int64_t> labels_ = std::vector<std::int64_t>(kRows);
  std::vector<float> out_vectors_ = std::vector<float>(2 * std::size_t{kRows} * kDim);
  std::vector<std::int64_t> out_ids_ = std::vector<std::int64_t>(2 * std::size_t{kRows});
  std::vector<float> out_scores_ = std::vector<float>(2 * std::size_t{kRows});
};

TEST_F(Stack, OfWalks) {
  std::int64_t* const ids = out_ids_.data();
  float* const scores = out_scores_.data();
  const std::function<void()> calls[] = {
      [&] { qx_index_visible_count(index_); },
      [&] { qx_index_visible_ids(index_, ids); },
      [&] { qx_index_export_visible(index_, out_vectors_.data(), ids); },
      [&] { qx_index_match_ids(index_, 1, 0, 7, ids); },
      [&] { qx_index_match_ids(index_, 1, 0, -1, ids); },
      [&] { qx_index_search_filtered(index_, 0, 0, 0, vectors_.data(), 10, ids, scores); },
      [&] { qx_index_search_filtered(index_, 1, 0, 7, vectors_.data(), 1000, ids, scores); },
      [&] { qx_index_search_filtered(index_, 1, 0, -1, vectors_.data(), 5000, ids, scores); }};
  for (const auto& call : calls) {
    const std::size_t used = stack_of(call);
    EXPECT_GT(used,
              qx::RowBitmap::kMaxRows / 8);  // the bits of the rows: the measurement sees them
    EXPECT_LE(used, 96 * kKiB);
  }
}

// Threads of the smallest stacks that hosts give them: every call fits, with room for the host.
TEST_F(Stack, OfAnyCallLeavesAThreadOf128KiBToItsHost) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 * kKiB), 0);
  const auto search = [](void* test) -> void* {
    auto* const self = static_cast<Stack*>(test);
    qx_index_search_filtered(self->index_, 1, 0, -1, self->vectors_.data(), 5000,
                             self->out_ids_.data(), self->out_scores_.data());
    return qx_index_visible_count(self->index_) > 0 ? test : nullptr;
  };
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, search, this), 0);
  void* result = nullptr;
  pthread_join(thread, &result);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(result, this);
}

TEST_F(Stack, OfOtherSearches) {
  std::int64_t* const ids = out_ids_.data();
  float* const scores = out_scores_.data();
  const float* const query = vectors_.data();
  for (const std::int32_t k : {1, 10, 48, 100, 5000}) {
    const std::function<void()> calls[] = {
        [&] { qx_index_search_full(index_, query, k, ids, scores); },
        [&] { qx_index_scatter_topk(index_, ids_.data(), kRows, query, k, ids, scores); },
        [&] {
          qx_index_search_mvcc(index_, ids_.data(), kRows, query, static_cast<std::uint32_t>(k),
                               ids, scores);
        },
        [&] { qx_index_search_ivf(index_, 1, query, k, ids, scores); }};
    for (const auto& call : calls) {
      const std::size_t used = stack_of(call);
      EXPECT_GT(used, 16 * kKiB);
      EXPECT_LE(used, 48 * kKiB);
    }
  }
}

}  // namespace
