// What the engine asks of the heap: which calls allocate, what it gives back, and how every failed
// allocation ends the process.
#include <unistd.h>

#include <functional>
#include <utility>

#include "allocation/scenario.h"
#include "store/codes.h"
#include "support/cases.h"
#include "support/heap.h"

namespace qx_test {
namespace {

constexpr std::int32_t kCodedRows = 600;
constexpr std::int32_t kCodedDim = 64;

// An index for a scenario, without a use of the recorded heap by the host.
class Heap : public testing::Test {
 protected:
  Scenario scenario_;
  const Index index_{static_cast<std::uint32_t>(scenario_.dim)};
};

TEST_F(Heap, FreeReturnsTheProcessToWhereItWas) {
  const HeapLog log = record_heap([&] { scenario_.play(); });
  EXPECT_GT(log.allocations, 40);
  EXPECT_EQ(log.still_held.size(), 0u);
}

TEST_F(Heap, CallsThatStoreNothingAllocateAndReleaseNothing) {
  const float* const vectors = scenario_.vectors.data();
  const std::int64_t bad_ids[] = {3, -1};
  const std::int64_t large_ids[] = {3, QX_MAX_BASE_ID + 1};
  const std::int64_t* const ids = scenario_.ids.data();
  const std::int64_t* const keys = scenario_.part_keys.data();
  const std::int32_t* const starts = scenario_.part_starts.data();
  std::int32_t built = -1;
  const HeapLog log = record_heap([&] {
    qx_index_free(nullptr);
    qx_index_build(index_, vectors, 2, 2, bad_ids, keys, starts, starts, 1);
    qx_index_build(index_, vectors, 2, 2, large_ids, keys, starts, starts, 1);
    qx_index_build(index_, vectors, 2, -1, ids, keys, starts, starts, 1);
    qx_index_build(index_, vectors, 2, 2, ids, keys, starts, starts, -1);
    qx_index_insert(index_, vectors, ids, 0);
    qx_index_delete(index_, ids, -1);
    qx_index_set_rowmeta(index_, ids, nullptr, nullptr, 0, 0);
    qx_index_clear_ivf(index_);
    built = qx_index_build(index_, nullptr, 0, 5, nullptr, nullptr, nullptr, nullptr, 0);
  });
  EXPECT_EQ(built, 0);
  EXPECT_EQ(log.allocations, 0);
  EXPECT_EQ(log.releases.size(), 0u);
}

TEST_F(Heap, ReadsAllocateNothingButAnIvfSearchOneArrayThatItReleases) {
  for (const std::int64_t arrays : {0, 1}) {
    const auto read = [&] { scenario_.read_without_ivf(index_, 5, [](std::int64_t) {}); };
    EXPECT_EQ(record_heap(read).allocations, 0);
    const HeapLog log = record_heap([&] { scenario_.search_ivf(index_, 5); });
    EXPECT_EQ(log.allocations, arrays);
    EXPECT_EQ(log.still_held.size(), 0u);
    if (arrays == 0) scenario_.write(index_);
  }
}

Floats coded_vectors() {
  Floats vectors(static_cast<std::size_t>(kCodedRows * kCodedDim));
  for (std::size_t i = 0; i < vectors.size(); ++i) {
    vectors[i] = static_cast<float>(i * 7919 % 2001) - 1000.0f;
  }
  return vectors;
}

// Codes are the last that a build, or an insert, asks for. Without memory for them there are none,
// and every result is the same.
TEST_F(Heap, GivesNoMemoryForCodesAndNothingElseIsLost) {
  if (!qx::is_worth_coding(kCodedRows, kCodedDim)) GTEST_SKIP() << "built without codes";
  const Ids ids = ids_from(0, kCodedRows);
  const Floats vectors = coded_vectors();
  const auto build = [&](QxIndex* index) {
    qx_index_build(index, vectors.data(), kCodedRows, kCodedDim, ids.data(), nullptr, nullptr,
                   nullptr, 0);
  };
  const auto insert = [&](QxIndex* index) {
    qx_index_insert(index, vectors.data(), ids.data(), kCodedRows);
  };
  const auto best = [&](QxIndex* index) {
    Ids found(10);
    Floats scores(10);
    qx_index_search_filtered(index, QX_FILTER_ALL, 0, 0, vectors.data(), 10, found.data(),
                             scores.data());
    return std::pair(found, scores);
  };
  for (const std::function<void(QxIndex*)>& call :
       {std::function<void(QxIndex*)>(build), std::function<void(QxIndex*)>(insert)}) {
    const Index whole(kCodedDim);
    const Index without(kCodedDim);
    const HeapLog log = record_heap([&] { call(whole); });
    with_failing_allocation(log.allocations, false, [&] { call(without); });
    EXPECT_TRUE(without->base_codes.block == nullptr && without->delta_codes.block == nullptr);
    EXPECT_TRUE(whole->base_codes.block != nullptr || whole->delta_codes.block != nullptr);
    EXPECT_EQ(best(without), best(whole));
  }
}

// Members of a structure ask for their codes, then for their rows, last of all.
TEST_F(Heap, GivesNoMemoryForMembersAndNothingElseIsLost) {
  if (!qx::is_worth_coding(kCodedRows, kCodedDim)) GTEST_SKIP() << "built without codes";
  const Ids ids = ids_from(0, kCodedRows);
  const Ids members(ids.rbegin(), ids.rend());
  const Ints offsets{0, kCodedRows};
  const Floats vectors = coded_vectors();
  const auto attach = [&](QxIndex* index) {
    qx_index_set_ivf(index, 1, 1, 1, vectors.data(), members.data(), offsets.data(), kCodedRows);
  };
  const auto best = [&](QxIndex* index) {
    Ids found(10);
    Floats scores(10);
    qx_index_search_ivf(index, 1, vectors.data(), 10, found.data(), scores.data());
    return std::pair(found, scores);
  };
  const Index whole(kCodedDim);
  seal(whole, kCodedDim, ids, vectors);
  const HeapLog log = record_heap([&] { attach(whole); });
  EXPECT_NE(whole->ivf_members.at(0).rows, nullptr);
  for (const std::int64_t failing : {log.allocations - 1, log.allocations}) {
    const Index without(kCodedDim);
    seal(without, kCodedDim, ids, vectors);
    with_failing_allocation(failing, false, [&] { attach(without); });
    const QxMembers& made = without->ivf_members.at(0);
    EXPECT_TRUE(made.codes.block == nullptr && made.rows == nullptr);
    EXPECT_EQ(best(without), best(whole));
  }
}

// How the process ends where an allocation of the whole life of an index fails.
ChildEnd end_by_failure(std::int64_t number, bool from_then_on, bool standard_error_closed) {
  Scenario scenario;
  return run_in_child([&] {
    alarm(60);  // which would end a hang, and not by a trap
    if (standard_error_closed) close(STDERR_FILENO);
    with_failing_allocation(number, from_then_on, [&] { scenario.play(); });
  });
}

TEST(FailedAllocation, EndsTheProcessWithItsLineWhereverItHappens) {
  Scenario scenario;
  const std::int64_t allocations = record_heap([&] { scenario.play(); }).allocations;
  for (std::int64_t number = 1; number <= allocations; ++number) {
    for (const bool from_then_on : {false, true}) {
      const ChildEnd end = end_by_failure(number, from_then_on, false);
      EXPECT_TRUE(end.trapped) << "allocation " << number << ", exit status " << end.exit_status;
      EXPECT_TRUE(is_allocation_line(end.standard_error)) << end.standard_error;
      const ChildEnd silent = end_by_failure(number, from_then_on, true);
      EXPECT_TRUE(silent.trapped) << "allocation " << number << ", " << silent.exit_status;
      EXPECT_EQ(silent.standard_error, "");
    }
  }
  const ChildEnd after_the_last = end_by_failure(allocations + 1, true, false);
  EXPECT_EQ(after_the_last.exit_status, 0);
  EXPECT_EQ(after_the_last.standard_error, "");
}

TEST(FailedAllocation, OfASizeThatNoAddressSpaceHolds) {
  const ChildEnd end = run_in_child([] {
    // dim -2^31 and nlist -2^31 have a product of 2^62 floats; nothing of it is read.
    const float centroid = 0.0f;
    qx_index_set_ivf(Index(0x80000000u), 1, kLowest, 1, &centroid, nullptr, nullptr, 0);
  });
  EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
  EXPECT_TRUE(is_allocation_line(end.standard_error)) << end.standard_error;
}

}  // namespace
}  // namespace qx_test
