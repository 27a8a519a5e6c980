// Search among listed ids in their current state: the visibility rule, id by id.
#include <cmath>
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();

// With dimension 1 and the query {1} a row's score is its only component.
const Floats kOne{1};

// Base rows with ids 1 to 4 and scores 1 to 4.
class FourRows : public Index {
 public:
  FourRows() : Index(1) { seal(*this, 1, {1, 2, 3, 4}, {1, 2, 3, 4}); }
};

TEST(CurrentSearch, KThatIsNotPositiveAsASignedNumberWritesNothing) {
  const FourRows index;
  for (const std::uint32_t k : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(search_mvcc(index, {1, 2}, kOne, k), nothing_written()) << "k " << k;
  }
}

TEST(CurrentSearch, WithoutCandidatesEverySlotIsEmpty) {
  const FourRows index;
  for (const std::int32_t n : {0, -1, std::numeric_limits<std::int32_t>::min()}) {
    EXPECT_EQ(run_search(2,
                         [&](std::int64_t* ids, float* scores) {
                           return qx_index_search_mvcc(index, nullptr, n, kOne.data(), 2, ids,
                                                       scores);
                         }),
              found({kEmptySlot, kEmptySlot}))
        << "n " << n;
  }
}

TEST(CurrentSearch, FewerLiveCandidatesThanKLeaveTheTailEmpty) {
  const FourRows index;
  delete_ids(index, {2});
  EXPECT_EQ(search_mvcc(index, {1, 2, 3}, kOne, 4),
            found({{3, 3}, {1, 1}, kEmptySlot, kEmptySlot}));
}

TEST(CurrentSearch, TheBestCandidatesAreKept) {
  const FourRows index;
  EXPECT_EQ(search_mvcc(index, {1, 4, 2, 3}, kOne, 2), found({{4, 4}, {3, 3}}));
}

TEST(CurrentSearch, AnIdListedTwiceMayFillTwoSlots) {
  const FourRows index;
  insert(index, {9}, {9});
  EXPECT_EQ(search_mvcc(index, {2, 9, 2, 9}, kOne, 5),
            found({{9, 9}, {9, 9}, {2, 2}, {2, 2}, kEmptySlot}));
}

TEST(CurrentSearch, AnIdInsertedAfterItsDeleteIsFoundThroughItsDeltaRow) {
  const FourRows index;
  delete_ids(index, {2});
  EXPECT_EQ(search_mvcc(index, {2}, kOne, 1), found({kEmptySlot}));
  insert(index, {2}, {20});
  EXPECT_EQ(search_mvcc(index, {2}, kOne, 2), found({{2, 20}, kEmptySlot}));
}

TEST(CurrentSearch, ADeltaRowStandsForItsBaseRow) {
  const FourRows index;
  insert(index, {4}, {-4});
  EXPECT_EQ(search_mvcc(index, {4, 1}, kOne, 3), found({{1, 1}, {4, -4}, kEmptySlot}));
}

TEST(CurrentSearch, ADeletedDeltaRowHidesItsBaseRowToo) {
  const FourRows index;
  insert(index, {4}, {-4});
  delete_ids(index, {4});
  EXPECT_EQ(search_mvcc(index, {4, 1}, kOne, 2), found({{1, 1}, kEmptySlot}));
}

TEST(CurrentSearch, OfEqualScoresTheCandidateListedEarlierComesFirst) {
  const FourRows index;
  insert(index, {8, 9}, {3, 3});
  EXPECT_EQ(search_mvcc(index, {9, 3, 8, 1}, kOne, 4), found({{9, 3}, {3, 3}, {8, 3}, {1, 1}}));
  EXPECT_EQ(search_mvcc(index, {3, 8, 9}, kOne, 3), found({{3, 3}, {8, 3}, {9, 3}}));
}

TEST(CurrentSearch, AScoreEqualToTheLastSlotDoesNotEnter) {
  const FourRows index;
  insert(index, {8, 9}, {3, 3});
  EXPECT_EQ(search_mvcc(index, {9, 3, 8}, kOne, 1), found({{9, 3}}));
  EXPECT_EQ(search_mvcc(index, {9, 3, 8, 4}, kOne, 2), found({{4, 4}, {9, 3}}));
}

