// What holds for every search: the rows that enter a result, their scores and their order.
#include <algorithm>
#include <cmath>

#include "support/cases.h"
#include "support/random.h"

namespace qx_test {
namespace {

// Rows that every search is offered in the same order: they are the base, its only partition, the
// members of an only list, the candidates; and the delta of another index.
class SearchedRows {
 public:
  SearchedRows(std::int32_t dim, const Ids& ids, const Floats& vectors)
      : ids_(ids),
        base_(dim, ids, vectors, {{7}, {0}, {count()}}),
        delta_(static_cast<std::uint32_t>(dim)) {
    const Floats centroid(static_cast<std::size_t>(dim), 0);
    set_ivf(base_, 7, {1, 1, centroid, ids, {0, count()}});
    insert(delta_, ids, vectors);
  }

  // Expects every search for the k best to find these rows, and empty slots behind them.
  void expect_best(const Floats& query, std::int32_t k, std::vector<Hit> hits) const {
    const auto slots = static_cast<std::size_t>(k);
    hits.resize(std::min(slots, ids_.size()), kEmptySlot);
    const Found of_rows = found(hits);
    hits.resize(slots, kEmptySlot);
    const Found of_k = found(hits);
    EXPECT_EQ(search_full(base_, query, k), of_rows);
    EXPECT_EQ(search_partition(base_, 7, query, k), of_rows);
    EXPECT_EQ(scatter(base_, ids_, query, k), of_rows);
    EXPECT_EQ(search_ivf(base_, 7, query, k), of_k);
    for (QxIndex* const index : {static_cast<QxIndex*>(base_), static_cast<QxIndex*>(delta_)}) {
      const auto unsigned_k = static_cast<std::uint32_t>(k);
      EXPECT_EQ(search_mvcc(index, ids_, query, unsigned_k), of_k);
      EXPECT_EQ(search_filtered(index, kEveryId, query, unsigned_k), of_k);
    }
  }

  // The same for each k up to one more than there are rows, where these are found of all.
  void expect_order(const Floats& query, const std::vector<Hit>& hits) const {
    for (std::int32_t k = 1; k <= count() + 1; ++k) {
      const auto first = std::min(static_cast<std::size_t>(k), hits.size());
      expect_best(query, k, {hits.begin(), hits.begin() + static_cast<std::ptrdiff_t>(first)});
    }
  }

 private:
  std::int32_t count() const { return static_cast<std::int32_t>(ids_.size()); }

