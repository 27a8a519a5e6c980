// Stamps, positions and tombstones: the bookkeeping of mutations that no read shows.
#include <map>

#include "read/pruner.h"
#include "record/fields.h"
#include "store/codes.h"
#include "store/validity.h"
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

// Rows enough for codes.
constexpr std::int64_t kCodedRows = 600;
constexpr std::int64_t kCodedDim = 64;

Floats coded_vectors(std::int64_t count, std::int64_t dim) {
  Floats vectors;
  for (std::int64_t i = 0; i < count * dim; ++i) {
    vectors.push_back(static_cast<float>(i * 7919 % 2003 - 1000));
  }
  return vectors;
}

void insert_coded_rows(QxIndex* index) {
  insert(index, ids_from(0, kCodedRows), coded_vectors(kCodedRows, kCodedDim));
}

// How many rows of the delta have codes.
std::int64_t coded_rows(QxIndex* index) {
  EXPECT_TRUE(qx::index_is_valid(*index));
  return index->delta_codes.rows;
}

TEST(InsertRecord, CodesRowsThatAreAddedAndThoseThatAreReplaced) {
  if (!qx::is_worth_coding(kCodedRows, kCodedDim)) GTEST_SKIP() << "built without codes";
  const Index index(kCodedDim);
  insert_coded_rows(index);
  EXPECT_EQ(coded_rows(index), kCodedRows);
  // The last row of a group, an id twice, and ids that are new.
  const Ids ids = {31, 7, 7, 601, kCodedRows - 1, 602, 601};
  insert(index, ids, coded_vectors(std::ssize(ids), kCodedDim));
  EXPECT_EQ(coded_rows(index), kCodedRows + 2);
}

// A row is replaced by one of fewer components, behind which nothing may be read; a row of more
// would be read beyond the last of the others.
TEST(InsertRecord, UnderAnotherDimensionLeavesNoRowWithACode) {
  for (const std::int64_t dim : {8, 32, 63, 65, 128}) {
    for (const std::int64_t id : {std::int64_t{5}, kCodedRows}) {
      const Index index(kCodedDim);
      insert_coded_rows(index);
      seal(index, static_cast<std::int32_t>(dim), {}, {});
      EXPECT_TRUE(qx::index_is_valid(*index));
      insert(index, {id}, coded_vectors(1, dim));
      EXPECT_EQ(coded_rows(index), 0) << "dim " << dim << ", id " << id;
    }
  }
}

// Rows are read at multiples of today's dimension; their codes are those of another.
TEST(InsertRecord, CodesUnderAnotherDimensionAreNotRead) {
  const Index index(kCodedDim);
  insert_coded_rows(index);
  seal(index, 32, {}, {});
  const Floats query = coded_vectors(1, 32);
  for (const char* const judge : {"four bits", "eight bits"}) {
    qx::force_judge(judge);
    const Found by_bounds = search_filtered(index, kEveryId, query, 10);
    qx::force_judge("scores");
    EXPECT_EQ(by_bounds, search_filtered(index, kEveryId, query, 10)) << judge;
    qx::force_judge(nullptr);
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
