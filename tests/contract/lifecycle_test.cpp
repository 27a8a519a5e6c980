// The lifecycle of a handle: what a new index reports, what its numbers mean, and its release.
#include "support/host.h"

namespace qx_test {
namespace {

TEST(Lifecycle, AFreshIndexReportsItsNumbersAndNothingElse) {
  const Index index(7, 42);
  std::uint64_t n_base = 99;
  std::uint32_t dim = 99;
  std::uint32_t user_tag = 99;
  std::int32_t n_parts = 99;
  EXPECT_EQ(qx_index_stats(index, &n_base, &dim, &user_tag, &n_parts), 0);
  EXPECT_EQ(n_base, 0u);
  EXPECT_EQ(dim, 7u);
  EXPECT_EQ(user_tag, 42u);
  EXPECT_EQ(n_parts, 0);
  EXPECT_EQ(qx_index_sealed(index), 0u);
  EXPECT_EQ(qx_index_mutated(index), 0u);
  EXPECT_EQ(qx_index_snapshot(index), 0u);
  EXPECT_EQ(qx_index_delta_count(index), 0);
}

TEST(Lifecycle, AnyDimensionIsReportedAsGiven) {
  for (const std::uint32_t dim : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    const Index index(dim);
    EXPECT_EQ(stats(index), (Stats{0, dim, 0, 0}));
  }
}

TEST(Lifecycle, AnIndexOfAnyDimensionIsEmptyToEveryRead) {
  for (const std::uint32_t dim : {0u, 0xFFFFFFFFu}) {
    const Index index(dim);
    EXPECT_EQ(search_full(index, {}, 2), nothing_written());
    EXPECT_EQ(search_partition(index, 0, {}, 2), nothing_written());
    EXPECT_EQ(scatter(index, {0, 1}, {}, 2), nothing_written());
    EXPECT_EQ(search_ivf(index, 0, {}, 2), nothing_written());
    EXPECT_EQ(search_mvcc(index, {0, 1}, {}, 2), found({kEmptySlot, kEmptySlot}));
    EXPECT_EQ(search_filtered(index, kEveryId, {}, 2), found({kEmptySlot, kEmptySlot}));
    EXPECT_EQ(export_base(index), Rows());
    EXPECT_EQ(export_visible(index), Rows());
    EXPECT_EQ(export_rowmeta(index, {0}), (Metadata{0, {-1}, {}}));
  }
}

TEST(Lifecycle, ABuildReplacesTheDimension) {
  const Index index(7);
  seal(index, 3, {1}, {1, 2, 3});
  EXPECT_EQ(stats(index).dim, 3u);
}

TEST(Lifecycle, StatsCountTheRowsAndThePartitionsOfTheBase) {
  const Index index(1, 5);
  seal(index, 1, {4, 2, 9}, {1, 2, 3}, {{10, 20}, {0, 1}, {1, 2}});
  EXPECT_EQ(stats(index), (Stats{3, 1, 5, 2}));
}

TEST(Lifecycle, TheUserTagIsReportedUnchanged) {
  for (const std::uint32_t tag : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    const Index index(1, tag);
    EXPECT_EQ(stats(index).user_tag, tag);
    seal(index, 1, {1}, {1});
    insert(index, {2}, {2});
    delete_ids(index, {1});
    set_rowmeta(index, {1}, {1}, {1}, 1);
    EXPECT_EQ(stats(index).user_tag, tag);
  }
}

// Every search and listing of an index that has rows of every kind.
struct Answers {
  std::vector<Found> searches;
  std::vector<Ids> listings;
  Rows base;
  Rows visible;
  Metadata metadata;

