// How labels, columns and IVF structures are stored in the record.
#include <optional>

#include "record/fields.h"
#include "store/qx_index.h"
#include "support/host.h"

namespace qx_test {
namespace {

TEST(MetadataRecord, WithoutColumnsHoldsLabelsAlone) {
  const Index index(1);
  set_rowmeta(index, {4, 5}, {40, 50}, {}, 0);
  EXPECT_EQ(index->meta_ncols, 0);
  EXPECT_EQ(index->meta_columns.data, nullptr);
  EXPECT_EQ(index->row_labels.size(), 2);
  EXPECT_EQ(value_of(index->row_labels, 5), 50);
}

TEST(MetadataRecord, ARejectedWidthChangesNothing) {
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1, 2, 3}, 3);
  EXPECT_EQ(set_rowmeta(index, {5}, {50}, {1, 2}, 2), -1);
  EXPECT_EQ(index->meta_ncols, 3);
  EXPECT_EQ(index->meta_columns.length, 3);
  EXPECT_EQ(value_of(index->row_labels, 5), std::nullopt);
}

TEST(MetadataRecord, NewColumnsAreEmptyMaps) {
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1, 2, 3}, 3);
  set_rowmeta(index, {}, {}, {}, 5);
  EXPECT_EQ(index->meta_ncols, 5);
  ASSERT_EQ(index->meta_columns.length, 5);
  EXPECT_EQ(value_of(index->meta_columns.at(2), 4), 3);
  EXPECT_EQ(index->meta_columns.at(3).size(), 0);
  EXPECT_EQ(index->meta_columns.at(4).size(), 0);
}

TEST(MetadataRecord, ANegativeCountOfIdsWidensToo) {
  const Index index(1);
  EXPECT_EQ(qx_index_set_rowmeta(index, nullptr, nullptr, nullptr, 2, -1), 0);
  EXPECT_EQ(index->meta_ncols, 2);
  EXPECT_EQ(index->row_labels.size(), 0);
}

// The structure at a position, in the shape that hosts hand over.
Ivf structure_at(const QxIndex* index, std::int64_t position) {
  const QxIvf& ivf = index->ivf_list.at(position);
  return {ivf.nlist, ivf.nprobe, values_of(ivf.centroids), values_of(ivf.list_ids),
          values_of(ivf.list_offsets)};
}

void expect_structure(const QxIndex* index, std::int64_t position, const Ivf& expected) {
  const Ivf ivf = structure_at(index, position);
  EXPECT_EQ(ivf.nlist, expected.nlist);
  EXPECT_EQ(ivf.nprobe, expected.nprobe);
  EXPECT_TRUE(same_bits(ivf.centroids, expected.centroids));
  EXPECT_EQ(ivf.list_ids, expected.list_ids);
  EXPECT_EQ(ivf.list_offsets, expected.list_offsets);
}

TEST(IvfRecord, ASecondStructureUnderAKeyTakesThePlaceOfTheFirst) {
  const Index index(1);
  set_ivf(index, 7, {2, 1, {1, 2}, {1, 2, 3}, {0, 1, 3}});
  expect_structure(index, 0, {2, 1, {1, 2}, {1, 2, 3}, {0, 1, 3}});
  set_ivf(index, 7, {1, 5, {9}, {4}, {0, 1}});
  EXPECT_EQ(index->ivf_list.length, 1);
  EXPECT_EQ(index->ivf_map.size(), 1);
  expect_structure(index, 0, {1, 5, {9}, {4}, {0, 1}});
}

TEST(IvfRecord, PositionsFollowTheFirstAttachment) {
  const Index index(1);
  set_ivf(index, 7, {1, 1, {1}, {1}, {0, 1}});
  set_ivf(index, 9, {1, 2, {2}, {2}, {0, 1}});
  set_ivf(index, 7, {1, 3, {3}, {3}, {0, 1}});
  EXPECT_EQ(value_of(index->ivf_map, 7), 0);
  EXPECT_EQ(value_of(index->ivf_map, 9), 1);
  EXPECT_EQ(index->ivf_list.length, 2);
  expect_structure(index, 0, {1, 3, {3}, {3}, {0, 1}});
  expect_structure(index, 1, {1, 2, {2}, {2}, {0, 1}});
}

