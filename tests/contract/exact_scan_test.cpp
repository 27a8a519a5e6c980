// Exact search of the whole sealed base: the rows that enter a result, and their order.
#include <algorithm>
#include <cmath>
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr std::int32_t kLowestK = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighestK = std::numeric_limits<std::int32_t>::max();

// With dimension 1 and the query {1} a row's score is its only component.
const Floats kOne{1};

TEST(ExactScan, ReturnsEveryRowFromBestToWorstWhenKExceedsTheBase) {
  const Index index(1);
  seal(index, 1, {10, 20, 30, 40}, {2, 4, 1, 3});
  const Found all = found({{20, 4}, {40, 3}, {10, 2}, {30, 1}});
  EXPECT_EQ(search_full(index, kOne, 5), all);
  EXPECT_EQ(search_full(index, kOne, 4), all);
  EXPECT_EQ(search_full(index, kOne, kHighestK), all);
}

TEST(ExactScan, KeepsTheBestRowsWhenTheBaseExceedsK) {
  const Index index(1);
  seal(index, 1, {10, 20, 30, 40}, {2, 4, 1, 3});
  EXPECT_EQ(search_full(index, kOne, 3), found({{20, 4}, {40, 3}, {10, 2}}));
  EXPECT_EQ(search_full(index, kOne, 1), found({{20, 4}}));
}

TEST(ExactScan, OfTwoRowsWithEqualScoresTheLowerRowComesFirst) {
  const Index index(1);
  seal(index, 1, {9, 3, 5, 1}, {1, 2, 1, 2});
  EXPECT_EQ(search_full(index, kOne, 4), found({{3, 2}, {1, 2}, {9, 1}, {5, 1}}));
}

TEST(ExactScan, OfTwoRowsWithEqualScoresTheLowerRowIsKept) {
  const Index index(1);
  seal(index, 1, {9, 3, 5, 1}, {1, 2, 1, 2});
  EXPECT_EQ(search_full(index, kOne, 1), found({{3, 2}}));
  EXPECT_EQ(search_full(index, kOne, 3), found({{3, 2}, {1, 2}, {9, 1}}));
}

TEST(ExactScan, TiesKeepTheBaseOrderOverALongBase) {
  const Index index(1);
  Ids ids;
  Floats vectors;
  std::vector<Hit> ones;
  for (std::int64_t row = 0; row < 1000; ++row) {
    ids.push_back(5000 - row);
    vectors.push_back(row % 3 == 0 ? 1.0f : 0.5f);
    if (row % 3 == 0 && ones.size() < 150) ones.push_back({ids.back(), 1});
  }
  seal(index, 1, ids, vectors);
  EXPECT_EQ(search_full(index, kOne, 150), found(ones));
}

TEST(ExactScan, TheBestRowIsFoundWhereverItStands) {
  for (const std::size_t at : {0u, 15u, 16u, 63u, 64u, 65u, 127u, 128u, 199u}) {
    const Index index(1);
    Ids ids;
    for (std::int64_t row = 0; row < 200; ++row) ids.push_back(row);
    Floats vectors(200, 1);
    vectors[at] = 2;
    seal(index, 1, ids, vectors);
    EXPECT_EQ(search_full(index, kOne, 1), found({{static_cast<std::int64_t>(at), 2}}));
  }
}

TEST(ExactScan, BasesOfEverySizeAreScannedWhole) {
  for (std::int64_t rows = 1; rows <= 200; ++rows) {
    Ids ids;
    Floats vectors;
    for (std::int64_t row = 0; row < rows; ++row) {
      ids.push_back(row);
      vectors.push_back(static_cast<float>(row));
    }
    const Index index(1);
    seal(index, 1, ids, vectors);
    ASSERT_EQ(search_full(index, kOne, 1), found({{rows - 1, vectors.back()}}));
  }
}

TEST(ExactScan, WithoutComponentsEveryScoreIsZeroAndTheFirstRowsAreReturned) {
  const Index index(4);
  seal(index, 0, {9, 3, 5}, {});
  EXPECT_EQ(search_full(index, {}, 2), found({{9, 0}, {3, 0}}));
  EXPECT_EQ(search_full(index, {}, 4), found({{9, 0}, {3, 0}, {5, 0}}));
}

TEST(ExactScan, AnUnsealedIndexIsNotSearched) {
  const Index index(1);
  insert(index, {1}, {1});
  EXPECT_EQ(search_full(index, kOne, 3), nothing_written());
}

