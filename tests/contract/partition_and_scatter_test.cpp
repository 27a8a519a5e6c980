// The two narrower exact searches of the sealed base: one partition, and a list of ids.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

// With dimension 1 and the query {1} a row's score is its only component.
const Floats kOne{1};

// Rows 0 to 5 with ids 10 to 60 and scores 1 to 6, under the given partitions.
class SixRows : public Index {
 public:
  explicit SixRows(const Partitions& parts = {}) : Index(1) {
    seal(*this, 1, {10, 20, 30, 40, 50, 60}, {1, 2, 3, 4, 5, 6}, parts);
  }
};

TEST(PartitionSearch, AnUnknownKeyWritesNothing) {
  const SixRows index({{3, 5, 9}, {0, 2, 4}, {2, 2, 2}});
  for (const std::int64_t key : {kLowestId, std::int64_t{2}, std::int64_t{4}, std::int64_t{6},
                                 std::int64_t{10}, kHighestId}) {
    EXPECT_EQ(search_partition(index, key, kOne, 2), nothing_written()) << "key " << key;
  }
}

TEST(PartitionSearch, FindsEveryKeyOfTablesOfEverySize) {
  for (std::int64_t n_parts = 1; n_parts <= 6; ++n_parts) {
    Partitions parts;
    for (std::int32_t p = 0; p < n_parts; ++p) {
      parts.keys.push_back(10 * p - 20);
      parts.starts.push_back(p);
      parts.sizes.push_back(1);
    }
    const SixRows index(parts);
    for (std::int64_t p = 0; p < n_parts; ++p) {
      EXPECT_EQ(search_partition(index, 10 * p - 20, kOne, 1),
                found({{10 * (p + 1), static_cast<float>(p + 1)}}));
    }
  }
}

TEST(PartitionSearch, TheExtremeKeysAreKeysLikeAnyOther) {
  const SixRows index({{kLowestId, -1, 0, kHighestId}, {0, 1, 2, 3}, {1, 1, 1, 1}});
  EXPECT_EQ(search_partition(index, kLowestId, kOne, 1), found({{10, 1}}));
  EXPECT_EQ(search_partition(index, -1, kOne, 1), found({{20, 2}}));
  EXPECT_EQ(search_partition(index, 0, kOne, 1), found({{30, 3}}));
  EXPECT_EQ(search_partition(index, kHighestId, kOne, 1), found({{40, 4}}));
}

TEST(PartitionSearch, OfEqualKeysTheOneThatABinarySearchMeetsFirstIsUsed) {
  const Ints starts{0, 1, 2, 3, 4};
  const Ints sizes(5, 1);
  const auto first_met = [&](const Ids& keys, std::int64_t key) {
    const SixRows index({keys, starts, sizes});
    return search_partition(index, key, kOne, 1);
  };
  EXPECT_EQ(first_met({5, 5}, 5), found({{10, 1}}));
  EXPECT_EQ(first_met({5, 5, 5}, 5), found({{20, 2}}));
  EXPECT_EQ(first_met({5, 5, 5, 5}, 5), found({{20, 2}}));
  EXPECT_EQ(first_met({5, 5, 5, 5, 5}, 5), found({{30, 3}}));
  EXPECT_EQ(first_met({5, 5, 9, 9, 9}, 5), found({{10, 1}}));
  EXPECT_EQ(first_met({1, 1, 1, 5, 5}, 5), found({{40, 4}}));
  EXPECT_EQ(first_met({1, 5, 5, 9}, 5), found({{20, 2}}));
}

TEST(PartitionSearch, ARangeThatEndsWithTheBaseIsSearched) {
  const SixRows index({{1, 2}, {4, 0}, {2, 6}});
  EXPECT_EQ(search_partition(index, 1, kOne, 2), found({{60, 6}, {50, 5}}));
  EXPECT_EQ(search_partition(index, 2, kOne, 1), found({{60, 6}}));
}

TEST(PartitionSearch, ARangeThatLeavesTheBaseByOneRowIsNotSearched) {
  const SixRows index({{1, 2, 3}, {4, 0, 6}, {3, 7, 1}});
  for (const std::int64_t key : {1, 2, 3}) {
    EXPECT_EQ(search_partition(index, key, kOne, 2), nothing_written()) << "key " << key;
  }
}

TEST(PartitionSearch, ARangeThatEndsBeyondTwoToTheThirtyOneIsNotSearched) {
  const SixRows index(
      {{1, 2, 3, 4}, {kHighest, kHighest, 1, 2}, {kHighest, 1, kHighest, kHighest}});
  for (const std::int64_t key : {1, 2, 3, 4}) {
    EXPECT_EQ(search_partition(index, key, kOne, 2), nothing_written()) << "key " << key;
  }
}

