// Which blocks the engine gives back, and in which order: seen at the heap itself.
#include <algorithm>
#include <cstdlib>

#include "record/fields.h"
#include "store/qx_index.h"
#include "support/heap.h"
#include "support/host.h"

namespace qx_test {
namespace {

using Blocks = std::vector<const void*>;

const float kVectors[] = {1, 2, 3, 4};
const std::int64_t kIds[] = {3, 1};
const std::int64_t kKeys[] = {7};
const std::int32_t kStarts[] = {0};
const std::int32_t kSizes[] = {2};
const std::int64_t kMembers[] = {3, 1};
const std::int32_t kOffsets[] = {0, 2};

// Two rows of dimension 2 under one partition, without a use of the heap by the host.
std::int32_t build_two_rows(QxIndex* index) {
  return qx_index_build(index, kVectors, 2, 2, kIds, kKeys, kStarts, kSizes, 1);
}

void attach_one_list(QxIndex* index, std::int64_t key) {
  qx_index_set_ivf(index, key, 1, 1, kVectors, kMembers, kOffsets, 2);
}

Blocks base_arrays(const QxIndex* index) {
  return {index->base_vectors, index->base_ids,   index->part_keys,
          index->part_starts,  index->part_sizes, index->id_to_row};
}

// Something of everything that an index can own.
void fill(QxIndex* index) {
  build_two_rows(index);
  qx_index_insert(index, kVectors, kIds, 2);
  qx_index_delete(index, kIds, 2);
  qx_index_set_rowmeta(index, kIds, kIds, kMembers, 1, 2);
  qx_index_set_rowmeta(index, kIds, kIds, kMembers, 2, 1);
  attach_one_list(index, 7);
  attach_one_list(index, 9);
}

TEST(Ownership, FreeingAnIndexThatWasNeverBuiltReleasesNoBaseArrays) {
  QxIndex* const index = qx_index_new(2, 0);
  qx_index_insert(index, kVectors, kIds, 2);
  const Blocks delta{index->delta_ids.data, index->delta_stamps.data, index->delta_vectors.data};
  const HeapLog log = record_heap([&] { qx_index_free(index); });
  ASSERT_EQ(log.releases.size(), 5u);  // the map's, the three arrays, the record
  EXPECT_TRUE(std::equal(delta.begin(), delta.end(), log.releases.begin() + 1));
}

// The blocks of a full index in the order of its fields; null stands for the block of a map.
Blocks in_field_order(const QxIndex* index) {
  Blocks blocks = base_arrays(index);
  const auto append = [&](const Blocks& more) {
    blocks.insert(blocks.end(), more.begin(), more.end());
  };
  append({nullptr, index->delta_ids.data, index->delta_stamps.data, index->delta_vectors.data});
  append(Blocks(static_cast<std::size_t>(2 + index->meta_columns.length), nullptr));
  append({index->meta_columns.data, nullptr});
  for (std::int64_t i = 0; i < index->ivf_list.length; ++i) {
    const QxIvf& ivf = index->ivf_list.at(i);
    append({ivf.centroids.data, ivf.list_ids.data, ivf.list_offsets.data});
  }
  append({index->ivf_list.data, index});
  return blocks;
}

TEST(Ownership, FreeReleasesInTheOrderOfTheFields) {
  QxIndex* const index = qx_index_new(2, 0);
  fill(index);
  const Blocks expected = in_field_order(index);
  const HeapLog log = record_heap([&] { qx_index_free(index); });
  ASSERT_EQ(log.releases.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (expected[i] == nullptr) continue;
    EXPECT_EQ(log.releases[i], expected[i]) << "release " << i;
  }
}

TEST(Ownership, ABuildAllocatesItsSixArraysInTheOrderOfTheFields) {
  const Index index(2);
  std::int32_t result = -1;
  const HeapLog log = record_heap([&] { result = build_two_rows(index); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(log.still_held, base_arrays(index));
}

TEST(Ownership, ARebuildDoesNotReleaseTheEarlierBase) {
  QxIndex* const index = qx_index_new(2, 0);
  build_two_rows(index);
  const Blocks earlier = base_arrays(index);
  const HeapLog rebuilt = record_heap([&] { build_two_rows(index); });
  EXPECT_EQ(rebuilt.releases, Blocks());
  Blocks expected = base_arrays(index);
  expected.push_back(index);
  const HeapLog freed = record_heap([&] { qx_index_free(index); });
  EXPECT_EQ(freed.releases, expected);
  for (const void* const block : earlier) std::free(const_cast<void*>(block));
}

TEST(Ownership, ReplacingAStructureReleasesTheArraysOfTheFirst) {
  const Index index(2);
  attach_one_list(index, 7);
  const QxIvf& ivf = index->ivf_list.at(0);
  const Blocks first = {ivf.centroids.data, ivf.list_ids.data, ivf.list_offsets.data};
  const HeapLog log = record_heap([&] { attach_one_list(index, 7); });
  EXPECT_EQ(log.releases, first);
  EXPECT_EQ(log.allocations, 3);
}

}  // namespace
}  // namespace qx_test
