// What the engine asks of the heap: what it owns, what it gives back, which calls allocate, and how
// every failed allocation ends the process.
#include <gtest/gtest.h>
#include <unistd.h>

#include "allocation/scenario.h"
#include "qx_runtime.h"
#include "support/child.h"
#include "support/heap.h"

namespace {

using qx_test::ChildEnd;
using qx_test::HeapLog;
using qx_test::record_heap;
using qx_test::run_in_child;
using qx_test::Scenario;

TEST(Heap, ANewIndexOwnsOneBlock) {
  QxIndex* index = nullptr;
  const HeapLog made = record_heap([&] { index = qx_index_new(100, 0); });
  const std::vector<const void*> the_record = {index};
  EXPECT_EQ(made.still_held, the_record);
  EXPECT_EQ(record_heap([&] { qx_index_free(index); }).releases, the_record);
}

TEST(Heap, FreeReturnsTheProcessToWhereItWas) {
  Scenario scenario;
  const HeapLog log = record_heap([&] { scenario.play(); });
  EXPECT_GT(log.allocations, 40);
  EXPECT_EQ(log.still_held.size(), 0u);
}

TEST(Heap, ABuildOfNothingSucceedsWithoutABlock) {
  QxIndex* const index = qx_index_new(Scenario::kDim, 0);
  std::int32_t result = -1;
  const HeapLog log = record_heap([&] {
    result = qx_index_build(index, nullptr, 0, 5, nullptr, nullptr, nullptr, nullptr, 0);
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(log.allocations, 0);
  EXPECT_EQ(qx_index_sealed(index), 1u);
  qx_index_free(index);
}

TEST(Heap, ClearingIvfGivesItsBlocksBack) {
  Scenario scenario;
  QxIndex* const index = qx_index_new(Scenario::kDim, 0);
  const HeapLog log = record_heap([&] {
    for (std::int64_t key = 0; key < 10; ++key) {
      qx_index_set_ivf(index, key % 6, 2, 2, scenario.vectors.data(), scenario.ids.data(),
                       scenario.list_offsets.data(), Scenario::kRows);
    }
    qx_index_clear_ivf(index);
  });
  EXPECT_EQ(log.still_held.size(), 0u);
  qx_index_free(index);
}

TEST(Heap, ReadsAllocateNothing) {
  Scenario scenario;
  QxIndex* const index = qx_index_new(Scenario::kDim, 0);
  EXPECT_EQ(record_heap([&] { scenario.read_without_ivf(index); }).allocations, 0);
  scenario.write(index);
  EXPECT_EQ(record_heap([&] { scenario.read_without_ivf(index); }).allocations, 0);
  qx_index_free(index);
}

TEST(Heap, AnIvfSearchAllocatesOneArrayAndReleasesIt) {
  Scenario scenario;
  QxIndex* const index = qx_index_new(Scenario::kDim, 0);
  EXPECT_EQ(record_heap([&] { scenario.search_ivf(index); }).allocations, 0);
  scenario.write(index);
  const HeapLog log = record_heap([&] { scenario.search_ivf(index); });
  EXPECT_EQ(log.allocations, 1);
  EXPECT_EQ(log.still_held.size(), 0u);
  qx_index_free(index);
}

TEST(Heap, MutationsThatCarryNoRowAllocateNothing) {
  Scenario scenario;
  QxIndex* const index = qx_index_new(Scenario::kDim, 0);
  const HeapLog log = record_heap([&] {
    qx_index_insert(index, scenario.vectors.data(), scenario.ids.data(), 0);
    qx_index_delete(index, scenario.ids.data(), -1);
    qx_index_set_rowmeta(index, scenario.ids.data(), nullptr, nullptr, 0, 0);
  });
  EXPECT_EQ(log.allocations, 0);
  qx_index_free(index);
}

void expect_allocation_end(const ChildEnd& end, std::int64_t number) {
  EXPECT_TRUE(end.trapped) << "allocation " << number;
  EXPECT_TRUE(qx_test::is_allocation_line(end.standard_error)) << end.standard_error;
}

TEST(FailedAllocation, EndsTheProcessWithItsLineWhereverItHappens) {
  Scenario scenario;
  const std::int64_t allocations = record_heap([&] { scenario.play(); }).allocations;
  for (std::int64_t number = 1; number <= allocations; ++number) {
    for (const bool from_then_on : {false, true}) {
      expect_allocation_end(run_in_child([&] {
                              qx_test::with_failing_allocation(number, from_then_on,
                                                               [&] { scenario.play(); });
                            }),
                            number);
    }
  }
}

TEST(FailedAllocation, NoMoreThanTheWholeLifeAllocates) {
  Scenario scenario;
  const std::int64_t allocations = record_heap([&] { scenario.play(); }).allocations;
  const ChildEnd end = run_in_child(
      [&] { qx_test::with_failing_allocation(allocations + 1, true, [&] { scenario.play(); }); });
  EXPECT_EQ(end.exit_status, 0);
  EXPECT_EQ(end.standard_error, "");
}

TEST(FailedAllocation, TrapsAlsoWhenStandardErrorIsClosed) {
  Scenario scenario;
  const std::int64_t allocations = record_heap([&] { scenario.play(); }).allocations;
  for (std::int64_t number = 1; number <= allocations; ++number) {
    for (const bool from_then_on : {false, true}) {
      const ChildEnd end = run_in_child([&] {
        alarm(60);  // which would end a hang, and not by a trap
        close(STDERR_FILENO);
        qx_test::with_failing_allocation(number, from_then_on, [&] { scenario.play(); });
      });
      EXPECT_TRUE(end.trapped) << "allocation " << number << ", exit status " << end.exit_status;
      EXPECT_EQ(end.standard_error, "");
    }
  }
}

TEST(FailedAllocation, OfASizeThatNoAddressSpaceHolds) {
  const ChildEnd end = run_in_child([] {
    // dim -2^31 and nlist -2^31 have a product of 2^62 floats; nothing of it is read.
    QxIndex* const index = qx_index_new(0x80000000u, 0);
    const float centroid = 0.0f;
    qx_index_set_ivf(index, 1, INT32_MIN, 1, &centroid, nullptr, nullptr, 0);
  });
  expect_allocation_end(end, 2);
}

}  // namespace
