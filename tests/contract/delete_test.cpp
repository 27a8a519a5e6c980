// Deletes: tombstones that hide ids from current reads and remove nothing.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();

TEST(Delete, OfNoIdsChangesNothing) {
  const Index index(1);
  const Observed fresh = observe(index);
  for (const std::int32_t n : {0, -1, kLowest}) {
    EXPECT_EQ(qx_index_delete(index, nullptr, n), 0u) << "n " << n;
  }
  EXPECT_EQ(observe(index), fresh);
  EXPECT_EQ(qx_index_mutated(index), 0u);
}

TEST(Delete, OfNoIdsReturnsTheCurrentSnapshot) {
  const Index index(1);
  insert(index, {1, 2}, {1, 2});
  delete_ids(index, {1});
  const Observed before = observe(index);
  for (const std::int32_t n : {0, -1, kLowest}) {
    EXPECT_EQ(qx_index_delete(index, nullptr, n), 2u) << "n " << n;
  }
  EXPECT_EQ(observe(index), before);
}

TEST(Delete, OfIdsThatHaveNoRowIsAMutation) {
  const Index index(1);
  EXPECT_EQ(delete_ids(index, {5, 6}), 1u);
  EXPECT_EQ(qx_index_snapshot(index), 1u);
  EXPECT_EQ(qx_index_mutated(index), 1u);
  EXPECT_EQ(qx_index_delta_count(index), 0);
  EXPECT_EQ(visible_ids(index), Ids());
}

TEST(Delete, LeavesTheDeltaRowCounted) {
  const Index index(1);
  EXPECT_EQ(insert(index, {5, 6}, {1, 2}), 1u);
  EXPECT_EQ(delete_ids(index, {5}), 2u);
  EXPECT_EQ(qx_index_delta_count(index), 2);
  EXPECT_EQ(export_visible(index), (Rows{{6}, {2}}));
}

TEST(Delete, IsLiftedByALaterInsert) {
  const Index index(1);
  EXPECT_EQ(insert(index, {5}, {1}), 1u);
  EXPECT_EQ(delete_ids(index, {5}), 2u);
  EXPECT_EQ(insert(index, {5}, {9}), 3u);
  EXPECT_EQ(qx_index_delta_count(index), 1);
  EXPECT_EQ(export_visible(index), (Rows{{5}, {9}}));
}

TEST(Delete, BeforeTheFirstInsertDoesNotHideTheInsertedRow) {
  const Index index(1);
  delete_ids(index, {5});
  insert(index, {5}, {1});
  EXPECT_EQ(export_visible(index), (Rows{{5}, {1}}));
}

TEST(Delete, BeforeABuildHidesTheBuiltRow) {
  const Index index(1);
  delete_ids(index, {5});
  seal(index, 1, {4, 5}, {4, 5});
  EXPECT_EQ(export_visible(index), (Rows{{4}, {4}}));
}

TEST(Delete, OfAnIdTwiceNeedsOneInsertToLiftIt) {
  const Index index(1);
  insert(index, {9}, {1});
  EXPECT_EQ(delete_ids(index, {9, 9}), 2u);
  EXPECT_EQ(delete_ids(index, {9}), 3u);
  EXPECT_EQ(visible_ids(index), Ids());
  insert(index, {9}, {2});
  EXPECT_EQ(export_visible(index), (Rows{{9}, {2}}));
}

TEST(Delete, AfterTheLiftHidesAgain) {
  const Index index(1);
  insert(index, {9}, {1});
  delete_ids(index, {9});
  insert(index, {9}, {2});
  delete_ids(index, {9});
  EXPECT_EQ(visible_ids(index), Ids());
  EXPECT_EQ(qx_index_snapshot(index), 4u);
}

TEST(Delete, OfABaseIdLeavesTheBase) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2}, {{0}, {0}, {2}});
  delete_ids(index, {2});
  EXPECT_EQ(stats(index), (Stats{2, 1, 0, 1}));
  EXPECT_EQ(export_base(index), (Rows{{1, 2}, {1, 2}}));
  EXPECT_EQ(search_full(index, {1}, 2), found({{2, 2}, {1, 1}}));
  EXPECT_EQ(scatter(index, {2}, {1}, 1), found({{2, 2}}));
  EXPECT_EQ(export_visible(index), (Rows{{1}, {1}}));
}

TEST(Delete, HidesEveryBaseRowOfTheId) {
  const Index index(1);
  seal(index, 1, {7, 3, 7}, {1, 2, 3});
  delete_ids(index, {7});
  EXPECT_EQ(export_visible(index), (Rows{{3}, {2}}));
}

TEST(Delete, AnyIdIsValid) {
  const Index index(1);
  insert(index, {kLowestId, kHighestId, -1, 0}, {1, 2, 3, 4});
  delete_ids(index, {kHighestId, kLowestId, 12345});
  EXPECT_EQ(export_visible(index), (Rows{{-1, 0}, {3, 4}}));
  insert(index, {kLowestId}, {5});
  EXPECT_EQ(export_visible(index), (Rows{{kLowestId, -1, 0}, {5, 3, 4}}));
}

}  // namespace
}  // namespace qx_test
