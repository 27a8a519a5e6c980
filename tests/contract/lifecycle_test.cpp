// The lifecycle of a handle: what a new index reports, what its numbers mean, and its release.
#include "support/cases.h"

namespace qx_test {
namespace {

TEST(Lifecycle, ANewIndexReportsItsNumbersAndNothingElse) {
  for (const std::uint32_t number : {0u, 1u, 42u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    const Index index(number, number + 1);
    EXPECT_EQ(stats(index), (Stats{0, number, number + 1, 0}));
    EXPECT_EQ(qx_index_sealed(index), 0u);
    EXPECT_EQ(qx_index_mutated(index), 0u);
    EXPECT_EQ(qx_index_snapshot(index), 0u);
    EXPECT_EQ(qx_index_delta_count(index), 0);
  }
  EXPECT_EQ(qx_runtime_format_version(), QX_RUNTIME_FORMAT_VERSION);
}

TEST(Lifecycle, AnIndexOfAnyDimensionIsEmptyToEveryRead) {
  for (const std::uint32_t dim : kUnsignedNoCounts) {
    const Index index(dim);
    EXPECT_EQ(search_full(index, {}, 2), nothing_written());
    EXPECT_EQ(search_partition(index, 0, {}, 2), nothing_written());
    EXPECT_EQ(scatter(index, {0, 1}, {}, 2), nothing_written());
    EXPECT_EQ(search_ivf(index, 0, {}, 2), nothing_written());
    EXPECT_EQ(search_mvcc(index, {0, 1}, {}, 2), empty_slots(2));
    EXPECT_EQ(search_filtered(index, kEveryId, {}, 2), empty_slots(2));
    EXPECT_EQ(export_base(index), Rows());
    EXPECT_EQ(export_visible(index), Rows());
    EXPECT_EQ(export_rowmeta(index, {0}), (Metadata{0, {-1}, {}}));
  }
}

TEST(Lifecycle, TheTagStaysAndNothingButAMutationRaisesTheSnapshot) {
  const Index index(7, 0x80000000u);
  seal(index, 1, {1}, {1}, {{1}, {0}, {1}});
  set_rowmeta(index, {1}, {1}, {1}, 1);
  set_ivf(index, 1, one_list({1}));
  qx_index_set_ivf_nprobe(index, 1, 2);
  search_ivf(index, 1, kOne, 1);
  qx_index_clear_ivf(index);
  EXPECT_EQ(qx_index_snapshot(index), 0u);
  EXPECT_EQ(qx_index_mutated(index), 0u);
  EXPECT_EQ(insert(index, {2}, {2}), 1u);
  EXPECT_EQ(delete_ids(index, {1}), 2u);
  EXPECT_EQ(stats(index), (Stats{1, 1, 0x80000000u, 1}));
}

TEST(Lifecycle, AnIndexInAnyStateAndANullHandleCanBeFreed) {
  const ChildEnd end = run_in_child([] {
    qx_index_free(nullptr);
    { const Index fresh(4); }
    const Sealed empty_base(1, {}, {});
    const Index never_built(1);
    insert(never_built, {1}, {1});
    set_rowmeta(never_built, {1}, {1}, {1, 2}, 2);
    set_ivf(never_built, 1, one_list({1}));
  });
  EXPECT_EQ(end.exit_status, 0);
  EXPECT_EQ(end.standard_error, "");
}

TEST(Lifecycle, DistinctHandlesShareNothing) {
  const Index first(1, 1);
  const Index second(1, 2);
  const Observed before = observe(second);
  seal(first, 1, {1}, {1}, {{1}, {0}, {1}});
  insert(first, {2}, {2});
  delete_ids(first, {1});
  set_rowmeta(first, {3}, {3}, {3}, 1);
  set_ivf(first, 3, one_list({1}));
  EXPECT_EQ(observe(second), before);
  EXPECT_EQ(export_rowmeta(second, {3}), (Metadata{0, {-1}, {}}));
  EXPECT_EQ(qx_index_has_ivf(second, 3), 0);
}

}  // namespace
}  // namespace qx_test