TEST(PartitionSearch, ANegativeStartOrSizeIsNotSearched) {
  const SixRows index(
      {{1, 2, 3, 4, 5}, {-1, 3, kLowest, 0, kLowest}, {3, -1, 3, kLowest, kHighest}});
  for (const std::int64_t key : {1, 2, 3, 4, 5}) {
    EXPECT_EQ(search_partition(index, key, kOne, 2), nothing_written()) << "key " << key;
  }
}

TEST(PartitionSearch, ABadRangeLeavesTheOtherPartitionsSearchable) {
  const SixRows index({{1, 2, 3}, {-1, 2, 5}, {3, 2, 9}});
  EXPECT_EQ(search_partition(index, 2, kOne, 2), found({{40, 4}, {30, 3}}));
}

TEST(PartitionSearch, RangesMayOverlap) {
  const SixRows index({{1, 2}, {0, 1}, {3, 3}});
  EXPECT_EQ(search_partition(index, 1, kOne, 2), found({{30, 3}, {20, 2}}));
  EXPECT_EQ(search_partition(index, 2, kOne, 2), found({{40, 4}, {30, 3}}));
}

TEST(PartitionSearch, APartitionWithoutRowsWritesNothing) {
  const SixRows index({{1, 2, 3}, {0, 3, 6}, {0, 0, 0}});
  for (const std::int64_t key : {1, 2, 3}) {
    EXPECT_EQ(search_partition(index, key, kOne, 2), nothing_written()) << "key " << key;
  }
}

TEST(PartitionSearch, ReturnsTheWholePartitionFromBestToWorstWhenKExceedsIt) {
  const SixRows index({{1}, {1}, {3}});
  const Found whole = found({{40, 4}, {30, 3}, {20, 2}});
  EXPECT_EQ(search_partition(index, 1, kOne, 4), whole);
  EXPECT_EQ(search_partition(index, 1, kOne, kHighest), whole);
  EXPECT_EQ(search_partition(index, 1, {-1}, 5), found({{20, -2}, {30, -3}, {40, -4}}));
}

TEST(PartitionSearch, KBelowOneWritesNothing) {
  const SixRows index({{1}, {0}, {6}});
  for (const std::int32_t k : {0, -1, kLowest}) {
    EXPECT_EQ(search_partition(index, 1, kOne, k), nothing_written()) << "k " << k;
  }
}

TEST(PartitionSearch, AnIndexWithoutPartitionsHasNoKeys) {
  const Index unsealed(1);
  EXPECT_EQ(search_partition(unsealed, 0, kOne, 2), nothing_written());
  const SixRows sealed;
  EXPECT_EQ(search_partition(sealed, 0, kOne, 2), nothing_written());
}

TEST(PartitionSearch, WithoutComponentsTheFirstRowsOfThePartitionAreReturned) {
  const Index index(0);
  seal(index, 0, {4, 8, 2, 6}, {}, {{7}, {1}, {3}});
  EXPECT_EQ(search_partition(index, 7, {}, 2), found({{8, 0}, {2, 0}}));
}

TEST(PartitionSearch, EqualScoresKeepTheRowOrder) {
  const Index index(1);
  seal(index, 1, {1, 2, 3, 4}, {5, 5, 5, 5}, {{7}, {1}, {3}});
  EXPECT_EQ(search_partition(index, 7, kOne, 2), found({{2, 5}, {3, 5}}));
}

TEST(PartitionSearch, SeesTheSealedBaseAlone) {
  const SixRows index({{1}, {0}, {3}});
  delete_ids(index, {30});
  insert(index, {20, 70}, {99, 100});
  EXPECT_EQ(search_partition(index, 1, kOne, 3), found({{30, 3}, {20, 2}, {10, 1}}));
}

TEST(ScatterTopK, ReturnsMinOfKAndTheCandidatesHoweverFewAreKnown) {
  const SixRows index;
  EXPECT_EQ(scatter(index, {11, 99, 30, -4, 0}, kOne, 3), found({{30, 3}, kEmptySlot, kEmptySlot}));
}

TEST(ScatterTopK, TheLargestBaseIdIsFoundAndTheNextOneIsNot) {
  const SixRows index;
  EXPECT_EQ(scatter(index, {60}, kOne, 1), found({{60, 6}}));
  EXPECT_EQ(scatter(index, {61}, kOne, 1), found({kEmptySlot}));
  EXPECT_EQ(scatter(index, {61, 60}, kOne, 2), found({{60, 6}, kEmptySlot}));
}