TEST(IvfRecord, AnyProbeCountIsStoredAsGiven) {
  const Index index(1);
  set_ivf(index, 7, {1, INT32_MIN, {1}, {1}, {0, 1}});
  EXPECT_EQ(index->ivf_list.at(0).nprobe, INT32_MIN);
  for (const std::int32_t nprobe : {0, -1, INT32_MAX}) {
    EXPECT_EQ(qx_index_set_ivf_nprobe(index, 7, nprobe), 0);
    EXPECT_EQ(index->ivf_list.at(0).nprobe, nprobe);
  }
}

TEST(IvfRecord, AnUnknownKeyChangesNoProbeCount) {
  const Index index(1);
  set_ivf(index, 7, {1, 4, {1}, {1}, {0, 1}});
  EXPECT_EQ(qx_index_set_ivf_nprobe(index, 8, 5), -1);
  EXPECT_EQ(index->ivf_list.at(0).nprobe, 4);
  EXPECT_EQ(index->ivf_map.size(), 1);
}

TEST(IvfRecord, WithoutListsStoresOneOffset) {
  const Index index(3);
  set_ivf(index, 7, {0, 1, {}, {5, 6}, {4}});
  expect_structure(index, 0, {0, 1, {}, {5, 6}, {4}});
  EXPECT_EQ(index->ivf_list.at(0).centroids.data, nullptr);
}

TEST(IvfRecord, WithANegativeListCountStoresTheIdsAlone) {
  const Index index(3);
  set_ivf(index, 7, {-1, 1, {}, {5, 6}, {}});
  expect_structure(index, 0, {-1, 1, {}, {5, 6}, {}});
  EXPECT_EQ(index->ivf_list.at(0).centroids.data, nullptr);
  EXPECT_EQ(index->ivf_list.at(0).list_offsets.data, nullptr);
}

TEST(IvfRecord, WithoutIdsStoresNone) {
  const Index index(1);
  set_ivf(index, 7, {1, 1, {8}, {}, {0, 0}});
  expect_structure(index, 0, {1, 1, {8}, {}, {0, 0}});
  EXPECT_EQ(index->ivf_list.at(0).list_ids.data, nullptr);
}

TEST(IvfRecord, CentroidsHaveTheDimensionAtAttachment) {
  const Index index(2);
  set_ivf(index, 7, {3, 1, {1, 2, 3, 4, 5, 6}, {}, {0, 0, 0, 0}});
  seal(index, 1, {}, {});
  set_ivf(index, 8, {3, 1, {1, 2, 3}, {}, {0, 0, 0, 0}});
  EXPECT_EQ(values_of(index->ivf_list.at(0).centroids), (Floats{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(values_of(index->ivf_list.at(1).centroids), (Floats{1, 2, 3}));
}

TEST(IvfRecord, TwoNegativeFactorsStoreTheirPositiveProduct) {
  const Index index(static_cast<std::uint32_t>(-2));
  set_ivf(index, 7, {-3, 1, {1, 2, 3, 4, 5, 6}, {}, {}});
  EXPECT_EQ(values_of(index->ivf_list.at(0).centroids), (Floats{1, 2, 3, 4, 5, 6}));
}

TEST(IvfRecord, AfterAClearPositionsStartAgain) {
  const Index index(1);
  set_ivf(index, 7, {1, 1, {1}, {1}, {0, 1}});
  set_ivf(index, 9, {1, 2, {2}, {2}, {0, 1}});
  EXPECT_EQ(qx_index_clear_ivf(index), 0);
  EXPECT_EQ(index->ivf_map.size(), 0);
  EXPECT_EQ(index->ivf_list.data, nullptr);
  EXPECT_EQ(index->ivf_list.length, 0);
  EXPECT_EQ(index->ivf_list.capacity, 0);
  set_ivf(index, 9, {1, 3, {3}, {3}, {0, 1}});
  EXPECT_EQ(value_of(index->ivf_map, 9), 0);
  EXPECT_EQ(value_of(index->ivf_map, 7), std::nullopt);
  expect_structure(index, 0, {1, 3, {3}, {3}, {0, 1}});
}

}  // namespace
}  // namespace qx_test
