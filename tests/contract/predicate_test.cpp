// Predicates over labels and columns: the visible rows that pass, in searches and in listings.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

// Every mode that tests a column.
const std::vector<std::uint32_t> kColumnModes{QX_FILTER_COLUMN, 7, 0x7FFFFFFF, 0x80000000,
                                              0xFFFFFFFF};

// With dimension 1 and the query {1} a row's score is its only component.
const Floats kOne{1};

// Base rows 1 to 4, delta rows 2 and 9; labels and two columns for some of the ids.
class Labelled : public Index {
 public:
  Labelled() : Index(1) {
    seal(*this, 1, {1, 2, 3, 4}, {1, 2, 3, 4});
    insert(*this, {2, 9}, {20, 90});
    set_rowmeta(*this, {1, 2, 9, 77}, {5, 5, 6, 5}, {10, -1, 10, 21, 30, 21, 10, 21}, 2);
  }
};

TEST(Predicate, ModeZeroIsASearchOfAllVisibleRows) {
  const Labelled index;
  delete_ids(index, {3});
  const Found all = found({{9, 90}, {2, 20}, {4, 4}, {1, 1}, kEmptySlot});
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 5), all);
  EXPECT_EQ(search_mvcc(index, visible_ids(index), kOne, 5), all);
}

TEST(Predicate, ModeZeroIgnoresColumnAndValue) {
  const Labelled index;
  EXPECT_EQ(match_ids(index, {QX_FILTER_ALL, -3, 1234}), visible_ids(index));
  EXPECT_EQ(match_ids(index, {QX_FILTER_ALL, kHighest, kLowestId}), visible_ids(index));
}

TEST(Predicate, ModeZeroListsTheVisibleIdsInTheSameOrder) {
  const Labelled index;
  delete_ids(index, {3});
  EXPECT_EQ(match_ids(index, kEveryId), (Ids{2, 9, 1, 4}));
  EXPECT_EQ(match_ids(index, kEveryId), visible_ids(index));
}

TEST(Predicate, ModeOneComparesTheLabel) {
  const Labelled index;
  EXPECT_EQ(match_ids(index, has_label(5)), (Ids{2, 1}));
  EXPECT_EQ(match_ids(index, has_label(6)), Ids{9});
  EXPECT_EQ(match_ids(index, has_label(4)), Ids());
  EXPECT_EQ(search_filtered(index, has_label(5), kOne, 2), found({{2, 20}, {1, 1}}));
}

TEST(Predicate, ModeOneIgnoresTheColumn) {
  const Labelled index;
  for (const std::int32_t column : {-1, 1, 2, kLowest, kHighest}) {
    EXPECT_EQ(match_ids(index, {QX_FILTER_LABEL, column, 5}), (Ids{2, 1})) << "column " << column;
  }
}

TEST(Predicate, ModeOneWithMinusOneMatchesRowsWithoutALabel) {
  const Labelled index;
  EXPECT_EQ(match_ids(index, has_label(QX_MISSING)), (Ids{3, 4}));
  EXPECT_EQ(search_filtered(index, has_label(QX_MISSING), kOne, 3),
            found({{4, 4}, {3, 3}, kEmptySlot}));
}

TEST(Predicate, WithoutAnyMetadataEveryLabelIsMissing) {
  const Index index(1);
  seal(index, 1, {1}, {1});
  insert(index, {2}, {2});
  EXPECT_EQ(match_ids(index, has_label(QX_MISSING)), (Ids{2, 1}));
  EXPECT_EQ(match_ids(index, has_label(0)), Ids());
}

TEST(Predicate, EveryOtherModeComparesAColumn) {
  const Labelled index;
  for (const std::uint32_t mode : kColumnModes) {
    EXPECT_EQ(match_ids(index, {mode, 0, 10}), (Ids{2, 1})) << "mode " << mode;
    EXPECT_EQ(match_ids(index, {mode, 1, 21}), (Ids{2, 9})) << "mode " << mode;
    EXPECT_EQ(match_ids(index, {mode, 1, 10}), Ids()) << "mode " << mode;
    EXPECT_EQ(search_filtered(index, {mode, 1, 21}, kOne, 2), found({{9, 90}, {2, 20}}));
  }
}

