// The sealed base: what a build stores, and what a second build replaces and keeps.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();

TEST(Build, ABaseWithoutRowsIsSealed) {
  const Index index(3);
  EXPECT_EQ(qx_index_build(index, nullptr, 0, 2, nullptr, nullptr, nullptr, nullptr, 0), 0);
  EXPECT_EQ(qx_index_sealed(index), 1u);
  EXPECT_EQ(stats(index), (Stats{0, 2, 0, 0}));
  EXPECT_EQ(export_base(index), Rows());
}

TEST(Build, SearchesOfABaseWithoutRowsFindNothing) {
  const Index index(1);
  seal(index, 1, {}, {}, {{5}, {0}, {0}});
  EXPECT_EQ(search_full(index, {1}, 3), nothing_written());
  EXPECT_EQ(search_partition(index, 5, {1}, 3), nothing_written());
  EXPECT_EQ(scatter(index, {0, 5}, {1}, 2), found({kEmptySlot, kEmptySlot}));
  EXPECT_EQ(search_mvcc(index, {0, 5}, {1}, 1), found({kEmptySlot}));
}

TEST(Build, TheLastRowOfARepeatedIdIsFoundById) {
  const Index index(1);
  seal(index, 1, {7, 3, 7}, {1, 2, 3});
  EXPECT_EQ(scatter(index, {7}, {1}, 1), found({{7, 3}}));
  EXPECT_EQ(scatter(index, {3}, {1}, 1), found({{3, 2}}));
  EXPECT_EQ(scatter(index, {0, 1, 2, 4, 5, 6, 8}, {1}, 1), found({kEmptySlot}));
}

TEST(Build, EveryRowOfARepeatedIdIsExported) {
  const Index index(1);
  seal(index, 1, {7, 3, 7}, {1, 2, 3});
  EXPECT_EQ(export_base(index), (Rows{{7, 3, 7}, {1, 2, 3}}));
}

TEST(Build, TheExportBeforeTheFirstBuildWritesNothing) {
  const Index index(2);
  insert(index, {1}, {1, 2});
  Guarded<float> vectors(4, kUntouchedFloat);
  Guarded<std::int64_t> ids(2, kUntouchedId);
  EXPECT_EQ(qx_index_export_base(index, vectors.data(), ids.data()), 0);
  EXPECT_TRUE(vectors.equals(Floats(4, kUntouchedFloat)));
  EXPECT_TRUE(ids.equals(Ids(2, kUntouchedId)));
}

TEST(Build, VectorsAreExportedBitForBit) {
  const Floats vectors{-0.0f,
                       std::bit_cast<float>(0x7F800001u),  // a signalling NaN
                       std::bit_cast<float>(0xFFC12345u),
                       std::numeric_limits<float>::denorm_min(),
                       -std::numeric_limits<float>::infinity(),
                       std::numeric_limits<float>::max()};
  const Index index(1);
  seal(index, 3, {9, 4}, vectors);
  EXPECT_EQ(export_base(index), (Rows{{9, 4}, vectors}));
}

TEST(Build, ABaseOfDimensionZeroKeepsItsIds) {
  const Index index(5);
  EXPECT_EQ(build(index, 0, {4, 2}, {}), 0);
  EXPECT_EQ(stats(index), (Stats{2, 0, 0, 0}));
  EXPECT_EQ(export_base(index), (Rows{{4, 2}, {}}));
}

TEST(Build, TheHostMayChangeItsArraysAfterwards) {
  const Index index(1);
  Floats vectors{1, 2};
  Ids ids{4, 6};
  Ids keys{8};
  Ints starts{0};
  Ints sizes{2};
  ASSERT_EQ(qx_index_build(index, vectors.data(), 2, 1, ids.data(), keys.data(), starts.data(),
                           sizes.data(), 1),
            0);
  vectors = {7, 7};
  ids = {5, 5};
  keys[0] = starts[0] = sizes[0] = 1;
  EXPECT_EQ(search_partition(index, 8, {1}, 2), found({{6, 2}, {4, 1}}));
  EXPECT_EQ(scatter(index, {4, 5, 6}, {1}, 2), found({{6, 2}, {4, 1}}));
}

TEST(Build, ANegativeDimensionIsRejected) {
  const Index index(6);
  EXPECT_EQ(build(index, -1, {}, {}), -1);
  EXPECT_EQ(build(index, std::numeric_limits<std::int32_t>::min(), {}, {}), -1);
  EXPECT_EQ(qx_index_sealed(index), 0u);
  EXPECT_EQ(stats(index), (Stats{0, 6, 0, 0}));
}

TEST(Build, ANegativePartitionCountIsRejected) {
  const Index index(6);
  for (const std::int32_t n_parts : {-1, std::numeric_limits<std::int32_t>::min()}) {
    EXPECT_EQ(qx_index_build(index, nullptr, 0, 1, nullptr, nullptr, nullptr, nullptr, n_parts),
              -1);
  }
  EXPECT_EQ(qx_index_sealed(index), 0u);
  EXPECT_EQ(stats(index), (Stats{0, 6, 0, 0}));
}

TEST(Build, ANegativeIdIsRejectedWhereverItStands) {
  const Index index(6);
  for (const std::int64_t id : {std::int64_t{-1}, kLowestId}) {
    EXPECT_EQ(build(index, 1, {id}, {1}), -1);
    EXPECT_EQ(build(index, 1, {id, 5, 6}, {1, 2, 3}), -1);
    EXPECT_EQ(build(index, 1, {5, 6, id}, {1, 2, 3}), -1);
  }
  EXPECT_EQ(qx_index_sealed(index), 0u);
  EXPECT_EQ(stats(index), (Stats{0, 6, 0, 0}));
}

