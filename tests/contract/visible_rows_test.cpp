// Inserts and deletes, and what is visible after them, to every read of the current rows.
#include <utility>

#include "support/cases.h"

namespace qx_test {
namespace {

// A call that changes rows.
struct Change {
  enum { kBuild, kInsert, kDelete } kind;
  Ids ids;
  Floats vectors = {};
};

Change built(Ids ids, Floats vectors) {
  return {Change::kBuild, std::move(ids), std::move(vectors)};
}
Change inserted(Ids ids, Floats vectors) {
  return {Change::kInsert, std::move(ids), std::move(vectors)};
}
Change deleted(Ids ids) { return {Change::kDelete, std::move(ids)}; }

// Changes of an index, the rows that are then visible, and ids that are not.
struct Case {
  const char* name;
  std::vector<Change> changes;
  Rows visible;
  Ids hidden;
  std::uint32_t dim;
};

void PrintTo(const Case& what, std::ostream* out) { *out << what.name; }

Case shown(const char* name, std::vector<Change> changes, Rows visible, Ids hidden = {},
           std::uint32_t dim = 1) {
  return {name, std::move(changes), std::move(visible), std::move(hidden), dim};
}

const std::vector<Case> kCases = {
    shown("InANewIndexThereAreNone", {}, {}, {0, 1}, 2),
    shown("InABaseWithoutRowsThereAreNone", {built({}, {})}, {}, {0}),
    shown("BeforeABuildTheyAreTheDeltaRows", {inserted({4, 2}, {1, 2, 3, 4})},
          {{4, 2}, {1, 2, 3, 4}}, {}, 2),
    shown("OfAnUnchangedBaseTheyAreTheBase", {built({4, 2, 8}, {1, 2, 3})}, {{4, 2, 8}, {1, 2, 3}}),
    shown("DeltaRowsComeBeforeTheSurvivingBaseRows",
          {built({1, 2, 3}, {1, 10, 2, 20, 3, 30}), inserted({2, 9}, {5, 50, 9, 90}), deleted({3})},
          {{2, 9, 1}, {5, 50, 9, 90, 1, 10}}, {3}, 2),
    shown("TheyAreNotSortedById", {built({5, 1, 3}, {5, 1, 3}), inserted({9, 0, 4}, {9, 7, 4})},
          {{9, 0, 4, 5, 1, 3}, {9, 7, 4, 5, 1, 3}}),
    shown("OfAnIdInsertedTwiceInACallTheLastVectorIsKept",
          {inserted({7, 8, 7}, {1, 2, 3, 4, 5, 6})}, {{7, 8}, {5, 6, 3, 4}}, {}, 2),
    shown("AnIdInsertedAgainGetsItsNewVectorInPlace",
          {inserted({6, 7, 8}, {1, 1, 2, 2, 3, 3}), inserted({7}, {9, 10})},
          {{6, 7, 8}, {1, 1, 9, 10, 3, 3}}, {}, 2),
    shown("ACallMayInsertNewAndKnownIds",
          {inserted({1, 2}, {10, 20}), inserted({3, 1, 4, 3}, {30, 11, 40, 31})},
          {{1, 2, 3, 4}, {11, 20, 31, 40}}),
    shown("AnIdInsertedAfterItsDeleteKeepsItsPlace",
          {inserted({7, 8, 9}, {7, 8, 9}), deleted({8}), inserted({8}, {80})},
          {{7, 8, 9}, {7, 80, 9}}),
    shown("AnInsertLiftsTheTombstonesOfItsOwnIds",
          {inserted({1, 2, 3}, {1, 2, 3}), deleted({1, 2, 3}), inserted({2}, {5})}, {{2}, {5}},
          {1, 3}),
    shown("ADeletedBaseIdIsVisibleAgainThroughItsDeltaRow",
          {built({1, 2}, {1, 2}), deleted({2}), inserted({2}, {20})}, {{2, 1}, {20, 1}}),
    shown("ADeletedIdShowsNeitherItsDeltaRowNorItsBaseRow",
          {built({1, 2}, {1, 2}), inserted({2}, {20}), deleted({2})}, {{1}, {1}}, {2}),
    shown("ADeleteBeforeTheFirstInsertIsLifted", {deleted({5}), inserted({5}, {1})}, {{5}, {1}}),
    shown("ADeleteBeforeABuildHidesTheBuiltRow", {deleted({5}), built({4, 5}, {4, 5})}, {{4}, {4}},
          {5}),
    shown("OneInsertLiftsManyDeletes",
          {inserted({9}, {1}), deleted({9, 9}), deleted({9}), inserted({9}, {2})}, {{9}, {2}}),
    shown("ADeleteAfterTheLiftHidesAgain",
          {inserted({9}, {1}), deleted({9}), inserted({9}, {2}), deleted({9})}, {}, {9}),
    shown("DeletingIdsWithoutRowsHidesNothing",
          {built({1, 2}, {1, 2}), inserted({9}, {9}), deleted({55, -55, kLowestId, kHighestId})},
          {{9, 1, 2}, {9, 1, 2}}, {55, -55, kLowestId, kHighestId}),
    shown("EveryBaseRowOfARepeatedIdIsVisible", {built({7, 3, 7}, {1, 2, 3})},
          {{7, 3, 7}, {1, 2, 3}}),
    shown("ADeleteHidesEveryBaseRowOfItsId", {built({7, 3, 7}, {1, 2, 3}), deleted({7})},
          {{3}, {2}}, {7}),
    shown("ADeltaRowSupersedesEveryBaseRowOfItsId",
          {built({7, 3, 7}, {1, 2, 3}), inserted({7}, {70})}, {{7, 3}, {70, 2}}),
    shown("ARebuildLeavesTheDeltaAndTheTombstones",
          {built({1, 2, 3}, {1, 2, 3}), inserted({2, 8}, {20, 80}), deleted({3}),
           built({3, 2, 4}, {300, 200, 400})},
          {{2, 8, 4}, {20, 80, 400}}, {1, 3}),
    shown("AnyIdCanBeInsertedAndDeleted",
          {inserted({kLowestId, kHighestId, -1, 0, QX_MAX_BASE_ID + 1}, {1, 2, 3, 4, 5}),
           deleted({kHighestId, kLowestId, 12345}), inserted({kLowestId}, {6})},
          {{kLowestId, -1, 0, QX_MAX_BASE_ID + 1}, {6, 3, 4, 5}}, {kHighestId, 12345}),
    shown("WithoutComponentsTheyAreIdsAlone",
          {built({1, 2, 3}, {}), inserted({9, 2}, {}), deleted({3})}, {{9, 2, 1}, {}}, {3}, 0)};

class VisibleRows : public testing::TestWithParam<Case> {};

void make(QxIndex* index, const Change& change) {
  if (change.kind == Change::kBuild) {
    const auto dim = static_cast<std::int32_t>(stats(index).dim);
    seal_to_be_replaced(index, dim, change.ids, change.vectors);
    return;
  }
  const std::uint64_t raised = qx_index_snapshot(index) + 1;
  EXPECT_EQ(change.kind == Change::kInsert ? insert(index, change.ids, change.vectors)
                                           : delete_ids(index, change.ids),
            raised);
  EXPECT_EQ(qx_index_snapshot(index), raised);
  EXPECT_EQ(qx_index_mutated(index), 1u);
}

TEST_P(VisibleRows, OfEveryRead) {
  const auto& [name, changes, rows, hidden, dim] = GetParam();
  const Index index(dim);
  for (const Change& change : changes) make(index, change);
  const auto count = static_cast<std::uint32_t>(rows.ids.size());
  EXPECT_EQ(qx_index_visible_count(index), std::ssize(rows.ids));
  EXPECT_EQ(visible_ids(index), rows.ids);
  EXPECT_EQ(match_ids(index, kEveryId), rows.ids);
  EXPECT_EQ(export_visible(index), rows);

  // A query of zeros finds them in the order in which they are offered.
  std::vector<Hit> in_order;
  for (const std::int64_t id : rows.ids) in_order.push_back({id, 0});
  in_order.push_back(kEmptySlot);
  EXPECT_EQ(search_filtered(index, kEveryId, Floats(dim, 0), count + 1), found(in_order));
  Ids listed = hidden;
  listed.insert(listed.end(), rows.ids.begin(), rows.ids.end());
  EXPECT_EQ(search_mvcc(index, listed, Floats(dim, 0), count + 1), found(in_order));
  EXPECT_EQ(search_mvcc(index, hidden, Floats(dim, 1), 1), empty_slots(1));
}

INSTANTIATE_TEST_SUITE_P(After, VisibleRows, testing::ValuesIn(kCases),
                         [](const auto& what) { return what.param.name; });

TEST(Mutations, OfNoRowsChangeNothing) {
  for (const bool mutated_before : {false, true}) {
    const Index index(2);
    if (mutated_before) insert(index, {1, 2}, {1, 1, 2, 2});
    const Observed before = observe(index);
    for (const std::int32_t n : kNoCounts) {
      EXPECT_EQ(qx_index_insert(index, nullptr, nullptr, n), before.snapshot) << "n " << n;
      EXPECT_EQ(qx_index_delete(index, nullptr, n), before.snapshot) << "n " << n;
    }
    EXPECT_EQ(observe(index), before);
  }
}

TEST(Exports, GiveVectorsBitForBit) {
  const Sealed index(4, {9}, kOddBits);
  insert(index, {1}, {1, 2, 3, 4});
  insert(index, {1, 2},
         {kOddBits[0], kOddBits[1], kOddBits[2], kOddBits[3], -kInfinity, kInfinity, kNaN,
          std::numeric_limits<float>::max()});
  EXPECT_EQ(export_base(index), (Rows{{9}, kOddBits}));
  const Rows visible = export_visible(index);
  EXPECT_EQ(visible.ids, (Ids{1, 2, 9}));
  EXPECT_TRUE(same_bits({visible.vectors.begin(), visible.vectors.begin() + 4}, kOddBits));
  EXPECT_TRUE(same_bits({visible.vectors.begin() + 8, visible.vectors.end()}, kOddBits));
}

}  // namespace
}  // namespace qx_test
