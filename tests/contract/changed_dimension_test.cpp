// A build that changes the dimension while vectors of another dimension are stored: their floats
// are read as rows of the new dimension, and a row beyond them ends the process.
#include "support/host.h"

namespace qx_test {
namespace {

// Delta rows 11, 12, 13 of dimension 2 (six floats), read under another dimension.
class Rebuilt : public Index {
 public:
  explicit Rebuilt(std::int32_t dim) : Index(2) {
    insert(*this, {11, 12, 13}, {1, 2, 3, 4, 5, 6});
    set_rowmeta(*this, {11, 12, 13}, {1, 2, 3}, {}, 0);
    seal(*this, dim, {}, {});
  }
};

const Floats kThreeOnes(3, 1);
const Floats kFourOnes(4, 1);

TEST(ChangedDimension, ASmallerOneReadsFloatsOfNeighbouringRows) {
  const Rebuilt index(1);
  EXPECT_EQ(export_visible(index), (Rows{{11, 12, 13}, {1, 2, 3}}));
  EXPECT_EQ(search_mvcc(index, {11, 12, 13}, {1}, 3), found({{13, 3}, {12, 2}, {11, 1}}));
  EXPECT_EQ(search_filtered(index, kEveryId, {1}, 1), found({{13, 3}}));
}

TEST(ChangedDimension, ALargerOneReadsTheRowsThatAreStillInside) {
  const Rebuilt index(3);
  EXPECT_EQ(search_mvcc(index, {11, 12}, kThreeOnes, 2), found({{12, 15}, {11, 6}}));
  EXPECT_EQ(search_filtered(index, has_label(2), kThreeOnes, 1), found({{12, 15}}));
}

TEST(ChangedDimension, ToZeroReadsNothing) {
  const Rebuilt index(0);
  EXPECT_EQ(export_visible(index), (Rows{{11, 12, 13}, {}}));
  EXPECT_EQ(search_mvcc(index, {13}, {}, 1), found({{13, 0}}));
  EXPECT_EQ(insert(index, {13}, {}), 2u);
}

TEST(ChangedDimension, ReadsThatNeedNoVectorAreNotAffected) {
  const Rebuilt index(3);
  EXPECT_EQ(qx_index_visible_count(index), 3);
  EXPECT_EQ(visible_ids(index), (Ids{11, 12, 13}));
  EXPECT_EQ(match_ids(index, has_label(3)), Ids{13});
  EXPECT_EQ(qx_index_delta_count(index), 3);
}

TEST(ChangedDimension, AListedRowThatStartsPastTheEndEndsTheSearch) {
  const Rebuilt exactly(3);
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { search_mvcc(exactly, {13}, kThreeOnes, 1); }));
  const Rebuilt beyond(4);
  EXPECT_TRUE(ends_out_of_bounds(8, 6, [&] { search_mvcc(beyond, {13}, kFourOnes, 1); }));
}

TEST(ChangedDimension, AListedRowThatLeavesTheEndEndsTheSearch) {
  const Rebuilt index(4);
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { search_mvcc(index, {12}, kFourOnes, 1); }));
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { search_mvcc(index, {11, 12}, kFourOnes, 1); }));
}

TEST(ChangedDimension, FromZeroThereIsNothingToRead) {
  const Index index(0);
  insert(index, {11}, {});
  seal(index, 2, {}, {});
  EXPECT_TRUE(ends_out_of_bounds(0, 0, [&] { search_mvcc(index, {11}, {1, 1}, 1); }));
  EXPECT_TRUE(ends_out_of_bounds(0, 0, [&] { export_visible(index); }));
}

TEST(ChangedDimension, APassingRowThatLeavesTheEndEndsTheSearch) {
  const Rebuilt index(4);
  const auto search = [&](const Predicate& predicate) {
    search_filtered(index, predicate, kFourOnes, 1);
  };
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { search(kEveryId); }));
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { search({1, 0, 2}); }));
  EXPECT_TRUE(ends_out_of_bounds(8, 6, [&] { search({1, 0, 3}); }));
}

TEST(ChangedDimension, ARowThatFailsThePredicateIsNotRead) {
  const Rebuilt index(4);
  EXPECT_EQ(search_filtered(index, has_label(1), kFourOnes, 2), found({{11, 10}, kEmptySlot}));
}

TEST(ChangedDimension, ADeletedRowIsNotRead) {
  const Rebuilt index(4);
  delete_ids(index, {12, 13});
  EXPECT_EQ(search_mvcc(index, {13, 12, 11}, kFourOnes, 2), found({{11, 10}, kEmptySlot}));
  EXPECT_EQ(export_visible(index), (Rows{{11}, {1, 2, 3, 4}}));
}

