// Labels and column values per id.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();

TEST(RowMetadata, WithoutColumnsThereAreLabelsAlone) {
  const Index index(1);
  const Guarded<std::int64_t> ids(Ids{4, 5});
  const Guarded<std::int64_t> labels(Ids{40, 50});
  EXPECT_EQ(qx_index_set_rowmeta(index, ids.data(), labels.data(), nullptr, 0, 2), 0);
  EXPECT_EQ(export_rowmeta(index, {5, 4, 6}), (Metadata{0, {50, 40, -1}, {}}));
}

TEST(RowMetadata, AWidthBelowTheCurrentOneIsRejected) {
  const Index index(1);
  EXPECT_EQ(set_rowmeta(index, {4}, {40}, {1, 2, 3}, 3), 0);
  const Metadata before{3, {40, -1}, {1, 2, 3, -1, -1, -1}};
  EXPECT_EQ(set_rowmeta(index, {4, 5}, {41, 51}, {7, 8, 7, 8}, 2), -1);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), before);
  EXPECT_EQ(set_rowmeta(index, {}, {}, {}, 0), -1);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), before);
}

TEST(RowMetadata, NewColumnsAreMissingForIdsSetBefore) {
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1, 2, 3}, 3);
  EXPECT_EQ(set_rowmeta(index, {5}, {50}, {6, 7, 8, 9, 10}, 5), 0);
  EXPECT_EQ(export_rowmeta(index, {4, 5}),
            (Metadata{5, {40, 50}, {1, 2, 3, -1, -1, 6, 7, 8, 9, 10}}));
}

TEST(RowMetadata, ANegativeWidthIsRejected) {
  const Index index(1);
  for (const std::int32_t ncols : {-1, kLowest}) {
    EXPECT_EQ(set_rowmeta(index, {4}, {40}, {}, ncols), -1) << "ncols " << ncols;
  }
  EXPECT_EQ(export_rowmeta(index, {4}), (Metadata{0, {-1}, {}}));
}

TEST(RowMetadata, ACallWithoutIdsWidensTheIndex) {
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1}, 1);
  EXPECT_EQ(qx_index_set_rowmeta(index, nullptr, nullptr, nullptr, 2, 0), 0);
  EXPECT_EQ(export_rowmeta(index, {4}), (Metadata{2, {40}, {1, -1}}));
  EXPECT_EQ(qx_index_set_rowmeta(index, nullptr, nullptr, nullptr, 3, -1), 0);
  EXPECT_EQ(qx_index_set_rowmeta(index, nullptr, nullptr, nullptr, 4, kLowest), 0);
  EXPECT_EQ(export_rowmeta(index, {4}), (Metadata{4, {40}, {1, -1, -1, -1}}));
}

TEST(RowMetadata, AnIdNeverSetHasNothing) {
  const Index index(1);
  EXPECT_EQ(export_rowmeta(index, {4}), (Metadata{0, {-1}, {}}));
  set_rowmeta(index, {4}, {40}, {1, 2}, 2);
  EXPECT_EQ(export_rowmeta(index, {5, 4, -4}), (Metadata{2, {-1, 40, -1}, {-1, -1, 1, 2, -1, -1}}));
}

TEST(RowMetadata, MinusOneReadsAsNeverWritten) {
  const Index index(1);
  insert(index, {4, 5}, {4, 5});
  set_rowmeta(index, {4}, {-1}, {-1, 2}, 2);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), (Metadata{2, {-1, -1}, {-1, 2, -1, -1}}));
  EXPECT_EQ(match_ids(index, has_label(QX_MISSING)), (Ids{4, 5}));
  EXPECT_EQ(match_ids(index, has_value(0, QX_MISSING)), (Ids{4, 5}));
  EXPECT_EQ(match_ids(index, has_value(1, QX_MISSING)), Ids{5});
}

TEST(RowMetadata, MinusOneClearsAValue) {
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1, 2}, 2);
  set_rowmeta(index, {4}, {-1}, {-1, 3}, 2);
  EXPECT_EQ(export_rowmeta(index, {4}), (Metadata{2, {-1}, {-1, 3}}));
}

