// Inserts: the snapshot that they increase, the delta rows that they write, the tombstones that
// they lift.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();

TEST(Insert, OfNoRowsChangesNothing) {
  const Index index(2);
  const Observed fresh = observe(index);
  for (const std::int32_t n : {0, -1, kLowest}) {
    EXPECT_EQ(qx_index_insert(index, nullptr, nullptr, n), 0u) << "n " << n;
  }
  EXPECT_EQ(observe(index), fresh);
  EXPECT_EQ(qx_index_mutated(index), 0u);
}

TEST(Insert, OfNoRowsReturnsTheCurrentSnapshot) {
  const Index index(2);
  insert(index, {1}, {1, 1});
  insert(index, {2}, {2, 2});
  const Observed before = observe(index);
  for (const std::int32_t n : {0, -1, kLowest}) {
    EXPECT_EQ(qx_index_insert(index, nullptr, nullptr, n), 2u) << "n " << n;
  }
  EXPECT_EQ(observe(index), before);
}

TEST(Insert, TheFirstIntoAFreshIndexReturnsOne) {
  const Index index(1);
  EXPECT_EQ(insert(index, {4, 9, 4, 2}, {1, 2, 3, 4}), 1u);
  EXPECT_EQ(qx_index_snapshot(index), 1u);
  EXPECT_EQ(qx_index_mutated(index), 1u);
  EXPECT_EQ(qx_index_sealed(index), 0u);
  EXPECT_EQ(qx_index_delta_count(index), 3);
}

TEST(Insert, EachCallRaisesTheSnapshotByOneHoweverManyRowsItCarries) {
  const Index index(1);
  EXPECT_EQ(insert(index, {1, 2, 3}, {1, 2, 3}), 1u);
  EXPECT_EQ(insert(index, {4, 5, 6}, {4, 5, 6}), 2u);
  EXPECT_EQ(qx_index_snapshot(index), 2u);
  EXPECT_EQ(qx_index_delta_count(index), 6);
}

TEST(Insert, OfAnIdTwiceInOneCallKeepsItsLastVector) {
  const Index index(2);
  EXPECT_EQ(insert(index, {7, 8, 7}, {1, 2, 3, 4, 5, 6}), 1u);
  EXPECT_EQ(qx_index_delta_count(index), 2);
  EXPECT_EQ(export_visible(index), (Rows{{7, 8}, {5, 6, 3, 4}}));
}

TEST(Insert, OfAnIdAgainReplacesItsVectorInPlace) {
  const Index index(2);
  insert(index, {6, 7, 8}, {1, 1, 2, 2, 3, 3});
  EXPECT_EQ(insert(index, {7}, {9, 10}), 2u);
  EXPECT_EQ(qx_index_delta_count(index), 3);
  EXPECT_EQ(export_visible(index), (Rows{{6, 7, 8}, {1, 1, 9, 10, 3, 3}}));
}

TEST(Insert, MixesNewAndKnownIdsInOneCall) {
  const Index index(1);
  insert(index, {1, 2}, {10, 20});
  insert(index, {3, 1, 4, 3}, {30, 11, 40, 31});
  EXPECT_EQ(export_visible(index), (Rows{{1, 2, 3, 4}, {11, 20, 31, 40}}));
}

TEST(Insert, OfADeletedIdMakesItVisibleAgain) {
  const Index index(1);
  insert(index, {7, 8}, {1, 2});
  delete_ids(index, {7});
  EXPECT_EQ(visible_ids(index), Ids{8});
  EXPECT_EQ(insert(index, {7}, {3}), 3u);
  EXPECT_EQ(export_visible(index), (Rows{{7, 8}, {3, 2}}));
}

TEST(Insert, LiftsTheTombstonesOfItsOwnIdsOnly) {
  const Index index(1);
  insert(index, {1, 2, 3}, {1, 2, 3});
  delete_ids(index, {1, 2, 3});
  insert(index, {2}, {5});
  EXPECT_EQ(export_visible(index), (Rows{{2}, {5}}));
}

TEST(Insert, OfABaseIdAppendsADeltaRowAndLeavesTheBase) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2});
  insert(index, {2}, {50});
  EXPECT_EQ(qx_index_delta_count(index), 1);
  EXPECT_EQ(export_base(index), (Rows{{1, 2}, {1, 2}}));
  EXPECT_EQ(search_full(index, {1}, 2), found({{2, 2}, {1, 1}}));
  EXPECT_EQ(scatter(index, {2}, {1}, 1), found({{2, 2}}));
  EXPECT_EQ(export_visible(index), (Rows{{2, 1}, {50, 1}}));
}

TEST(Insert, WithoutComponentsRecordsIdsAlone) {
  for (const std::uint32_t dim : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    const Index index(dim);
    const Guarded<std::int64_t> ids(Ids{3, 5, 3});
    EXPECT_EQ(qx_index_insert(index, nullptr, ids.data(), 3), 1u);
    EXPECT_EQ(qx_index_insert(index, nullptr, ids.data(), 1), 2u);
    EXPECT_EQ(qx_index_delta_count(index), 2);
    EXPECT_EQ(export_visible(index), (Rows{{3, 5}, {}}));
    EXPECT_EQ(search_mvcc(index, {5, 3}, {}, 2), found({{5, 0}, {3, 0}}));
  }
}

TEST(Insert, VectorsAreKeptBitForBit) {
  const Floats vector{-0.0f, std::bit_cast<float>(0x7F800001u), std::bit_cast<float>(0xFFC12345u),
                      std::numeric_limits<float>::denorm_min()};
  const Index index(4);
  insert(index, {1}, vector);
  EXPECT_EQ(export_visible(index), (Rows{{1}, vector}));
  insert(index, {1}, {1, 2, 3, 4});
  insert(index, {1}, vector);
  EXPECT_EQ(export_visible(index), (Rows{{1}, vector}));
}

TEST(Insert, AnyIdIsValid) {
  const Ids ids{kLowestId, kHighestId, -1, 0, QX_MAX_BASE_ID + 1, kUntouchedId + 1};
  const Index index(1);
  insert(index, ids, {1, 2, 3, 4, 5, 6});
  EXPECT_EQ(export_visible(index), (Rows{ids, {1, 2, 3, 4, 5, 6}}));
  insert(index, {kHighestId, kLowestId}, {20, 10});
  EXPECT_EQ(export_visible(index), (Rows{ids, {10, 20, 3, 4, 5, 6}}));
}

// Strides of keys that collide in a hash table.
TEST(Insert, ManyIdsOfAnyStrideAreAllFound) {
  constexpr std::int64_t kRows = 3000;
  for (const int shift : {0, 16, 20, 32, 48}) {
    const Index index(1);
    Ids ids;
    Floats vectors;
    for (std::int64_t i = 0; i < kRows; ++i) {
      ids.push_back((i - kRows / 2) * (std::int64_t{1} << shift));
      vectors.push_back(static_cast<float>(i));
    }
    insert(index, ids, vectors);
    EXPECT_EQ(export_visible(index), (Rows{ids, vectors})) << "shift " << shift;
    for (float& component : vectors) component += 0.5f;
    insert(index, ids, vectors);
    EXPECT_EQ(qx_index_delta_count(index), kRows) << "shift " << shift;
    EXPECT_EQ(export_visible(index), (Rows{ids, vectors})) << "shift " << shift;
  }
}

}  // namespace
}  // namespace qx_test