TEST(ScatterTopK, NegativeAndHugeIdsAreSkipped) {
  const SixRows index;
  EXPECT_EQ(scatter(index, {-1, kLowestId, 10, kHighestId, QX_MAX_BASE_ID + 1, -10}, kOne, 2),
            found({{10, 1}, kEmptySlot}));
}

TEST(ScatterTopK, IdsBetweenTheBaseIdsAreSkipped) {
  const SixRows index;
  EXPECT_EQ(scatter(index, {0, 9, 11, 59, 20}, kOne, 2), found({{20, 2}, kEmptySlot}));
}

TEST(ScatterTopK, WithoutComponentsTheFirstKnownCandidatesAreReturned) {
  const Index index(0);
  seal(index, 0, {4, 8, 2, 6}, {});
  EXPECT_EQ(scatter(index, {6, 5, 8, 4}, {}, 2), found({{6, 0}, {8, 0}}));
}

TEST(ScatterTopK, ACandidateListedTwiceMayFillTwoSlots) {
  const SixRows index;
  EXPECT_EQ(scatter(index, {20, 10, 20}, kOne, 3), found({{20, 2}, {20, 2}, {10, 1}}));
  EXPECT_EQ(scatter(index, {20, 10, 20}, kOne, 2), found({{20, 2}, {20, 2}}));
}

TEST(ScatterTopK, ARepeatedBaseIdIsScoredOnItsLastRow) {
  const Index index(1);
  seal(index, 1, {7, 3, 7, 4}, {9, 2, 3, 1});
  EXPECT_EQ(scatter(index, {7, 3}, kOne, 2), found({{7, 3}, {3, 2}}));
}

TEST(ScatterTopK, EqualScoresKeepTheOrderOfTheList) {
  const Index index(1);
  seal(index, 1, {1, 2, 3, 4}, {5, 5, 5, 6});
  EXPECT_EQ(scatter(index, {3, 1, 4, 2}, kOne, 3), found({{4, 6}, {3, 5}, {1, 5}}));
  EXPECT_EQ(scatter(index, {3, 1, 2}, kOne, 1), found({{3, 5}}));
}

TEST(ScatterTopK, ALongListIsOfferedInOrder) {
  const Index index(1);
  Ids ids;
  for (std::int64_t id = 0; id < 300; ++id) ids.push_back(id);
  seal(index, 1, ids, Floats(300, 1));
  Ids listed(ids.rbegin(), ids.rend());
  std::vector<Hit> first;
  for (std::int64_t id = 299; id >= 150; --id) first.push_back({id, 1});
  EXPECT_EQ(scatter(index, listed, kOne, 150), found(first));
}

TEST(ScatterTopK, ListsOfEveryLengthAreOfferedWhole) {
  const SixRows index;
  for (std::size_t length = 1; length <= 200; ++length) {
    Ids listed(length, 10);
    listed.back() = 60;
    ASSERT_EQ(scatter(index, listed, kOne, 1), found({{60, 6}})) << "length " << length;
  }
}

TEST(ScatterTopK, WithoutResultsOrCandidatesWritesNothing) {
  const SixRows index;
  for (const std::int32_t k : {0, -1, kLowest}) {
    EXPECT_EQ(scatter(index, {10, 20}, kOne, k), nothing_written()) << "k " << k;
  }
  for (const std::int32_t n : {0, -1, kLowest}) {
    EXPECT_EQ(run_search(2,
                         [&](std::int64_t* ids, float* scores) {
                           return qx_index_scatter_topk(index, nullptr, n, kOne.data(), 2, ids,
                                                        scores);
                         }),
              nothing_written())
        << "n_cand " << n;
  }
}

TEST(ScatterTopK, AnUnsealedIndexIsNotSearched) {
  const Index index(1);
  insert(index, {1}, {1});
  EXPECT_EQ(scatter(index, {1}, kOne, 1), nothing_written());
}

TEST(ScatterTopK, SeesTheSealedBaseAlone) {
  const SixRows index;
  delete_ids(index, {30});
  insert(index, {20, 70}, {99, 100});
  EXPECT_EQ(scatter(index, {20, 30, 70}, kOne, 3), found({{30, 3}, {20, 2}, kEmptySlot}));
}

TEST(ScatterTopK, UnusableScoresLeaveSlotsEmpty) {
  const Index index(1);
  seal(index, 1, {1, 2, 3}, {std::numeric_limits<float>::quiet_NaN(), QX_EMPTY_SCORE, -4});
  EXPECT_EQ(scatter(index, {1, 2, 3}, kOne, 3), found({{3, -4}, kEmptySlot, kEmptySlot}));
}

}  // namespace
}  // namespace qx_test