TEST(Predicate, AColumnOutOfRangeMatchesNothing) {
  const Labelled index;
  for (const std::uint32_t mode : kColumnModes) {
    for (const std::int32_t column : {2, 3, -1, kLowest, kHighest}) {
      EXPECT_EQ(match_ids(index, {mode, column, QX_MISSING}), Ids()) << "column " << column;
      EXPECT_EQ(search_filtered(index, {mode, column, QX_MISSING}, kOne, 2),
                found({kEmptySlot, kEmptySlot}));
    }
  }
}

TEST(Predicate, WithoutColumnsNoColumnMatches) {
  const Index index(1);
  insert(index, {1}, {1});
  set_rowmeta(index, {1}, {5}, {}, 0);
  EXPECT_EQ(match_ids(index, has_value(0, QX_MISSING)), Ids());
}

TEST(Predicate, AColumnWithMinusOneMatchesRowsWithoutAValue) {
  const Labelled index;
  EXPECT_EQ(match_ids(index, has_value(0, QX_MISSING)), (Ids{3, 4}));
  EXPECT_EQ(match_ids(index, has_value(1, QX_MISSING)), (Ids{1, 3, 4}));
  set_rowmeta(index, {}, {}, {}, 3);
  EXPECT_EQ(match_ids(index, has_value(2, QX_MISSING)), visible_ids(index));
}

TEST(Predicate, ADeletedIdNeverMatches) {
  const Labelled index;
  delete_ids(index, {1, 2, 77});
  EXPECT_EQ(match_ids(index, has_label(5)), Ids());
  EXPECT_EQ(match_ids(index, has_value(0, 10)), Ids());
  EXPECT_EQ(search_filtered(index, has_label(5), kOne, 1), found({kEmptySlot}));
}

TEST(Predicate, AnIdInsertedAgainMatchesWithTheMetadataItHad) {
  const Labelled index;
  delete_ids(index, {1, 2});
  insert(index, {1, 2}, {100, 200});
  EXPECT_EQ(match_ids(index, has_label(5)), (Ids{2, 1}));
  EXPECT_EQ(match_ids(index, has_value(0, 10)), (Ids{2, 1}));
  EXPECT_EQ(search_filtered(index, has_label(5), kOne, 3), found({{2, 200}, {1, 100}, kEmptySlot}));
}

TEST(Predicate, AnIdWithADeltaRowIsTestedOnceThroughIt) {
  const Labelled index;
  EXPECT_EQ(match_ids(index, has_value(1, 21)), (Ids{2, 9}));
  EXPECT_EQ(search_filtered(index, has_value(1, 21), kOne, 4),
            found({{9, 90}, {2, 20}, kEmptySlot, kEmptySlot}));
}

TEST(Predicate, MetadataWithoutARowMatchesNothing) {
  const Labelled index;
  EXPECT_EQ(match_ids(index, has_label(5)), (Ids{2, 1}));
  insert(index, {77}, {7});
  EXPECT_EQ(match_ids(index, has_label(5)), (Ids{2, 77, 1}));
}

TEST(Predicate, MoreSlotsThanPassingRowsStayEmpty) {
  const Labelled index;
  EXPECT_EQ(search_filtered(index, has_label(6), kOne, 3),
            found({{9, 90}, kEmptySlot, kEmptySlot}));
}

TEST(Predicate, KThatIsNotPositiveAsASignedNumberWritesNothing) {
  const Labelled index;
  for (const std::uint32_t k : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(search_filtered(index, kEveryId, kOne, k), nothing_written()) << "k " << k;
  }
}