TEST(CurrentSearch, ARepeatedBaseIdIsScoredOnItsLastRow) {
  const Index index(1);
  seal(index, 1, {5, 6, 5}, {9, 2, 3});
  EXPECT_EQ(search_mvcc(index, {5, 6}, kOne, 2), found({{5, 3}, {6, 2}}));
}

TEST(CurrentSearch, AScoreOfTheEmptySlotOrLessNeverEnters) {
  const float below = std::nextafter(QX_EMPTY_SCORE, -kInfinity);
  const float above = std::nextafter(QX_EMPTY_SCORE, kInfinity);
  const Index index(1);
  seal(index, 1, {1, 2}, {QX_EMPTY_SCORE, below});
  insert(index, {8, 9, 10}, {QX_EMPTY_SCORE, -kInfinity, above});
  EXPECT_EQ(search_mvcc(index, {1, 2, 8, 9}, kOne, 2), found({kEmptySlot, kEmptySlot}));
  EXPECT_EQ(search_mvcc(index, {1, 2, 8, 9, 10}, kOne, 2), found({{10, above}, kEmptySlot}));
}

TEST(CurrentSearch, ANaNNeverEnters) {
  const Index index(1);
  insert(index, {1, 2, 3}, {std::numeric_limits<float>::quiet_NaN(), 7, kInfinity});
  EXPECT_EQ(search_mvcc(index, {1, 2, 3}, kOne, 3), found({{3, kInfinity}, {2, 7}, kEmptySlot}));
  EXPECT_EQ(search_mvcc(index, {3}, {0}, 1), found({kEmptySlot}));
}

TEST(CurrentSearch, UnknownIdsAreSkipped) {
  const FourRows index;
  EXPECT_EQ(search_mvcc(index, {0, 5, -1, kLowestId, kHighestId, 1}, kOne, 2),
            found({{1, 1}, kEmptySlot}));
}

TEST(CurrentSearch, AnyIdCanBeFoundOnceItIsInserted) {
  const FourRows index;
  insert(index, {kLowestId, kHighestId, -1, 5}, {10, 20, 30, 40});
  EXPECT_EQ(search_mvcc(index, {kLowestId, kHighestId, -1, 5}, kOne, 4),
            found({{5, 40}, {-1, 30}, {kHighestId, 20}, {kLowestId, 10}}));
  delete_ids(index, {kHighestId, kLowestId});
  EXPECT_EQ(search_mvcc(index, {kLowestId, kHighestId, -1, 5}, kOne, 3),
            found({{5, 40}, {-1, 30}, kEmptySlot}));
}

TEST(CurrentSearch, BeforeABuildOnlyInsertedRowsAreFound) {
  const Index index(1);
  insert(index, {1}, {10});
  EXPECT_EQ(search_mvcc(index, {0, 1, 2}, kOne, 2), found({{1, 10}, kEmptySlot}));
}

TEST(CurrentSearch, WithoutComponentsTheFirstLiveCandidatesAreReturned) {
  const Index index(0);
  seal(index, 0, {1, 2, 3}, {});
  insert(index, {3, 9}, {});
  delete_ids(index, {2});
  EXPECT_EQ(search_mvcc(index, {9, 2, 1, 3}, {}, 2), found({{9, 0}, {1, 0}}));
}

TEST(CurrentSearch, ChangesNothing) {
  const FourRows index;
  insert(index, {2, 9}, {20, 90});
  delete_ids(index, {1});
  const Observed before = observe(index);
  search_mvcc(index, {1, 2, 3, 9, 77}, kOne, 5);
  EXPECT_EQ(observe(index), before);
}

TEST(CurrentSearch, ALongListIsOfferedInOrder) {
  const Index index(1);
  Ids base_ids;
  Ids delta_ids;
  for (std::int64_t id = 0; id < 150; ++id) {
    base_ids.push_back(id);
    delta_ids.push_back(1000 + id);
  }
  seal(index, 1, base_ids, Floats(150, 1));
  insert(index, delta_ids, Floats(150, 1));
  Ids listed;
  std::vector<Hit> first;
  for (std::size_t i = 0; i < 150; ++i) {
    listed.push_back(delta_ids[i]);
    listed.push_back(base_ids[149 - i]);
  }
  for (std::size_t i = 0; i < 200; ++i) first.push_back({listed[i], 1});
  EXPECT_EQ(search_mvcc(index, listed, kOne, 200), found(first));
}

}  // namespace
}  // namespace qx_test
