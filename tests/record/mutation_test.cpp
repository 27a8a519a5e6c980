// Stamps, positions and tombstones: the bookkeeping of mutations that no read shows.
#include <optional>

#include "record/fields.h"
#include "store/qx_index.h"
#include "support/host.h"

namespace qx_test {
namespace {

TEST(InsertRecord, EveryRowOfACallCarriesItsSnapshot) {
  const Index index(1);
  EXPECT_EQ(insert(index, {1, 2, 3}, {1, 2, 3}), 1u);
  EXPECT_EQ(insert(index, {4, 5, 6}, {4, 5, 6}), 2u);
  EXPECT_EQ(values_of(index->delta_ids), (Ids{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(values_of(index->delta_stamps), (Ids{1, 1, 1, 2, 2, 2}));
}

TEST(InsertRecord, OfAnIdTwiceInOneCallStoresOneRow) {
  const Index index(2);
  insert(index, {7, 7}, {1, 2, 3, 4});
  EXPECT_EQ(values_of(index->delta_ids), Ids{7});
  EXPECT_EQ(values_of(index->delta_stamps), Ids{1});
  EXPECT_EQ(values_of(index->delta_vectors), (Floats{3, 4}));
  EXPECT_EQ(index->delta_pos.size(), 1);
  EXPECT_EQ(value_of(index->delta_pos, 7), 0);
}

TEST(InsertRecord, OfAnIdAgainMovesItsStampAndKeepsItsPosition) {
  const Index index(1);
  insert(index, {6, 7, 8}, {1, 2, 3});
  EXPECT_EQ(insert(index, {7}, {9}), 2u);
  EXPECT_EQ(values_of(index->delta_ids), (Ids{6, 7, 8}));
  EXPECT_EQ(values_of(index->delta_stamps), (Ids{1, 2, 1}));
  EXPECT_EQ(values_of(index->delta_vectors), (Floats{1, 9, 3}));
  EXPECT_EQ(value_of(index->delta_pos, 6), 0);
  EXPECT_EQ(value_of(index->delta_pos, 7), 1);
  EXPECT_EQ(value_of(index->delta_pos, 8), 2);
}

TEST(InsertRecord, OfADeletedIdKeepsItsKeyWithTheValueZero) {
  const Index index(1);
  insert(index, {7}, {1});
  delete_ids(index, {7});
  EXPECT_EQ(value_of(index->deleted_at, 7), 2);
  EXPECT_EQ(insert(index, {7}, {2}), 3u);
  EXPECT_EQ(index->deleted_at.size(), 1);
  EXPECT_EQ(value_of(index->deleted_at, 7), 0);
  EXPECT_EQ(values_of(index->delta_stamps), Ids{3});
}

TEST(InsertRecord, OfAnIdNeverDeletedAddsNoTombstone) {
  const Index index(1);
  insert(index, {7}, {1});
  EXPECT_EQ(index->deleted_at.size(), 0);
  delete_ids(index, {8});
  insert(index, {7, 9}, {2, 3});
  EXPECT_EQ(index->deleted_at.size(), 1);
  EXPECT_EQ(value_of(index->deleted_at, 7), std::nullopt);
  EXPECT_EQ(value_of(index->deleted_at, 9), std::nullopt);
}

TEST(InsertRecord, WithoutComponentsStoresIdsAndStampsAlone) {
  for (const std::uint32_t dim : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    const Index index(dim);
    insert(index, {4, 5}, {});
    insert(index, {5}, {});
    EXPECT_EQ(values_of(index->delta_ids), (Ids{4, 5}));
    EXPECT_EQ(values_of(index->delta_stamps), (Ids{1, 2}));
    EXPECT_EQ(index->delta_vectors.length, 0);
    EXPECT_EQ(index->delta_vectors.data, nullptr);
  }
}

TEST(InsertRecord, OfNoRowsStoresNothing) {
  const Index index(1);
  insert(index, {}, {});
  EXPECT_EQ(qx_index_insert(index, nullptr, nullptr, -1), 0u);
  EXPECT_EQ(index->delta_ids.data, nullptr);
  EXPECT_EQ(index->delta_stamps.data, nullptr);
  EXPECT_EQ(index->delta_vectors.data, nullptr);
  EXPECT_EQ(index->delta_pos.size(), 0);
  EXPECT_EQ(index->mutated, 0u);
}

TEST(InsertRecord, ArraysGrowByDoubling) {
  const Index index(1);
  const Ids capacities{1, 2, 4, 4, 8, 8, 8, 8, 16};
  for (std::size_t i = 0; i < capacities.size(); ++i) {
    insert(index, {static_cast<std::int64_t>(i)}, {0});
    EXPECT_EQ(index->delta_ids.capacity, capacities[i]);
    EXPECT_EQ(index->delta_stamps.capacity, capacities[i]);
    EXPECT_EQ(index->delta_vectors.capacity, capacities[i]);
  }
}

TEST(DeleteRecord, OfNoIdsStoresNothing) {
  const Index index(1);
  delete_ids(index, {});
  EXPECT_EQ(qx_index_delete(index, nullptr, -1), 0u);
  EXPECT_EQ(index->deleted_at.size(), 0);
  EXPECT_EQ(index->mutated, 0u);
}

TEST(DeleteRecord, GivesEveryIdOfTheCallItsSnapshot) {
  const Index index(1);
  EXPECT_EQ(delete_ids(index, {5, 6}), 1u);
  EXPECT_EQ(index->deleted_at.size(), 2);
  EXPECT_EQ(value_of(index->deleted_at, 5), 1);
  EXPECT_EQ(value_of(index->deleted_at, 6), 1);
  EXPECT_EQ(index->delta_ids.length, 0);
}

TEST(DeleteRecord, LeavesTheDeltaRowAndItsStamp) {
  const Index index(1);
  EXPECT_EQ(insert(index, {5}, {50}), 1u);
  EXPECT_EQ(delete_ids(index, {5}), 2u);
  EXPECT_EQ(value_of(index->deleted_at, 5), 2);
  EXPECT_EQ(values_of(index->delta_ids), Ids{5});
  EXPECT_EQ(values_of(index->delta_stamps), Ids{1});
  EXPECT_EQ(values_of(index->delta_vectors), Floats{50});
  EXPECT_EQ(value_of(index->delta_pos, 5), 0);
  EXPECT_EQ(insert(index, {5}, {51}), 3u);
  EXPECT_EQ(value_of(index->deleted_at, 5), 0);
  EXPECT_EQ(values_of(index->delta_stamps), Ids{3});
}

TEST(DeleteRecord, OfAnIdAgainKeepsOneKeyWithTheLastSnapshot) {
  const Index index(1);
  EXPECT_EQ(delete_ids(index, {9}), 1u);
  insert(index, {1}, {1});
  insert(index, {2}, {2});
  EXPECT_EQ(value_of(index->deleted_at, 9), 1);
  EXPECT_EQ(delete_ids(index, {9}), 4u);
  EXPECT_EQ(index->deleted_at.size(), 1);
  EXPECT_EQ(value_of(index->deleted_at, 9), 4);
}

TEST(DeleteRecord, OfAnIdTwiceInOneCallKeepsOneKey) {
  const Index index(1);
  EXPECT_EQ(delete_ids(index, {9, 9}), 1u);
  EXPECT_EQ(index->deleted_at.size(), 1);
  EXPECT_EQ(value_of(index->deleted_at, 9), 1);
}

TEST(DeleteRecord, OfALiftedIdSetsItsValueAgain) {
  const Index index(1);
  delete_ids(index, {9});
  insert(index, {9}, {1});
  EXPECT_EQ(value_of(index->deleted_at, 9), 0);
  EXPECT_EQ(delete_ids(index, {9}), 3u);
  EXPECT_EQ(index->deleted_at.size(), 1);
  EXPECT_EQ(value_of(index->deleted_at, 9), 3);
}

TEST(DeleteRecord, OfABaseIdAddsATombstoneAlone) {
  const Index index(1);
  seal(index, 1, {0, 1}, {5, 6});
  delete_ids(index, {1});
  EXPECT_EQ(Ids(index->id_to_row, index->id_to_row + 2), (Ids{0, 1}));
  EXPECT_EQ(index->deleted_at.size(), 1);
  EXPECT_EQ(value_of(index->deleted_at, 1), 1);
  EXPECT_EQ(index->delta_pos.size(), 0);
}

}  // namespace
}  // namespace qx_test