TEST(ExactScan, KBelowOneWritesNothing) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2});
  for (const std::int32_t k : {0, -1, kLowestK}) {
    EXPECT_EQ(search_full(index, kOne, k), nothing_written()) << "k " << k;
  }
}

TEST(ExactScan, DeletedIdsAreStillReturned) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2});
  delete_ids(index, {2});
  EXPECT_EQ(search_full(index, kOne, 2), found({{2, 2}, {1, 1}}));
}

TEST(ExactScan, InsertedRowsAreNotSeen) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2});
  insert(index, {1, 7}, {10, 70});
  EXPECT_EQ(search_full(index, kOne, 3), found({{2, 2}, {1, 1}}));
}

TEST(ExactScan, ARepeatedIdIsReturnedOncePerRow) {
  const Index index(1);
  seal(index, 1, {7, 3, 7, 7}, {1, 2, 3, 1});
  EXPECT_EQ(search_full(index, kOne, 4), found({{7, 3}, {3, 2}, {7, 1}, {7, 1}}));
}

TEST(ExactScan, ARowWithANaNScoreLeavesASlotEmpty) {
  const Index index(1);
  seal(index, 1, {1, 2, 3}, {kNaN, 5, -kNaN});
  EXPECT_EQ(search_full(index, kOne, 3), found({{2, 5}, kEmptySlot, kEmptySlot}));
  EXPECT_EQ(search_full(index, {kNaN}, 2), found({kEmptySlot, kEmptySlot}));
  EXPECT_EQ(search_full(index, {kNaN}, 1), found({kEmptySlot}));
}

TEST(ExactScan, ARowBetweenNaNRowsTakesItsPlace) {
  const Index index(1);
  seal(index, 1, {1, 2, 3, 4, 5}, {kNaN, 1, kNaN, 2, kNaN});
  EXPECT_EQ(search_full(index, kOne, 2), found({{4, 2}, {2, 1}}));
}

TEST(ExactScan, AScoreOfTheEmptySlotOrLessNeverEnters) {
  const float below = std::nextafter(QX_EMPTY_SCORE, -kInfinity);
  const Index index(1);
  seal(index, 1, {1, 2, 3}, {QX_EMPTY_SCORE, below, -kInfinity});
  EXPECT_EQ(search_full(index, kOne, 3), found({kEmptySlot, kEmptySlot, kEmptySlot}));
  EXPECT_EQ(search_full(index, kOne, 1), found({kEmptySlot}));
}

TEST(ExactScan, AScoreJustAboveTheEmptySlotEnters) {
  const float above = std::nextafter(QX_EMPTY_SCORE, kInfinity);
  const Index index(1);
  seal(index, 1, {1, 2}, {QX_EMPTY_SCORE, above});
  EXPECT_EQ(search_full(index, kOne, 2), found({{2, above}, kEmptySlot}));
}

TEST(ExactScan, AnEmptySlotIsMinusOneAndTheNamedBits) {
  const Index index(1);
  seal(index, 1, {1}, {kNaN});
  const Found nothing = search_full(index, kOne, 1);
  ASSERT_EQ(nothing.slots.size(), 1u);
  EXPECT_EQ(nothing.slots[0].id, -1);
  EXPECT_EQ(bits_of(nothing.slots[0].score), 0xF149F2CAu);
}

TEST(ExactScan, InfiniteScoresTakeTheirPlaceInTheOrder) {
  const Index index(1);
  seal(index, 1, {1, 2, 3, 4, 5}, {1, kInfinity, -kInfinity, kInfinity, 3e38f});
  EXPECT_EQ(search_full(index, kOne, 5),
            found({{2, kInfinity}, {4, kInfinity}, {5, 3e38f}, {1, 1}, kEmptySlot}));
  EXPECT_EQ(search_full(index, {-1}, 2), found({{3, kInfinity}, {1, -1}}));
}

TEST(ExactScan, InfinitiesThatCancelGiveANaN) {
  const Index index(1);
  seal(index, 2, {1, 2, 3}, {kInfinity, -kInfinity, 1, 1, kInfinity, 0});
  EXPECT_EQ(search_full(index, {1, 1}, 3), found({{3, kInfinity}, {2, 2}, kEmptySlot}));
  EXPECT_EQ(search_full(index, {0, 0}, 3), found({{2, 0}, kEmptySlot, kEmptySlot}));
}

