// What is visible now: the walk behind the count, the listing and the export.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();

// The three reads must agree on the rows.
void expect_visible(QxIndex* index, const Rows& rows) {
  EXPECT_EQ(qx_index_visible_count(index), static_cast<std::int64_t>(rows.ids.size()));
  EXPECT_EQ(visible_ids(index), rows.ids);
  EXPECT_EQ(export_visible(index), rows);
  EXPECT_EQ(match_ids(index, kEveryId), rows.ids);
}

TEST(VisibleRows, ANewIndexHasNoneAndWritesNothing) {
  const Index index(2);
  Guarded<float> vectors(2, kUntouchedFloat);
  Guarded<std::int64_t> ids(1, kUntouchedId);
  EXPECT_EQ(qx_index_visible_count(index), 0);
  EXPECT_EQ(qx_index_visible_ids(index, ids.data()), 0);
  EXPECT_EQ(qx_index_export_visible(index, vectors.data(), ids.data()), 0);
  EXPECT_TRUE(ids.equals({kUntouchedId}));
  EXPECT_TRUE(vectors.equals(Floats(2, kUntouchedFloat)));
}

TEST(VisibleRows, AreTheLiveDeltaRowsAndThenTheSurvivingBaseRows) {
  const Index index(2);
  seal(index, 2, {1, 2, 3}, {1, 10, 2, 20, 3, 30});
  insert(index, {2, 9}, {200, 2000, 900, 9000});
  delete_ids(index, {3});
  expect_visible(index, {{2, 9, 1}, {200, 2000, 900, 9000, 1, 10}});
}

TEST(VisibleRows, AreNotSortedById) {
  const Index index(1);
  seal(index, 1, {5, 1, 3}, {5, 1, 3});
  insert(index, {9, 0, 4}, {9, 0, 4});
  expect_visible(index, {{9, 0, 4, 5, 1, 3}, {9, 0, 4, 5, 1, 3}});
}

TEST(VisibleRows, AnIdInsertedAfterItsDeleteKeepsItsDeltaPosition) {
  const Index index(1);
  insert(index, {7, 8, 9}, {7, 8, 9});
  delete_ids(index, {8});
  expect_visible(index, {{7, 9}, {7, 9}});
  insert(index, {8}, {80});
  expect_visible(index, {{7, 8, 9}, {7, 80, 9}});
}

TEST(VisibleRows, ADeletedIdShowsNeitherItsDeltaRowNorItsBaseRow) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2});
  insert(index, {2}, {20});
  delete_ids(index, {2});
  expect_visible(index, {{1}, {1}});
}

TEST(VisibleRows, EveryBaseRowOfARepeatedIdIsListed) {
  const Index index(1);
  seal(index, 1, {7, 3, 7}, {1, 2, 3});
  expect_visible(index, {{7, 3, 7}, {1, 2, 3}});
}

TEST(VisibleRows, OneDeltaRowSupersedesEveryBaseRowOfItsId) {
  const Index index(1);
  seal(index, 1, {7, 3, 7}, {1, 2, 3});
  insert(index, {7}, {70});
  expect_visible(index, {{7, 3}, {70, 2}});
}

TEST(VisibleRows, DeletingAnIdWithoutRowsChangesNothing) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2});
  insert(index, {9}, {9});
  delete_ids(index, {55, -55, kLowestId, kHighestId});
  expect_visible(index, {{9, 1, 2}, {9, 1, 2}});
}

TEST(VisibleRows, TheModeThatMatchesEveryIdGivesTheSameList) {
  const Index index(1);
  seal(index, 1, {1, 2, 3, 4}, {1, 2, 3, 4});
  insert(index, {9, 2, 8}, {9, 20, 8});
  delete_ids(index, {1, 8});
  EXPECT_EQ(visible_ids(index), (Ids{9, 2, 3, 4}));
  EXPECT_EQ(match_ids(index, kEveryId), visible_ids(index));
}

TEST(VisibleRows, BeforeABuildAreTheDeltaRows) {
  const Index index(2);
  insert(index, {4, 2}, {1, 2, 3, 4});
  expect_visible(index, {{4, 2}, {1, 2, 3, 4}});
}

TEST(VisibleRows, OfAnUnchangedBaseAreTheBase) {
  const Index index(1);
  seal(index, 1, {4, 2, 8}, {1, 2, 3});
  expect_visible(index, export_base(index));
}

TEST(VisibleRows, WithoutComponentsAreIdsAlone) {
  const Index index(0);
  seal(index, 0, {1, 2, 3}, {});
  insert(index, {9, 2}, {});
  delete_ids(index, {3});
  expect_visible(index, {{9, 2, 1}, {}});
}

TEST(VisibleRows, AreExportedBitForBit) {
  const Floats base{-0.0f, std::bit_cast<float>(0x7F800001u)};
  const Floats delta{std::bit_cast<float>(0xFFC12345u), std::numeric_limits<float>::denorm_min()};
  const Index index(2);
  seal(index, 2, {1}, base);
  insert(index, {2}, delta);
  expect_visible(index, {{2, 1}, {delta[0], delta[1], base[0], base[1]}});
}

TEST(VisibleRows, MakeAnIndexThatAnswersAlike) {
  const Index index(1);
  seal(index, 1, {1, 2, 3, 4}, {5, 2, 5, 4});
  insert(index, {2, 9}, {5, 90});
  delete_ids(index, {4});
  const Rows rows = export_visible(index);
  const Index copy(1);
  seal(copy, 1, rows.ids, rows.vectors);
  EXPECT_EQ(search_filtered(copy, kEveryId, {1}, 5),
            found({{9, 90}, {2, 5}, {1, 5}, {3, 5}, kEmptySlot}));
  EXPECT_EQ(search_filtered(index, kEveryId, {1}, 5), search_filtered(copy, kEveryId, {1}, 5));
}

}  // namespace
}  // namespace qx_test
