// How much of the calling thread's stack the reads use: no more than the header says.
#include <pthread.h>

#include <cstring>
#include <functional>

#include "read/row_bitmap.h"
#include "support/cases.h"

namespace qx_test {
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
#if defined(QX_TEST_ADDRESS_SANITIZER)
    GTEST_SKIP() << "sanitizers give frames a size of their own";
#endif
    ids_[5] = 6;
    for (std::size_t i = 0; i < vectors_.size(); ++i) {
      vectors_[i] = static_cast<float>(i * 7919 % 2001) / 100.0f;
    }
    for (std::int64_t& label : labels_) label %= 50;
    const std::int32_t offsets[] = {0, kRows / 2, kRows};
    seal(index_, kDim, ids_, vectors_);
    qx_index_insert(index_, vectors_.data(), ids_.data(), 200);
    qx_index_delete(index_, ids_.data() + 5000, 200);
    qx_index_set_rowmeta(index_, ids_.data(), labels_.data(), nullptr, 0, kRows);
    qx_index_set_ivf(index_, 1, 2, 2, vectors_.data(), ids_.data(), offsets, kRows);
  }

  const Index index_{kDim};
  Floats vectors_ = Floats(std::size_t{kRows} * kDim);
  Ids ids_ = ids_from(0, kRows);
  Ids labels_ = ids_from(0, kRows);
  Floats out_vectors_ = Floats(2 * std::size_t{kRows} * kDim);
  Ids out_ids_ = Ids(2 * std::size_t{kRows});
  Floats out_scores_ = Floats(2 * std::size_t{kRows});
};

void expect_stack(const std::function<void()>& call, std::size_t least, std::size_t most) {
  const std::size_t used = stack_of(call);
  EXPECT_GT(used, least);  // the measurement sees what the call has there
  EXPECT_LE(used, most);
}

TEST_F(Stack, OfWalks) {
  std::int64_t* const ids = out_ids_.data();
  float* const scores = out_scores_.data();
  const float* const query = vectors_.data();
  const std::function<void()> calls[] = {
      [&] { qx_index_visible_count(index_); },
      [&] { qx_index_visible_ids(index_, ids); },
      [&] { qx_index_export_visible(index_, out_vectors_.data(), ids); },
      [&] { qx_index_match_ids(index_, 1, 0, 7, ids); },
      [&] { qx_index_match_ids(index_, 1, 0, -1, ids); },
      [&] { qx_index_search_filtered(index_, 0, 0, 0, query, 10, ids, scores); },
      [&] { qx_index_search_filtered(index_, 1, 0, 7, query, 1000, ids, scores); },
      [&] { qx_index_search_filtered(index_, 1, 0, -1, query, 5000, ids, scores); }};
  for (const auto& call : calls) expect_stack(call, qx::RowBitmap::kMaxRows / 8, 128 * kKiB);
}

TEST_F(Stack, OfOtherSearches) {
  std::int64_t* const ids = out_ids_.data();
  float* const scores = out_scores_.data();
  const float* const query = vectors_.data();
  for (const std::int32_t k : {1, 10, 48, 100, 5000}) {
    const auto unsigned_k = static_cast<std::uint32_t>(k);
    const std::function<void()> calls[] = {
        [&] { qx_index_search_full(index_, query, k, ids, scores); },
        [&] { qx_index_scatter_topk(index_, ids_.data(), kRows, query, k, ids, scores); },
        [&] { qx_index_search_mvcc(index_, ids_.data(), kRows, query, unsigned_k, ids, scores); },
        [&] { qx_index_search_ivf(index_, 1, query, k, ids, scores); }};
    for (const auto& call : calls) expect_stack(call, 16 * kKiB, 64 * kKiB);
  }
}

}  // namespace
}  // namespace qx_test
