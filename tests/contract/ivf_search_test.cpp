// Search through IVF lists: the lists that are scanned, their order, and the rows that they give.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

// With dimension 1 and the query {1} a row's or a centroid's score is its only component.
const Floats kOne{1};

// Rows with ids 1 to 6 and scores 1 to 6, and a structure under key 7.
class SixRows : public Index {
 public:
  explicit SixRows(const Ivf& ivf) : Index(1) {
    seal(*this, 1, {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6});
    set_ivf(*this, 7, ivf);
  }
};

// Six rows that all score 1: the order of a result is the order in which rows were offered.
class SixEqualRows : public Index {
 public:
  explicit SixEqualRows(const Ivf& ivf) : Index(1) {
    seal(*this, 1, {1, 2, 3, 4, 5, 6}, Floats(6, 1));
    set_ivf(*this, 7, ivf);
  }
};

TEST(IvfSearch, AnUnknownKeyWritesNothing) {
  const SixRows index({1, 1, {1}, {1}, {0, 1}});
  EXPECT_EQ(search_ivf(index, 8, kOne, 2), nothing_written());
  const Index bare(1);
  EXPECT_EQ(search_ivf(bare, 7, kOne, 2), nothing_written());
}

TEST(IvfSearch, KBelowOneWritesNothing) {
  const SixRows index({1, 1, {1}, {1}, {0, 1}});
  for (const std::int32_t k : {0, -1, kLowest}) {
    EXPECT_EQ(search_ivf(index, 7, kOne, k), nothing_written()) << "k " << k;
  }
}

TEST(IvfSearch, AStructureWithoutListsWritesNothing) {
  const SixRows index({0, 1, {}, {}, {0}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), nothing_written());
}

TEST(IvfSearch, WithoutProbesEverySlotIsEmpty) {
  for (const std::int32_t nprobe : {0, -1, kLowest}) {
    const SixRows index({2, nprobe, {1, 2}, {1, 2}, {0, 1, 2}});
    EXPECT_EQ(search_ivf(index, 7, kOne, 3), found({kEmptySlot, kEmptySlot, kEmptySlot}));
  }
}

TEST(IvfSearch, ScansTheListsOfTheBestCentroids) {
  const Ivf ivf{3, 1, {5, 9, 7}, {1, 2, 3, 4, 5, 6}, {0, 2, 4, 6}};
  const SixRows index(ivf);
  EXPECT_EQ(search_ivf(index, 7, kOne, 3), found({{4, 4}, {3, 3}, kEmptySlot}));
  qx_index_set_ivf_nprobe(index, 7, 2);
  EXPECT_EQ(search_ivf(index, 7, kOne, 3), found({{6, 6}, {5, 5}, {4, 4}}));
  EXPECT_EQ(search_ivf(index, 7, {-1}, 3), found({{1, -1}, {2, -2}, {5, -5}}));
}

TEST(IvfSearch, TheBestListIsScannedFirst) {
  const SixEqualRows index({3, 3, {5, 9, 7}, {1, 2, 3, 4, 5, 6}, {0, 2, 4, 6}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 6), found({{3, 1}, {4, 1}, {5, 1}, {6, 1}, {1, 1}, {2, 1}}));
}

TEST(IvfSearch, OfTwoCentroidsWithEqualScoresTheLowerListIsScannedFirst) {
  const SixEqualRows all({3, 3, {5, 5, 5}, {1, 2, 3}, {0, 1, 2, 3}});
  EXPECT_EQ(search_ivf(all, 7, kOne, 3), found({{1, 1}, {2, 1}, {3, 1}}));
  const SixEqualRows one({3, 1, {4, 5, 5}, {1, 2, 3}, {0, 1, 2, 3}});
  EXPECT_EQ(search_ivf(one, 7, kOne, 2), found({{2, 1}, kEmptySlot}));
}

TEST(IvfSearch, EveryListIsScannedOnceWhenTheProbesExceedTheLists) {
  for (const std::int32_t nprobe : {3, 4, 100, kHighest}) {
    const SixRows index({3, nprobe, {5, 9, 7}, {1, 2, 3}, {0, 1, 2, 3}});
    EXPECT_EQ(search_ivf(index, 7, kOne, 5),
              found({{3, 3}, {2, 2}, {1, 1}, kEmptySlot, kEmptySlot}));
  }
}

TEST(IvfSearch, AListWhoseCentroidScoresTheEmptySlotOrLessIsNeverScanned) {
  const SixRows index(
      {5, 9, {QX_EMPTY_SCORE, -kInfinity, kNaN, -9e29f, 2}, {1, 2, 3, 4, 5}, {0, 1, 2, 3, 4, 5}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 3), found({{5, 5}, {4, 4}, kEmptySlot}));
}

