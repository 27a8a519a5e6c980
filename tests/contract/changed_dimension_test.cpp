// A build that changes the dimension while vectors of another dimension are stored: their floats
// are read as rows of the new dimension. A row beyond them ends the process: process_end_test.cpp.
#include "contract/rebuilt.h"

namespace qx_test {
namespace {

const Floats kThreeOnes(3, 1);
const Floats kFourOnes(4, 1);

TEST(ChangedDimension, ASmallerOneReadsFloatsOfNeighbouringRows) {
  const Rebuilt index(1);
  EXPECT_EQ(export_visible(index), (Rows{{11, 12, 13, 5, 6}, {1, 2, 3, 1, 1}}));
  EXPECT_EQ(search_mvcc(index, {11, 12, 13}, kOne, 3), found({{13, 3}, {12, 2}, {11, 1}}));
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 1), found({{13, 3}}));
}

TEST(ChangedDimension, ALargerOneReadsTheRowsThatAreStillInside) {
  const Rebuilt index(3);
  EXPECT_EQ(search_mvcc(index, {11, 12}, kThreeOnes, 2), found({{12, 15}, {11, 6}}));
  EXPECT_EQ(search_filtered(index, has_label(2), kThreeOnes, 1), found({{12, 15}}));
}

TEST(ChangedDimension, ToZeroReadsNothing) {
  const Rebuilt index(0);
  EXPECT_EQ(export_visible(index), (Rows{{11, 12, 13, 5, 6}, {}}));
  EXPECT_EQ(search_mvcc(index, {13}, {}, 1), found({{13, 0}}));
  EXPECT_EQ(insert(index, {13}, {}), 2u);
}

TEST(ChangedDimension, DoesNotConcernReadsWithoutVectors) {
  const Rebuilt index(3);
  EXPECT_EQ(visible_ids(index), (Ids{11, 12, 13, 5, 6}));
  EXPECT_EQ(match_ids(index, has_label(3)), Ids{13});
}

TEST(ChangedDimension, ARowThatFailsThePredicateOrIsDeletedIsNotRead) {
  const Rebuilt index(4);
  EXPECT_EQ(search_filtered(index, has_label(1), kFourOnes, 2), found({{11, 10}, kEmptySlot}));
  delete_ids(index, {12, 13});
  EXPECT_EQ(search_mvcc(index, {13, 12, 11}, kFourOnes, 2), found({{11, 10}, kEmptySlot}));
  EXPECT_EQ(export_visible(index), (Rows{{11, 5, 6}, {1, 2, 3, 4, 1, 1, 1, 1, 1, 1, 1, 1}}));
}

TEST(ChangedDimension, OverwritingARowInsideWritesOverItsNeighbours) {
  const Rebuilt index(3);
  EXPECT_EQ(insert(index, {11, 12}, {10, 20, 30, 40, 50, 60}), 2u);
  delete_ids(index, {13});
  EXPECT_EQ(export_visible(index),
            (Rows{{11, 12, 5, 6}, {10, 20, 30, 40, 50, 60, 1, 1, 1, 1, 1, 1}}));
}

// The new row's floats are appended after the six; under dimension 3 its row is floats 9 to 11.
TEST(ChangedDimension, ARowInsertedAfterwardsIsReadAtItsPlaceUnderTheNewDimension) {
  const Rebuilt index(3);
  EXPECT_EQ(insert(index, {14}, {7, 8, 9}), 2u);
  EXPECT_EQ(qx_index_delta_count(index), 4);
  EXPECT_TRUE(ends_out_of_bounds(9, 9, [&] { search_mvcc(index, {14}, kThreeOnes, 1); }));
  EXPECT_EQ(search_mvcc(index, {13}, kThreeOnes, 1), found({{13, 24}}));
}

TEST(ChangedDimension, TheFirstFloatsOfTheCentroidsAreRead) {
  const Rebuilt to_one(1);
  EXPECT_EQ(search_ivf(to_one, 7, kOne, 1), found({{6, 1}}));
  EXPECT_EQ(search_ivf(to_one, 7, {-1}, 1), found({{5, -1}}));
  EXPECT_EQ(search_ivf(Rebuilt(0), 7, {}, 2), found({{5, 0}, kEmptySlot}));
  EXPECT_EQ(search_ivf(Rebuilt(3), 7, kThreeOnes, 0), nothing_written());
}

}  // namespace
}  // namespace qx_test