TEST(ChangedDimension, TheExportOfARowThatLeavesTheEndEndsTheProcess) {
  const Rebuilt starts_past(3);
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { export_visible(starts_past); }));
  const Rebuilt leaves(4);
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { export_visible(leaves); }));
}

TEST(ChangedDimension, OverwritingARowThatLeavesTheEndEndsTheProcess) {
  const Rebuilt index(4);
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { insert(index, {12}, kFourOnes); }));
  EXPECT_TRUE(ends_out_of_bounds(8, 6, [&] { insert(index, {13}, kFourOnes); }));
  const Rebuilt exactly(3);
  EXPECT_TRUE(ends_out_of_bounds(6, 6, [&] { insert(exactly, {13}, kThreeOnes); }));
}

TEST(ChangedDimension, OverwritingARowInsideWritesOverItsNeighbours) {
  const Rebuilt index(3);
  EXPECT_EQ(insert(index, {11, 12}, {10, 20, 30, 40, 50, 60}), 2u);
  delete_ids(index, {13});
  EXPECT_EQ(export_visible(index), (Rows{{11, 12}, {10, 20, 30, 40, 50, 60}}));
}

// The new row's floats are appended after the six; under dimension 3 its row is floats 9 to 11.
TEST(ChangedDimension, ARowInsertedAfterwardsIsReadAtItsPlaceUnderTheNewDimension) {
  const Rebuilt index(3);
  EXPECT_EQ(insert(index, {14}, {7, 8, 9}), 2u);
  EXPECT_EQ(qx_index_delta_count(index), 4);
  EXPECT_TRUE(ends_out_of_bounds(9, 9, [&] { search_mvcc(index, {14}, kThreeOnes, 1); }));
  EXPECT_EQ(search_mvcc(index, {13}, kThreeOnes, 1), found({{13, 24}}));
}

// Two centroids of dimension 2 (four floats), read under another dimension.
class RebuiltUnderIvf : public Index {
 public:
  RebuiltUnderIvf(std::int32_t dim, const Floats& vectors) : Index(2) {
    set_ivf(*this, 7, {2, 1, {1, 2, 30, 4}, {5, 6}, {0, 1, 2}});
    seal(*this, dim, {5, 6}, vectors);
  }
};

TEST(ChangedDimension, ASmallerOneReadsTheFirstFloatsOfTheCentroids) {
  const RebuiltUnderIvf index(1, {5, 6});
  EXPECT_EQ(search_ivf(index, 7, {1}, 1), found({{6, 6}}));
  EXPECT_EQ(search_ivf(index, 7, {-1}, 1), found({{5, -5}}));
}

TEST(ChangedDimension, ToZeroTheCentroidsAreNotRead) {
  const RebuiltUnderIvf index(0, {});
  EXPECT_EQ(search_ivf(index, 7, {}, 2), found({{5, 0}, kEmptySlot}));
}

TEST(ChangedDimension, CentroidsThatLeaveTheEndEndTheSearch) {
  const RebuiltUnderIvf by_two(3, {1, 1, 1, 2, 2, 2});
  EXPECT_TRUE(ends_out_of_bounds(4, 4, [&] { search_ivf(by_two, 7, kThreeOnes, 1); }));
  const RebuiltUnderIvf wholly(5, Floats(10, 1));
  EXPECT_TRUE(ends_out_of_bounds(4, 4, [&] { search_ivf(wholly, 7, Floats(5, 1), 1); }));
}

TEST(ChangedDimension, CentroidsAreReadEvenWithoutProbes) {
  const RebuiltUnderIvf index(3, {1, 1, 1, 2, 2, 2});
  qx_index_set_ivf_nprobe(index, 7, 0);
  EXPECT_TRUE(ends_out_of_bounds(4, 4, [&] { search_ivf(index, 7, kThreeOnes, 1); }));
}

TEST(ChangedDimension, CentroidsAreNotReadWhenTheSearchDoesNotRun) {
  const RebuiltUnderIvf index(3, {1, 1, 1, 2, 2, 2});
  EXPECT_EQ(search_ivf(index, 7, kThreeOnes, 0), nothing_written());
}

TEST(ChangedDimension, FromZeroThereAreNoCentroids) {
  const Index index(0);
  set_ivf(index, 7, {1, 1, {}, {5}, {0, 1}});
  seal(index, 2, {5}, {1, 2});
  EXPECT_TRUE(ends_out_of_bounds(0, 0, [&] { search_ivf(index, 7, {1, 1}, 1); }));
}

}  // namespace
}  // namespace qx_test