TEST(Predicate, OfEqualScoresTheDeltaRowComesFirst) {
  const Index index(1);
  seal(index, 1, {1, 2}, {5, 5});
  insert(index, {9, 2}, {5, 5});
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 3), found({{9, 5}, {2, 5}, {1, 5}}));
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 1), found({{9, 5}}));
}

TEST(Predicate, EveryRowOfARepeatedBaseIdIsTested) {
  const Index index(1);
  seal(index, 1, {7, 3, 7}, {1, 2, 3});
  set_rowmeta(index, {7}, {5}, {}, 0);
  EXPECT_EQ(match_ids(index, has_label(5)), (Ids{7, 7}));
  EXPECT_EQ(search_filtered(index, has_label(5), kOne, 3), found({{7, 3}, {7, 1}, kEmptySlot}));
}

TEST(Predicate, ExtremeIdsAndValuesMatchLikeAnyOther) {
  const Index index(1);
  insert(index, {kLowestId, kHighestId}, {1, 2});
  set_rowmeta(index, {kLowestId, kHighestId}, {kHighestId, kLowestId}, {kLowestId, kHighestId}, 1);
  EXPECT_EQ(match_ids(index, has_label(kHighestId)), Ids{kLowestId});
  EXPECT_EQ(match_ids(index, has_value(0, kHighestId)), Ids{kHighestId});
  EXPECT_EQ(search_filtered(index, has_label(kLowestId), kOne, 1), found({{kHighestId, 2}}));
}

TEST(Predicate, WithoutComponentsTheFirstPassingRowsAreReturned) {
  const Index index(0);
  seal(index, 0, {1, 2, 3}, {});
  insert(index, {9}, {});
  set_rowmeta(index, {1, 3, 9}, {5, 5, 5}, {}, 0);
  EXPECT_EQ(search_filtered(index, has_label(5), {}, 2), found({{9, 0}, {1, 0}}));
}

TEST(Predicate, UnusableScoresLeaveSlotsEmpty) {
  const Index index(1);
  seal(index, 1, {1, 2, 3}, {std::numeric_limits<float>::quiet_NaN(), QX_EMPTY_SCORE, 4});
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 3), found({{3, 4}, kEmptySlot, kEmptySlot}));
}

TEST(Predicate, AnIndexWithoutRowsMatchesNothing) {
  const Index index(1);
  EXPECT_EQ(match_ids(index, kEveryId), Ids());
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 2), found({kEmptySlot, kEmptySlot}));
}

TEST(Predicate, TheBestPassingRowIsFoundWhereverItStands) {
  Ids ids;
  for (std::int64_t id = 0; id < 150; ++id) ids.push_back(id);
  for (const std::size_t at : {0u, 63u, 64u, 127u, 128u, 149u}) {
    Floats vectors(150, 1);
    vectors[at] = 2;
    const Found best = found({{static_cast<std::int64_t>(at), 2}});
    const Index base(1);
    seal(base, 1, ids, vectors);
    EXPECT_EQ(search_filtered(base, kEveryId, kOne, 1), best);
    const Index delta(1);
    insert(delta, ids, vectors);
    EXPECT_EQ(search_filtered(delta, kEveryId, kOne, 1), best);
  }
}

TEST(Predicate, ManyRowsKeepTheWalkOrder) {
  const Index index(1);
  Ids base_ids;
  Ids delta_ids;
  for (std::int64_t i = 0; i < 150; ++i) {
    base_ids.push_back(i);
    delta_ids.push_back(1000 - i);
  }
  seal(index, 1, base_ids, Floats(150, 1));
  insert(index, delta_ids, Floats(150, 1));
  std::vector<Hit> first;
  for (const std::int64_t id : delta_ids) first.push_back({id, 1});
  for (std::size_t i = 0; i < 50; ++i) first.push_back({base_ids[i], 1});
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 200), found(first));
}

}  // namespace
}  // namespace qx_test