// One try for each condition.
std::vector<std::int32_t> rejected_builds(QxIndex* index) {
  const Partitions parts{{1}, {0}, {1}};
  return {build(index, -1, {1}, {1}, parts),
          build(index, 1, {1, -5}, {1, 2}, parts),
          build(index, 1, {QX_MAX_BASE_ID + 1, 1}, {1, 2}, parts),
          qx_index_build(index, nullptr, -1, 1, nullptr, nullptr, nullptr, nullptr, 0),
          qx_index_build(index, nullptr, 0, 1, nullptr, nullptr, nullptr, nullptr, -1),
          qx_index_build(index, nullptr, (std::int64_t{1} << 40) + 1, 0, nullptr, nullptr, nullptr,
                         nullptr, 0)};
}

TEST(Build, ARejectedBuildLeavesANewIndexAsItWas) {
  const Index index(6, 7);
  const Observed before = observe(index);
  EXPECT_EQ(rejected_builds(index), Ints(6, -1));
  EXPECT_EQ(observe(index), before);
  EXPECT_EQ(qx_index_sealed(index), 0u);
}

TEST(Build, ARejectedBuildLeavesASealedIndexAsItWas) {
  const Index index(1);
  seal(index, 2, {5, 6}, {1, 2, 3, 4}, {{3, 9}, {0, 1}, {1, 1}});
  insert(index, {6, 7}, {8, 8, 9, 9});
  const Observed before = observe(index);
  EXPECT_EQ(rejected_builds(index), Ints(6, -1));
  EXPECT_EQ(observe(index), before);
  EXPECT_EQ(search_partition(index, 9, {1, 0}, 1), found({{6, 3}}));
  EXPECT_EQ(scatter(index, {1, 5}, {1, 0}, 2), found({{5, 1}, kEmptySlot}));
}

TEST(Rebuild, ReplacesTheWholeBase) {
  const Index index(1);
  seal_to_be_replaced(index, 2, {5, 6, 9}, {1, 2, 3, 4, 5, 6}, {{1, 2}, {0, 1}, {1, 2}});
  seal(index, 1, {6, 2}, {10, 20}, {{7}, {1}, {1}});
  EXPECT_EQ(stats(index), (Stats{2, 1, 0, 1}));
  EXPECT_EQ(export_base(index), (Rows{{6, 2}, {10, 20}}));
  EXPECT_EQ(search_full(index, {1}, 3), found({{2, 20}, {6, 10}}));
  EXPECT_EQ(search_partition(index, 7, {1}, 2), found({{2, 20}}));
  EXPECT_EQ(search_partition(index, 1, {1}, 2), nothing_written());
  EXPECT_EQ(scatter(index, {5, 6, 9}, {1}, 3), found({{6, 10}, kEmptySlot, kEmptySlot}));
}

TEST(Rebuild, WithoutRowsLeavesASealedEmptyBase) {
  const Index index(1);
  seal_to_be_replaced(index, 1, {5, 6}, {1, 2}, {{1}, {0}, {2}});
  seal(index, 1, {}, {});
  EXPECT_EQ(qx_index_sealed(index), 1u);
  EXPECT_EQ(stats(index), (Stats{0, 1, 0, 0}));
  EXPECT_EQ(search_full(index, {1}, 1), nothing_written());
  EXPECT_EQ(scatter(index, {5}, {1}, 1), found({kEmptySlot}));
}

TEST(Rebuild, LeavesTheDeltaAndTheTombstones) {
  const Index index(1);
  seal_to_be_replaced(index, 1, {1, 2, 3}, {1, 2, 3});
  insert(index, {2, 8}, {20, 80});
  delete_ids(index, {3});
  seal(index, 1, {3, 2, 4}, {300, 200, 400});
  EXPECT_EQ(qx_index_snapshot(index), 2u);
  EXPECT_EQ(qx_index_mutated(index), 1u);
  EXPECT_EQ(qx_index_delta_count(index), 2);
  EXPECT_EQ(export_visible(index), (Rows{{2, 8, 4}, {20, 80, 400}}));
}

TEST(Rebuild, LeavesTheMetadata) {
  const Index index(1);
  seal_to_be_replaced(index, 1, {1}, {1});
  set_rowmeta(index, {1, 2}, {10, 20}, {11, 12, 21, 22}, 2);
  seal(index, 1, {2}, {2});
  EXPECT_EQ(export_rowmeta(index, {1, 2}), (Metadata{2, {10, 20}, {11, 12, 21, 22}}));
  EXPECT_EQ(match_ids(index, has_label(20)), Ids{2});
}

TEST(Rebuild, LeavesTheIvfStructuresWhichThenFindTheNewRows) {
  const Index index(1);
  seal_to_be_replaced(index, 1, {1, 2}, {1, 2});
  set_ivf(index, 5, {1, 1, {1}, {1, 2, 3}, {0, 3}});
  EXPECT_EQ(search_ivf(index, 5, {1}, 3), found({{2, 2}, {1, 1}, kEmptySlot}));
  seal(index, 1, {3, 1}, {30, 10});
  EXPECT_EQ(qx_index_has_ivf(index, 5), 1);
  EXPECT_EQ(search_ivf(index, 5, {1}, 3), found({{3, 30}, {1, 10}, kEmptySlot}));
}

}  // namespace
}  // namespace qx_test
