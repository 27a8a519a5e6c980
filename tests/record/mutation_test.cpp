// Stamps, positions and tombstones: the bookkeeping of mutations that no read shows.
#include <map>

#include "record/fields.h"
#include "support/cases.h"

namespace qx_test {
namespace {

void expect_delta(const QxIndex* index, const Ids& ids, const Ids& stamps, const Floats& vectors) {
  EXPECT_EQ(values_of(index->delta_ids), ids);
  EXPECT_EQ(values_of(index->delta_stamps), stamps);
  EXPECT_EQ(values_of(index->delta_vectors), vectors);
  EXPECT_EQ(index->delta_pos.size(), std::ssize(ids));
  for (std::size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(value_of(index->delta_pos, ids[i]), static_cast<std::int64_t>(i));
  }
}

void expect_tombstones(const QxIndex* index, const std::map<std::int64_t, std::int64_t>& expected) {
  EXPECT_EQ(index->deleted_at.size(), std::ssize(expected));
  for (const auto& [id, value] : expected) EXPECT_EQ(value_of(index->deleted_at, id), value);
}

TEST(InsertRecord, EveryRowOfACallCarriesItsSnapshot) {
  const Index index(1);
  EXPECT_EQ(insert(index, {1, 2, 3}, {1, 2, 3}), 1u);
  EXPECT_EQ(insert(index, {4, 5}, {4, 5}), 2u);
  expect_delta(index, {1, 2, 3, 4, 5}, {1, 1, 1, 2, 2}, {1, 2, 3, 4, 5});
}

TEST(InsertRecord, OfAnIdAgainMovesItsStampAndKeepsItsPosition) {
  const Index index(2);
  insert(index, {6, 7, 8, 7}, {1, 1, 2, 2, 3, 3, 4, 4});
  expect_delta(index, {6, 7, 8}, {1, 1, 1}, {1, 1, 4, 4, 3, 3});
  EXPECT_EQ(insert(index, {7}, {9, 9}), 2u);
  expect_delta(index, {6, 7, 8}, {1, 2, 1}, {1, 1, 9, 9, 3, 3});
}

TEST(InsertRecord, OfADeletedIdKeepsItsKeyWithTheValueZero) {
  const Index index(1);
  insert(index, {7}, {1});
  expect_tombstones(index, {});
  delete_ids(index, {7, 8});
  expect_tombstones(index, {{7, 2}, {8, 2}});
  EXPECT_EQ(insert(index, {7, 9}, {2, 3}), 3u);
  expect_tombstones(index, {{7, 0}, {8, 2}});
  expect_delta(index, {7, 9}, {3, 3}, {2, 3});
}

TEST(InsertRecord, WithoutComponentsStoresIdsAndStampsAlone) {
  for (const std::uint32_t dim : kUnsignedNoCounts) {
    const Index index(dim);
    insert(index, {4, 5}, {});
    insert(index, {5}, {});
    expect_delta(index, {4, 5}, {1, 2}, {});
    EXPECT_EQ(index->delta_vectors.data, nullptr);
  }
}

TEST(DeleteRecord, OfAnIdAgainKeepsOneKeyWithTheLastSnapshot) {
  const Index index(1);
  EXPECT_EQ(delete_ids(index, {9}), 1u);
  insert(index, {1}, {1});
  expect_tombstones(index, {{9, 1}});
  EXPECT_EQ(delete_ids(index, {9}), 3u);
  expect_tombstones(index, {{9, 3}});
  insert(index, {9}, {1});
  expect_tombstones(index, {{9, 0}});
  EXPECT_EQ(delete_ids(index, {9}), 5u);
  expect_tombstones(index, {{9, 5}});
}

}  // namespace
}  // namespace qx_test