TEST(RowMetadata, SettingAnIdAgainReplacesItsLabelAndEveryColumn) {
  const Index index(1);
  set_rowmeta(index, {4, 5}, {40, 50}, {1, 2, 3, 4}, 2);
  EXPECT_EQ(set_rowmeta(index, {4}, {41}, {7, 8}, 2), 0);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), (Metadata{2, {41, 50}, {7, 8, 3, 4}}));
  EXPECT_EQ(set_rowmeta(index, {5}, {51}, {9, 10, 11}, 3), 0);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), (Metadata{3, {41, 51}, {7, 8, -1, 9, 10, 11}}));
}

TEST(RowMetadata, OfAnIdTwiceInOneCallTheLastValuesAreKept) {
  const Index index(1);
  set_rowmeta(index, {4, 5, 4}, {40, 50, 41}, {1, 2, 3}, 1);
  EXPECT_EQ(export_rowmeta(index, {4, 5}), (Metadata{1, {41, 50}, {3, 2}}));
}

TEST(RowMetadata, AnIdMayBeListedTwiceInAnExport) {
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1}, 1);
  EXPECT_EQ(export_rowmeta(index, {4, 5, 4}), (Metadata{1, {40, -1, 40}, {1, -1, 1}}));
}

TEST(RowMetadata, AnExportOfNoIdsWritesNothingAndGivesTheWidth) {
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1, 2, 3}, 3);
  const Guarded<std::int64_t> ids(1, 4);
  for (const std::uint32_t n : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    Guarded<std::int64_t> labels(2, kUntouchedId);
    Guarded<std::int64_t> values(6, kUntouchedId);
    EXPECT_EQ(qx_index_export_rowmeta(index, ids.data(), n, labels.data(), values.data()), 3);
    EXPECT_TRUE(labels.equals(Ids(2, kUntouchedId))) << "n " << n;
    EXPECT_TRUE(values.equals(Ids(6, kUntouchedId))) << "n " << n;
  }
}

TEST(RowMetadata, NeedsNoRowAndSurvivesEveryChangeOfRows) {
  const Metadata expected{1, {40}, {1}};
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1}, 1);
  EXPECT_EQ(export_rowmeta(index, {4}), expected);
  seal(index, 1, {4}, {4});
  EXPECT_EQ(export_rowmeta(index, {4}), expected);
  delete_ids(index, {4});
  EXPECT_EQ(export_rowmeta(index, {4}), expected);
  insert(index, {4}, {5});
  EXPECT_EQ(export_rowmeta(index, {4}), expected);
}

TEST(RowMetadata, TouchesNeitherRowsNorTheSnapshot) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2});
  insert(index, {3}, {3});
  const Observed before = observe(index);
  set_rowmeta(index, {1, 3, 9}, {1, 2, 3}, {1, 2, 3}, 1);
  EXPECT_EQ(observe(index), before);
}

TEST(RowMetadata, AnyIdLabelAndValueIsValid) {
  const Index index(1);
  const Ids ids{kLowestId, kHighestId, -1, 0};
  const Ids labels{kHighestId, kLowestId, 0, -2};
  const Ids values{kLowestId, 5, -7, kHighestId};
  set_rowmeta(index, ids, labels, values, 1);
  EXPECT_EQ(export_rowmeta(index, ids), (Metadata{1, labels, values}));
}

TEST(RowMetadata, TheHostMayChangeItsArraysAfterwards) {
  const Index index(1);
  Ids ids{4};
  Ids labels{40};
  Ids values{1};
  qx_index_set_rowmeta(index, ids.data(), labels.data(), values.data(), 1, 1);
  ids[0] = labels[0] = values[0] = 9;
  EXPECT_EQ(export_rowmeta(index, {4, 9}), (Metadata{1, {40, -1}, {1, -1}}));
}

TEST(RowMetadata, ManyIdsAndColumnsKeepTheirPlaces) {
  const Index index(1);
  Ids ids;
  Ids labels;
  Ids values;
  for (std::int64_t i = 0; i < 500; ++i) {
    ids.push_back(i << 20);
    labels.push_back(-2 * i - 2);
    for (std::int64_t c = 0; c < 7; ++c) values.push_back(i * 7 + c);
  }
  set_rowmeta(index, ids, labels, values, 7);
  EXPECT_EQ(export_rowmeta(index, ids), (Metadata{7, labels, values}));
}

}  // namespace
}  // namespace qx_test