  const Ids ids_;
  const Sealed base_;
  const Index delta_;
};

TEST(EverySearch, FindsTheBestRowsFromBestToWorst) {
  const SearchedRows rows(1, {10, 20, 30, 40}, {2, 4, 1, 3});
  rows.expect_order(kOne, {{20, 4}, {40, 3}, {10, 2}, {30, 1}});
  rows.expect_order({-1}, {{30, -1}, {10, -2}, {40, -3}, {20, -4}});
}

TEST(EverySearch, KeepsTheEarlierOfRowsWithEqualScoresAndPutsItFirst) {
  const SearchedRows rows(1, {9, 3, 5, 1}, {1, 2, 1, 2});
  rows.expect_order(kOne, {{3, 2}, {1, 2}, {9, 1}, {5, 1}});
}

TEST(EverySearch, KeepsTheOrderOfManyRowsWithEqualScores) {
  Ids ids = ids_from(4001, 1000);
  std::reverse(ids.begin(), ids.end());
  Floats vectors;
  std::vector<Hit> ones;
  for (std::size_t row = 0; row < 1000; ++row) {
    vectors.push_back(row % 3 == 0 ? 1.0f : 0.5f);
    if (row % 3 == 0 && ones.size() < 150) ones.push_back({ids[row], 1});
  }
  SearchedRows(1, ids, vectors).expect_best(kOne, 150, ones);
}

TEST(EverySearch, NeverTakesANaN) {
  SearchedRows(1, {1, 2, 3}, {kNaN, 5, -kNaN}).expect_order(kOne, {{2, 5}});
  SearchedRows(1, {1, 2, 3}, {1, 5, 2}).expect_order({kNaN}, {});
  SearchedRows(1, {1, 2, 3, 4, 5}, {kNaN, 1, kNaN, 2, kNaN}).expect_order(kOne, {{4, 2}, {2, 1}});
}

TEST(EverySearch, TakesNoScoreOfTheEmptySlotOrLess) {
  const float below = std::nextafter(QX_EMPTY_SCORE, -kInfinity);
  const float above = std::nextafter(QX_EMPTY_SCORE, kInfinity);
  SearchedRows(1, {1, 2, 3}, {QX_EMPTY_SCORE, below, -kInfinity}).expect_order(kOne, {});
  SearchedRows(1, {1, 2, 3}, {QX_EMPTY_SCORE, above, below}).expect_order(kOne, {{2, above}});
}

TEST(EverySearch, PutsInfiniteScoresInTheirPlace) {
  const SearchedRows rows(1, {1, 2, 3, 4, 5}, {1, kInfinity, -kInfinity, kInfinity, 3e38f});
  rows.expect_order(kOne, {{2, kInfinity}, {4, kInfinity}, {5, 3e38f}, {1, 1}});
  rows.expect_order({-1}, {{3, kInfinity}, {1, -1}});
}

TEST(EverySearch, TakesInfinitiesThatCancelAsANaN) {
  const SearchedRows rows(2, {1, 2, 3}, {kInfinity, -kInfinity, 1, 1, kInfinity, 0});
  rows.expect_order({1, 1}, {{3, kInfinity}, {2, 2}});
  rows.expect_order({0, 0}, {{2, 0}});
}

// A product of -1e-60 rounds to -0.0; the chain itself starts from +0.0.
TEST(EverySearch, TakesTheZerosAsEqualAndKeepsTheirSigns) {
  const SearchedRows rows(1, {1, 2, 3, 4}, {-1e-30f, 1e-30f, 0, -1e-30f});
  rows.expect_order({1e-30f}, {{1, -0.0f}, {2, 0.0f}, {3, 0.0f}, {4, -0.0f}});
  rows.expect_order({-1e-30f}, {{1, 0.0f}, {2, -0.0f}, {3, 0.0f}, {4, 0.0f}});
  SearchedRows(1, {1}, {-0.0f}).expect_order(kOne, {{1, 0.0f}});
}

// The product is 1 + 2^-11 + 2^-24; rounded before the addition, the sum would be 0.
TEST(EverySearch, FusesMultiplicationAndAddition) {
  const float root = 1 + std::ldexp(1.0f, -12);
  const float minus_square = -(1 + std::ldexp(1.0f, -11));
  const SearchedRows rows(2, {1, 2}, {minus_square, root, root, minus_square});
  rows.expect_best({1, root}, 1, {{1, std::ldexp(1.0f, -24)}});
  rows.expect_best({root, 1}, 1, {{2, 0.0f}});
}

TEST(EverySearch, OfListedIdsOffersThemInTheOrderOfTheList) {
  Ids listed = ids_from(0, 300);
  const Sealed index(1, listed, Floats(300, 1));
  insert(index, ids_from(100, 150), Floats(150, 1));
  std::reverse(listed.begin(), listed.end());
  std::swap(listed[3], listed[140]);
  set_ivf(index, 7, one_list(listed));
  for (const std::size_t k : {1u, 5u, 150u}) {
    std::vector<Hit> first;
    for (std::size_t i = 0; i < k; ++i) first.push_back({listed[i], 1});
    EXPECT_EQ(scatter(index, listed, kOne, static_cast<std::int32_t>(k)), found(first));
    EXPECT_EQ(search_ivf(index, 7, kOne, static_cast<std::int32_t>(k)), found(first));
    EXPECT_EQ(search_mvcc(index, listed, kOne, static_cast<std::uint32_t>(k)), found(first));
  }
}

// Short rows that are listed here and there are judged otherwise than those that follow each other.
TEST(EverySearch, FindsTheBestOfListsThatBeginHereAndThere) {
  constexpr std::int64_t kRows = 21000;
  constexpr std::int32_t kDim = 32;
  Random random(7);
  Floats vectors(static_cast<std::size_t>(kRows * kDim));
  for (float& number : vectors) number = static_cast<float>(random.between(-1000, 1000));
  const Sealed index(kDim, ids_from(0, kRows), vectors);
  Ids listed = {20040, 20020, 20060, 20010, 20050};
  for (std::int64_t id = 0; id < 20000; ++id) listed.push_back(id);
  set_ivf(index, 7, {1, 1, Floats(kDim), listed, {0, static_cast<std::int32_t>(listed.size())}});
  for (std::size_t best = 0; best < 5; ++best) {
    const auto row = vectors.begin() + listed[best] * kDim;
    const Floats query(row, row + kDim);
    for (const std::int32_t k : {1, 5, 10, 47, 100}) {
      EXPECT_EQ(scatter(index, listed, query, k).slots[0].id, listed[best]);
      EXPECT_EQ(search_ivf(index, 7, query, k).slots[0].id, listed[best]);
    }
  }
}

TEST(EverySearch, OfListedIdsSkipsThoseWithoutARow) {
  const Sealed index(1, {10, 20}, {1, 2});
  const Ids listed{9, 11, 19, 21, 0, -1, -10, kLowestId, kHighestId, QX_MAX_BASE_ID + 1, 10, 20};
  set_ivf(index, 7, one_list(listed));
  const Found expected = found({{20, 2}, {10, 1}, kEmptySlot});
  EXPECT_EQ(scatter(index, listed, kOne, 3), expected);
  EXPECT_EQ(search_ivf(index, 7, kOne, 3), expected);
  EXPECT_EQ(search_mvcc(index, listed, kOne, 3), expected);
}

TEST(EverySearch, OfListedIdsMayFillTwoSlotsWithAnIdListedTwice) {
  const Sealed index(1, {10, 20}, {1, 2});
  insert(index, {10}, {1});
  set_ivf(index, 7, one_list({20, 10, 20}));
  set_ivf(index, 8, {2, 2, {2, 1}, {20, 10, 20}, {0, 2, 3}});
  for (const std::int32_t k : {2, 3}) {
    std::vector<Hit> hits{{20, 2}, {20, 2}};
    if (k == 3) hits.push_back({10, 1});
    EXPECT_EQ(scatter(index, {20, 10, 20}, kOne, k), found(hits));
    EXPECT_EQ(search_ivf(index, 7, kOne, k), found(hits));
    EXPECT_EQ(search_ivf(index, 8, kOne, k), found(hits));
    EXPECT_EQ(search_mvcc(index, {20, 10, 20}, kOne, static_cast<std::uint32_t>(k)), found(hits));
  }
}

// What looks for a row by its id finds the last one; what scans rows finds each.
TEST(EverySearch, OfARepeatedBaseIdFindsItsLastRowByIdAndEveryRowByScan) {
  const Sealed index(1, {7, 3, 7, 7}, {9, 2, 1, 3}, {{7}, {0}, {4}});
  set_ivf(index, 7, one_list({7, 3}));
  set_rowmeta(index, {7}, {5}, {}, 0);
  const std::vector<Hit> by_id{{7, 3}, {3, 2}};
  EXPECT_EQ(scatter(index, {7, 3}, kOne, 2), found(by_id));
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found(by_id));
  EXPECT_EQ(search_mvcc(index, {7, 3}, kOne, 2), found(by_id));
  const Found by_scan = found({{7, 9}, {7, 3}, {3, 2}, {7, 1}});
  EXPECT_EQ(search_full(index, kOne, 4), by_scan);
  EXPECT_EQ(search_partition(index, 7, kOne, 4), by_scan);
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 4), by_scan);
  EXPECT_EQ(search_filtered(index, has_label(5), kOne, 3), found({{7, 9}, {7, 3}, {7, 1}}));
}

TEST(EverySearch, OfTheBaseSeesNoMutation) {
  const Sealed index(1, {1, 2, 3}, {1, 2, 3}, {{7}, {0}, {3}});
  set_ivf(index, 7, one_list({1, 2, 3, 9}));
  insert(index, {2, 9}, {50, 90});
  delete_ids(index, {3, 9});
  insert(index, {9}, {91});
  const Found all = found({{3, 3}, {2, 2}, {1, 1}});
  EXPECT_EQ(search_full(index, kOne, 4), all);
  EXPECT_EQ(search_partition(index, 7, kOne, 4), all);
  EXPECT_EQ(scatter(index, {1, 2, 3}, kOne, 3), all);
  EXPECT_EQ(scatter(index, {9}, kOne, 1), empty_slots(1));
  EXPECT_EQ(search_ivf(index, 7, kOne, 4), found({{3, 3}, {2, 2}, {1, 1}, kEmptySlot}));
  EXPECT_EQ(export_base(index), (Rows{{1, 2, 3}, {1, 2, 3}}));
  EXPECT_EQ(stats(index), (Stats{3, 1, 0, 1}));
}

}  // namespace
}  // namespace qx_test