  friend bool operator==(const Answers&, const Answers&) = default;
};

Answers answers_under_tag(std::uint32_t tag) {
  const Index index(2, tag);
  seal(index, 2, {1, 2, 3}, {1, 0, 0, 1, 1, 1}, {{5}, {1}, {2}});
  insert(index, {2, 8}, {3, 3, 4, 4});
  delete_ids(index, {3});
  set_rowmeta(index, {1, 8}, {6, 6}, {7, 9}, 1);
  set_ivf(index, 4, {1, 1, {1, 1}, {1, 3}, {0, 2}});
  const Floats query{1, 2};
  return {
      {search_full(index, query, 3), search_partition(index, 5, query, 2),
       scatter(index, {3, 1, 8}, query, 3), search_ivf(index, 4, query, 2),
       search_mvcc(index, {1, 2, 3, 8}, query, 4), search_filtered(index, has_label(6), query, 3)},
      {visible_ids(index), match_ids(index, has_value(0, 9))},
      export_base(index),
      export_visible(index),
      export_rowmeta(index, {1, 2, 8})};
}

TEST(Lifecycle, TheUserTagChangesNoAnswer) {
  const Answers untagged = answers_under_tag(0);
  EXPECT_EQ(untagged.searches[0], found({{3, 3}, {2, 2}, {1, 1}}));
  for (const std::uint32_t tag : {1u, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(answers_under_tag(tag), untagged) << "tag " << tag;
  }
}

TEST(Lifecycle, FreeingANullHandleDoesNothing) {
  const ChildEnd end = run_in_child([] { qx_index_free(nullptr); });
  EXPECT_EQ(end.exit_status, 0);
  EXPECT_EQ(end.standard_error, "");
}

TEST(Lifecycle, AnIndexInAnyStateCanBeFreed) {
  const ChildEnd end = run_in_child([] {
    { const Index fresh(4); }
    {
      const Index never_built(1);
      insert(never_built, {1}, {1});
      set_rowmeta(never_built, {1}, {1}, {1, 2}, 2);
      set_ivf(never_built, 1, {1, 1, {1}, {1}, {0, 1}});
    }
    const Index empty_base(1);
    seal(empty_base, 1, {}, {});
  });
  EXPECT_EQ(end.exit_status, 0);
  EXPECT_EQ(end.standard_error, "");
}

TEST(Lifecycle, TheFormatVersionIsThatOfTheHeader) {
  EXPECT_EQ(qx_runtime_format_version(), QX_RUNTIME_FORMAT_VERSION);
}

TEST(Lifecycle, TheSnapshotCountsMutationsThatCarryARow) {
  const Index index(1);
  EXPECT_EQ(insert(index, {1, 2, 3}, {1, 2, 3}), 1u);
  EXPECT_EQ(delete_ids(index, {1, 2}), 2u);
  EXPECT_EQ(insert(index, {}, {}), 2u);
  EXPECT_EQ(delete_ids(index, {}), 2u);
  EXPECT_EQ(insert(index, {1}, {5}), 3u);
  EXPECT_EQ(qx_index_snapshot(index), 3u);
}

TEST(Lifecycle, NothingButAMutationRaisesTheSnapshotOrTheMutatedFlag) {
  const Index index(1);
  seal(index, 1, {1}, {1});
  set_rowmeta(index, {1}, {1}, {1}, 1);
  set_ivf(index, 1, {1, 1, {1}, {1}, {0, 1}});
  qx_index_set_ivf_nprobe(index, 1, 2);
  qx_index_clear_ivf(index);
  search_full(index, {1}, 1);
  EXPECT_EQ(qx_index_snapshot(index), 0u);
  EXPECT_EQ(qx_index_mutated(index), 0u);
}

TEST(Lifecycle, TheFlagsAreNeverReset) {
  const Index index(1);
  seal_to_be_replaced(index, 1, {1}, {1});
  delete_ids(index, {1});
  insert(index, {1}, {1});
  seal(index, 1, {}, {});
  EXPECT_EQ(build(index, -1, {}, {}), -1);
  EXPECT_EQ(qx_index_sealed(index), 1u);
  EXPECT_EQ(qx_index_mutated(index), 1u);
}

TEST(Lifecycle, DistinctHandlesShareNothing) {
  const Index first(1, 1);
  const Index second(1, 2);
  const Observed before = observe(second);
  seal(first, 1, {1}, {1}, {{1}, {0}, {1}});
  insert(first, {2}, {2});
  delete_ids(first, {1});
  set_rowmeta(first, {3}, {3}, {3}, 1);
  set_ivf(first, 3, {1, 1, {1}, {1}, {0, 1}});
  EXPECT_EQ(observe(second), before);
  EXPECT_EQ(export_rowmeta(second, {3}), (Metadata{0, {-1}, {}}));
  EXPECT_EQ(qx_index_has_ivf(second, 3), 0);
}

}  // namespace
}  // namespace qx_test