TEST(IvfSearch, WithoutAUsableCentroidNothingIsFound) {
  const SixRows index({2, 2, {kNaN, -kInfinity}, {1, 2}, {0, 1, 2}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({kEmptySlot, kEmptySlot}));
}

TEST(IvfSearch, AnInfiniteCentroidIsScannedOnce) {
  const SixRows index({2, 3, {1, kInfinity}, {1, 2}, {0, 1, 2}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 3), found({{2, 2}, {1, 1}, kEmptySlot}));
}

TEST(IvfSearch, OfTwoRowsWithEqualScoresTheOneScannedFirstComesFirst) {
  const SixEqualRows index({2, 2, {1, 2}, {4, 1, 6, 2}, {0, 2, 4}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 4), found({{6, 1}, {2, 1}, {4, 1}, {1, 1}}));
}

TEST(IvfSearch, AnEqualScoreDoesNotDisplaceTheLastSlot) {
  const SixEqualRows index({2, 2, {1, 2}, {4, 1, 6, 2}, {0, 2, 4}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 1), found({{6, 1}}));
  EXPECT_EQ(search_ivf(index, 7, kOne, 3), found({{6, 1}, {2, 1}, {4, 1}}));
}

TEST(IvfSearch, AListWithEqualOrDecreasingOffsetsIsEmpty) {
  const SixRows index({4, 4, {4, 3, 2, 1}, {1, 2, 3}, {2, 2, 3, 0, 1}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 3), found({{3, 3}, {1, 1}, kEmptySlot}));
}

TEST(IvfSearch, AnEmptyListMayPointAnywhere) {
  const SixRows index({3, 3, {3, 2, 1}, {1, 2}, {kHighest, kHighest, 9, kLowest}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 1), found({kEmptySlot}));
}

TEST(IvfSearch, ListsMayOverlapAndLeaveMembersOut) {
  const SixRows index({2, 2, {2, 1}, {1, 2, 3, 4, 5}, {1, 3, 4}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 4), found({{4, 4}, {3, 3}, {2, 2}, kEmptySlot}));
}

TEST(IvfSearch, AnOffsetPastTheEndOfTheIdsEndsTheProcess) {
  const SixRows by_one({1, 1, {1}, {1, 2, 3}, {0, 4}});
  EXPECT_TRUE(ends_out_of_bounds(3, 3, [&] { search_ivf(by_one, 7, kOne, 2); }));
  const SixRows wholly({1, 1, {1}, {1, 2, 3}, {5, 6}});
  EXPECT_TRUE(ends_out_of_bounds(5, 3, [&] { search_ivf(wholly, 7, kOne, 2); }));
  const SixRows without_ids({1, 1, {1}, {}, {0, 1}});
  EXPECT_TRUE(ends_out_of_bounds(0, 0, [&] { search_ivf(without_ids, 7, kOne, 2); }));
  const SixRows far({1, 1, {1}, {1, 2, 3}, {1, kHighest}});
  EXPECT_TRUE(ends_out_of_bounds(3, 3, [&] { search_ivf(far, 7, kOne, 2); }));
}

TEST(IvfSearch, ANegativeOffsetEndsTheProcess) {
  const SixRows index({1, 1, {1}, {1, 2, 3}, {-1, 2}});
  EXPECT_TRUE(ends_out_of_bounds(-1, 3, [&] { search_ivf(index, 7, kOne, 2); }));
  const SixRows lowest({1, 1, {1}, {1, 2, 3}, {kLowest, kHighest}});
  EXPECT_TRUE(ends_out_of_bounds(kLowest, 3, [&] { search_ivf(lowest, 7, kOne, 2); }));
}

TEST(IvfSearch, ABadOffsetOfAListThatIsNotScannedIsHarmless) {
  const SixRows index({2, 1, {2, 1}, {1, 2, 3}, {0, 2, 9}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{2, 2}, {1, 1}}));
  qx_index_set_ivf_nprobe(index, 7, 2);
  EXPECT_TRUE(ends_out_of_bounds(3, 3, [&] { search_ivf(index, 7, kOne, 2); }));
}

TEST(IvfSearch, DeletedRowsAreStillReturned) {
  const SixRows index({1, 1, {1}, {1, 2}, {0, 2}});
  delete_ids(index, {2});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{2, 2}, {1, 1}}));
}

TEST(IvfSearch, InsertedRowsAreNeverReturned) {
  const SixRows index({1, 1, {1}, {1, 9}, {0, 2}});
  insert(index, {9}, {90});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{1, 1}, kEmptySlot}));
}

