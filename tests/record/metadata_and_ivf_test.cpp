// How labels, columns and IVF structures are stored in the record.
#include <utility>

#include "record/fields.h"
#include "support/cases.h"

namespace qx_test {
namespace {

TEST(MetadataRecord, ARejectedWidthChangesNothingAndNewColumnsAreEmptyMaps) {
  const Index index(1);
  set_rowmeta(index, {4}, {40}, {1, 2, 3}, 3);
  EXPECT_EQ(set_rowmeta(index, {5}, {50}, {1, 2}, 2), -1);
  EXPECT_EQ(index->meta_ncols, 3);
  EXPECT_EQ(index->meta_columns.length, 3);
  EXPECT_EQ(value_of(index->row_labels, 5), std::nullopt);
  EXPECT_EQ(qx_index_set_rowmeta(index, nullptr, nullptr, nullptr, 5, -1), 0);
  EXPECT_EQ(index->meta_ncols, 5);
  ASSERT_EQ(index->meta_columns.length, 5);
  EXPECT_EQ(value_of(index->meta_columns.at(2), 4), 3);
  EXPECT_EQ(index->meta_columns.at(3).size(), 0);
  EXPECT_EQ(index->meta_columns.at(4).size(), 0);
  EXPECT_EQ(index->row_labels.size(), 1);
}

void expect_structure(const QxIndex* index, std::int64_t position, const Ivf& expected) {
  const QxIvf& ivf = index->ivf_list.at(position);
  EXPECT_EQ(ivf.nlist, expected.nlist);
  EXPECT_EQ(ivf.nprobe, expected.nprobe);
  EXPECT_TRUE(same_bits(values_of(ivf.centroids), expected.centroids));
  EXPECT_EQ(values_of(ivf.list_ids), expected.list_ids);
  EXPECT_EQ(values_of(ivf.list_offsets), expected.list_offsets);
  // What has no elements has no memory.
  EXPECT_EQ(ivf.centroids.data == nullptr, expected.centroids.empty());
  EXPECT_EQ(ivf.list_ids.data == nullptr, expected.list_ids.empty());
  EXPECT_EQ(ivf.list_offsets.data == nullptr, expected.list_offsets.empty());
}

TEST(IvfRecord, HoldsCopiesOfArraysOfAnyShape) {
  const std::pair<std::int32_t, Ivf> shapes[] = {{1, {2, 1, {1, 2}, {1, 2, 3}, {0, 1, 3}}},
                                                 {3, {0, 1, {}, {5, 6}, {4}}},
                                                 {3, {-1, 1, {}, {5, 6}, {}}},
                                                 {1, {1, 1, {8}, {}, {0, 0}}},
                                                 {-2, {-3, 1, {1, 2, 3, 4, 5, 6}, {}, {}}}};
  for (const auto& [dim, ivf] : shapes) {
    const Index index(static_cast<std::uint32_t>(dim));
    set_ivf(index, 7, ivf);
    expect_structure(index, 0, ivf);
  }
}

TEST(IvfRecord, CentroidsHaveTheDimensionAtAttachment) {
  const Ivf first{3, 1, {1, 2, 3, 4, 5, 6}, {}, {0, 0, 0, 0}};
  const Ivf second{3, 1, {1, 2, 3}, {}, {0, 0, 0, 0}};
  const Index index(2);
  set_ivf(index, 7, first);
  seal(index, 1, {}, {});
  set_ivf(index, 8, second);
  expect_structure(index, 0, first);
  expect_structure(index, 1, second);
}

TEST(IvfRecord, PositionsFollowTheFirstAttachmentAndStartAgainAfterAClear) {
  const Index index(1);
  set_ivf(index, 7, {2, 1, {1, 2}, {1, 2, 3}, {0, 1, 3}});
  set_ivf(index, 9, one_list({2}));
  set_ivf(index, 7, {1, 5, {9}, {4}, {0, 1}});
  EXPECT_EQ(value_of(index->ivf_map, 7), 0);
  EXPECT_EQ(value_of(index->ivf_map, 9), 1);
  EXPECT_EQ(index->ivf_map.size(), 2);
  EXPECT_EQ(index->ivf_list.length, 2);
  expect_structure(index, 0, {1, 5, {9}, {4}, {0, 1}});
  expect_structure(index, 1, one_list({2}));
  EXPECT_EQ(qx_index_clear_ivf(index), 0);
  EXPECT_EQ(index->ivf_map.size(), 0);
  EXPECT_TRUE(owns_nothing(index->ivf_list));
  set_ivf(index, 9, one_list({3}));
  EXPECT_EQ(value_of(index->ivf_map, 9), 0);
  EXPECT_EQ(value_of(index->ivf_map, 7), std::nullopt);
  expect_structure(index, 0, one_list({3}));
}

TEST(IvfRecord, AnyProbeCountIsStoredAsGivenUnderItsKey) {
  const Index index(1);
  set_ivf(index, 7, {1, kLowest, {1}, {1}, {0, 1}});
  EXPECT_EQ(index->ivf_list.at(0).nprobe, kLowest);
  for (const std::int32_t nprobe : {0, -1, kHighest}) {
    EXPECT_EQ(qx_index_set_ivf_nprobe(index, 7, nprobe), 0);
    EXPECT_EQ(index->ivf_list.at(0).nprobe, nprobe);
    EXPECT_EQ(qx_index_set_ivf_nprobe(index, 8, 5), -1);
    EXPECT_EQ(index->ivf_list.at(0).nprobe, nprobe);
  }
  EXPECT_EQ(index->ivf_map.size(), 1);
}

}  // namespace
}  // namespace qx_test
