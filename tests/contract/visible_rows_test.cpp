// The visible rows: the count, the listing and the export.
#include <limits>
#include <set>
#include <string>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();

// The three reads must return the same rows.
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

// A base of many rows, with changes to one id in `stride`, compared with the visibility rule
// applied row by row. Ids are `spread` apart and permuted, and every 50th row is a duplicate of the
// row before.
void expect_rule_in_many_rows(std::int64_t spread, std::int64_t stride) {
  constexpr std::int64_t kRows = 20011;
  Ids base;
  for (std::int64_t r = 0; r < kRows; ++r) {
    base.push_back(r % 50 == 49 ? base.back() : r * 7919 % kRows * spread + r % spread);
  }
  Ids inserted = {-5, kHighestId};
  Ids deleted = {-6, kLowestId};
  for (std::int64_t r = 0; r < kRows; r += stride) {
    inserted.push_back(base[static_cast<std::size_t>(r)]);
    deleted.push_back(base[static_cast<std::size_t>(kRows - 1 - r)]);
  }
  const Ids again(deleted.begin() + static_cast<std::ptrdiff_t>(deleted.size() / 2), deleted.end());
  const Index index(0);
  seal(index, 0, base, {});
  insert(index, inserted, {});
  delete_ids(index, deleted);
  insert(index, again, {});

  std::set<std::int64_t> in_delta(inserted.begin(), inserted.end());
  std::set<std::int64_t> gone(deleted.begin(), deleted.end());
  for (const std::int64_t id : again) {
    gone.erase(id);
    if (in_delta.insert(id).second) inserted.push_back(id);
  }
  Ids expected;
  std::set<std::int64_t> listed;
  for (const std::int64_t id : inserted) {
    if (gone.count(id) == 0 && listed.insert(id).second) expected.push_back(id);
  }
  for (const std::int64_t id : base) {
    if (in_delta.count(id) == 0 && gone.count(id) == 0) expected.push_back(id);
  }
  expect_visible(index, {expected, {}});
}

TEST(VisibleRows, FollowTheRuleInABaseOfManyRows) {
  for (const std::int64_t spread : {1, 3, 250}) {
    for (const std::int64_t stride : {1, 2, 13, 500, 20000}) {
      SCOPED_TRACE("spread " + std::to_string(spread) + ", stride " + std::to_string(stride));
      expect_rule_in_many_rows(spread, stride);
    }
  }
}

}  // namespace
}  // namespace qx_test
