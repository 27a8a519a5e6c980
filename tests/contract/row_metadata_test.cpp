// Labels and column values per id.
#include "support/cases.h"

namespace qx_test {
namespace {

// An index after one call for an id 4 of label 40 with these values.
class WithId4 : public Index {
 public:
  explicit WithId4(const Ids& values) : Index(1) {
    EXPECT_EQ(set_rowmeta(*this, {4}, {40}, values, static_cast<std::int32_t>(values.size())), 0);
  }
};

TEST(RowMetadata, AWidthBelowTheCurrentOneIsRejected) {
  const Index fresh(1);
  const WithId4 index({1, 2, 3});
  for (const std::int32_t ncols : {-1, kLowest}) {
    EXPECT_EQ(set_rowmeta(fresh, {4}, {40}, {}, ncols), -1) << "ncols " << ncols;
    EXPECT_EQ(set_rowmeta(index, {4}, {41}, {}, ncols), -1) << "ncols " << ncols;
  }
  EXPECT_EQ(set_rowmeta(index, {4, 5}, {41, 51}, {7, 8, 7, 8}, 2), -1);
  EXPECT_EQ(set_rowmeta(index, {}, {}, {}, 0), -1);
  EXPECT_EQ(export_rowmeta(fresh, {4}), (Metadata{0, {-1}, {}}));
  EXPECT_EQ(export_rowmeta(index, {4, 5}), (Metadata{3, {40, -1}, {1, 2, 3, -1, -1, -1}}));
}

TEST(RowMetadata, ACallWithoutIdsWidensTheIndex) {
  const WithId4 index({1});
  std::int32_t ncols = 1;
  for (const std::int32_t n : kNoCounts) {
    EXPECT_EQ(qx_index_set_rowmeta(index, nullptr, nullptr, nullptr, ++ncols, n), 0);
    Ids values(static_cast<std::size_t>(ncols), QX_MISSING);
    values[0] = 1;
    EXPECT_EQ(export_rowmeta(index, {4}), (Metadata{ncols, {40}, values}));
  }
}

TEST(RowMetadata, MinusOneReadsAsNeverWritten) {
  const WithId4 index({1, 2});
  insert(index, {4, 5}, {4, 5});
  set_rowmeta(index, {4}, {-1}, {-1, 3}, 2);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), (Metadata{2, {-1, -1}, {-1, 3, -1, -1}}));
  EXPECT_EQ(match_ids(index, has_label(QX_MISSING)), (Ids{4, 5}));
  EXPECT_EQ(match_ids(index, has_value(0, QX_MISSING)), (Ids{4, 5}));
  EXPECT_EQ(match_ids(index, has_value(1, QX_MISSING)), Ids{5});
}

TEST(RowMetadata, SettingAnIdAgainReplacesItsLabelAndEveryColumn) {
  const WithId4 index({1, 2});
  EXPECT_EQ(set_rowmeta(index, {5, 4, 4}, {50, 8, 41}, {3, 4, 0, 0, 7, 8}, 2), 0);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), (Metadata{2, {41, 50}, {7, 8, 3, 4}}));
  EXPECT_EQ(set_rowmeta(index, {5}, {51}, {9, 10, 11}, 3), 0);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), (Metadata{3, {41, 51}, {7, 8, -1, 9, 10, 11}}));
}

TEST(RowMetadata, AnyIdLabelAndValueIsValid) {
  const Index index(1);
  const Ids ids{kLowestId, kHighestId, -1, 0};
  const Ids labels{kHighestId, kLowestId, 0, -2};
  const Ids values{kLowestId, 5, -7, kHighestId};
  set_rowmeta(index, ids, labels, values, 1);
  EXPECT_EQ(export_rowmeta(index, ids), (Metadata{1, labels, values}));
}

}  // namespace
}  // namespace qx_test