// A product of -1e-60 rounds to -0.0; the chain itself starts from +0.0.
TEST(ExactScan, TheZerosTieAndKeepTheirSigns) {
  const Index index(1);
  seal(index, 1, {1, 2, 3, 4}, {-1e-30f, 1e-30f, 0, -1e-30f});
  EXPECT_EQ(search_full(index, {1e-30f}, 4), found({{1, -0.0f}, {2, 0.0f}, {3, 0.0f}, {4, -0.0f}}));
  EXPECT_EQ(search_full(index, {-1e-30f}, 4), found({{1, 0.0f}, {2, -0.0f}, {3, 0.0f}, {4, 0.0f}}));
  EXPECT_EQ(search_full(index, {1e-30f}, 1), found({{1, -0.0f}}));
}

TEST(ExactScan, AProductOfZerosAddsToPositiveZero) {
  const Index index(1);
  seal(index, 1, {1}, {-0.0f});
  EXPECT_EQ(search_full(index, kOne, 1), found({{1, 0.0f}}));
}

// The product is 1 + 2^-11 + 2^-24; rounded before the addition, the sum would be 0.
TEST(ExactScan, MultiplicationAndAdditionAreFused) {
  const float root = 1 + std::ldexp(1.0f, -12);
  const float minus_square = -(1 + std::ldexp(1.0f, -11));
  const Index index(1);
  seal(index, 2, {1, 2}, {minus_square, root, root, minus_square});
  EXPECT_EQ(search_full(index, {1, root}, 1), found({{1, std::ldexp(1.0f, -24)}}));
  EXPECT_EQ(search_full(index, {root, 1}, 1), found({{2, 0.0f}}));
}

TEST(ExactScan, ComponentsAreAddedInOrder) {
  const Index index(1);
  seal(index, 3, {1, 2, 3}, {1e8f, -1e8f, 1, 1, 1e8f, -1e8f, 1e8f, 1, -1e8f});
  EXPECT_EQ(search_full(index, {1, 1, 1}, 3), found({{1, 1}, {2, 0}, {3, 0}}));
}

// The chain of fused operations that defines a score.
float score_of(const float* row, const Floats& query) {
  float score = 0;
  for (std::size_t j = 0; j < query.size(); ++j) score = std::fma(row[j], query[j], score);
  return score;
}

TEST(ExactScan, ScoresOfEveryDimensionAreOneChainOfFusedOperations) {
  constexpr std::size_t kRows = 21;
  for (std::size_t dim = 1; dim <= 35; ++dim) {
    Ids ids;
    Floats vectors;
    Floats query;
    for (std::size_t j = 0; j < dim; ++j) query.push_back(1 / static_cast<float>(3 * j + 7));
    for (std::size_t i = 0; i < kRows * dim; ++i) {
      vectors.push_back(std::sin(static_cast<float>(i + 1)));
    }
    for (std::size_t row = 0; row < kRows; ++row) ids.push_back(static_cast<std::int64_t>(row));
    const Index index(1);
    seal(index, static_cast<std::int32_t>(dim), ids, vectors);
    for (std::size_t row = 0; row < kRows; ++row) {
      const auto id = static_cast<std::int64_t>(row);
      const Hit expected{id, score_of(&vectors[row * dim], query)};
      ASSERT_EQ(scatter(index, {id}, query, 1), found({expected})) << "dim " << dim;
      const Found all = search_full(index, query, kRows);
      ASSERT_EQ(std::count(all.slots.begin(), all.slots.end(), expected), 1) << "dim " << dim;
    }
  }
}

TEST(ExactScan, DenormalScoresAreKept) {
  const float smallest = std::numeric_limits<float>::denorm_min();
  const Index index(1);
  seal(index, 1, {1, 2, 3}, {0, smallest, 2 * smallest});
  EXPECT_EQ(search_full(index, kOne, 3), found({{3, 2 * smallest}, {2, smallest}, {1, 0}}));
}

TEST(ExactScan, OnlyTheReturnedNumberOfSlotsIsWritten) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2});
  Guarded<std::int64_t> ids(2, kUntouchedId);
  Guarded<float> scores(2, kUntouchedFloat);
  const Floats query{1};
  EXPECT_EQ(qx_index_search_full(index, query.data(), 50, ids.data(), scores.data()), 2);
  EXPECT_EQ(ids.values(), (Ids{2, 1}));
  EXPECT_TRUE(scores.equals({2, 1}));
  EXPECT_TRUE(ids.margins_intact() && scores.margins_intact());
}

}  // namespace
}  // namespace qx_test