TEST(IvfSearch, ABaseIdInsertedAgainIsScoredWithItsBaseVector) {
  const SixRows index({1, 1, {1}, {1, 2}, {0, 2}});
  insert(index, {1}, {50});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{2, 2}, {1, 1}}));
}

TEST(IvfSearch, AnIdInTwoScannedListsMayFillTwoSlots) {
  const SixRows index({2, 2, {2, 1}, {1, 5, 5, 2}, {0, 2, 4}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 4), found({{5, 5}, {5, 5}, {2, 2}, {1, 1}}));
}

TEST(IvfSearch, AnIdTwiceInOneListMayFillTwoSlots) {
  const SixRows index({1, 1, {1}, {3, 1, 3}, {0, 3}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{3, 3}, {3, 3}}));
}

TEST(IvfSearch, MoreSlotsThanMembersStayEmpty) {
  const SixRows index({1, 1, {1}, {2, 4, 3}, {0, 3}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 5), found({{4, 4}, {3, 3}, {2, 2}, kEmptySlot, kEmptySlot}));
}

TEST(IvfSearch, KIsNotLimitedByTheBase) {
  const SixRows index({1, 1, {1}, {2}, {0, 1}});
  const Found many = search_ivf(index, 7, kOne, 200);
  EXPECT_EQ(many.returned, 200);
  ASSERT_EQ(many.slots.size(), 200u);
  EXPECT_EQ(many.slots[0], (Hit{2, 2}));
  EXPECT_EQ(std::vector<Hit>(many.slots.begin() + 1, many.slots.end()),
            std::vector<Hit>(199, kEmptySlot));
}

TEST(IvfSearch, MembersWithoutABaseRowAreSkipped) {
  const SixRows index(
      {1, 1, {1}, {-1, 0, 7, 2, kLowestId, kHighestId, QX_MAX_BASE_ID + 1}, {0, 7}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{2, 2}, kEmptySlot}));
}

TEST(IvfSearch, ARepeatedBaseIdIsScoredOnItsLastRow) {
  const Index index(1);
  seal(index, 1, {5, 6, 5}, {9, 2, 3});
  set_ivf(index, 7, {1, 1, {1}, {5, 6}, {0, 2}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{5, 3}, {6, 2}}));
}

TEST(IvfSearch, AnIndexThatIsNotSealedFindsNothing) {
  const Index index(1);
  insert(index, {0, 1}, {1, 1});
  set_ivf(index, 7, {1, 1, {1}, {0, 1}, {0, 2}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({kEmptySlot, kEmptySlot}));
}

TEST(IvfSearch, WithoutComponentsListsAndRowsComeInOrder) {
  const Index index(0);
  seal(index, 0, {1, 2, 3}, {});
  set_ivf(index, 7, {2, 2, {}, {3, 1, 2}, {0, 1, 3}});
  EXPECT_EQ(search_ivf(index, 7, {}, 4), found({{3, 0}, {1, 0}, {2, 0}, kEmptySlot}));
  qx_index_set_ivf_nprobe(index, 7, 1);
  EXPECT_EQ(search_ivf(index, 7, {}, 2), found({{3, 0}, kEmptySlot}));
}

TEST(IvfSearch, CentroidsAreRowsOfTheirMatrix) {
  const Index index(2);
  seal(index, 2, {1, 2, 3}, {1, 0, 0, 1, 1, 1});
  set_ivf(index, 7, {3, 1, {1, 0, 0, 1, -1, -1}, {1, 2, 3}, {0, 1, 2, 3}});
  EXPECT_EQ(search_ivf(index, 7, {2, 1}, 1), found({{1, 2}}));
  EXPECT_EQ(search_ivf(index, 7, {1, 3}, 1), found({{2, 3}}));
  EXPECT_EQ(search_ivf(index, 7, {-1, -3}, 1), found({{3, -4}}));
}

TEST(IvfSearch, AMemberWithAnUnusableScoreIsNotFound) {
  const Index index(1);
  seal(index, 1, {1, 2, 3, 4}, {kNaN, QX_EMPTY_SCORE, -5, -kInfinity});
  set_ivf(index, 7, {1, 1, {1}, {1, 2, 3, 4}, {0, 4}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{3, -5}, kEmptySlot}));
}

TEST(IvfSearch, ALongListIsOfferedInOrder) {
  Ids members;
  std::vector<Hit> first;
  for (std::int64_t i = 0; i < 200; ++i) members.push_back(i % 6 + 1);
  for (std::size_t i = 0; i < 150; ++i) first.push_back({members[i], 1});
  const SixEqualRows index({1, 1, {1}, members, {0, 200}});
  EXPECT_EQ(search_ivf(index, 7, kOne, 150), found(first));
}

}  // namespace
}  // namespace qx_test
