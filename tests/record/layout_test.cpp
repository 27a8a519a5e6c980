// The record as a piece of memory: its fields, their types and order, and what a new one holds.
#include <cstddef>
#include <type_traits>

#include "store/qx_index.h"
#include "support/host.h"

namespace qx_test {
namespace {

static_assert(std::is_standard_layout_v<QxIndex>);
static_assert(std::is_standard_layout_v<QxIvf>);

template <auto Member>
struct FieldOf;

template <typename Record, typename Field, Field Record::*Member>
struct FieldOf<Member> {
  using Type = Field;
};

template <auto Member, typename Type>
constexpr bool kFieldIs = std::is_same_v<typename FieldOf<Member>::Type, Type>;

static_assert(kFieldIs<&QxIndex::dim, std::uint32_t>);
static_assert(kFieldIs<&QxIndex::user_tag, std::uint32_t>);
static_assert(kFieldIs<&QxIndex::n_base, std::int64_t>);
static_assert(kFieldIs<&QxIndex::sealed, std::uint32_t>);
static_assert(kFieldIs<&QxIndex::n_parts, std::int32_t>);
static_assert(kFieldIs<&QxIndex::base_vectors, float*>);
static_assert(kFieldIs<&QxIndex::base_ids, std::int64_t*>);
static_assert(kFieldIs<&QxIndex::part_keys, std::int64_t*>);
static_assert(kFieldIs<&QxIndex::part_starts, std::int32_t*>);
static_assert(kFieldIs<&QxIndex::part_sizes, std::int32_t*>);
static_assert(kFieldIs<&QxIndex::id_to_row, std::int64_t*>);
static_assert(kFieldIs<&QxIndex::max_base_id, std::int64_t>);
static_assert(kFieldIs<&QxIndex::snapshot, std::uint64_t>);
static_assert(kFieldIs<&QxIndex::mutated, std::uint32_t>);
static_assert(kFieldIs<&QxIndex::delta_pos, qx::Int64Map>);
static_assert(kFieldIs<&QxIndex::delta_ids, qx::Array<std::int64_t>>);
static_assert(kFieldIs<&QxIndex::delta_stamps, qx::Array<std::int64_t>>);
static_assert(kFieldIs<&QxIndex::delta_vectors, qx::Array<float>>);
static_assert(kFieldIs<&QxIndex::deleted_at, qx::Int64Map>);
static_assert(kFieldIs<&QxIndex::row_labels, qx::Int64Map>);
static_assert(kFieldIs<&QxIndex::meta_ncols, std::int32_t>);
static_assert(kFieldIs<&QxIndex::meta_columns, qx::Array<qx::Int64Map>>);
static_assert(kFieldIs<&QxIndex::ivf_map, qx::Int64Map>);
static_assert(kFieldIs<&QxIndex::ivf_list, qx::Array<QxIvf>>);

static_assert(kFieldIs<&QxIvf::nlist, std::int32_t>);
static_assert(kFieldIs<&QxIvf::nprobe, std::int32_t>);
static_assert(kFieldIs<&QxIvf::centroids, qx::Array<float>>);
static_assert(kFieldIs<&QxIvf::list_ids, qx::Array<std::int64_t>>);
static_assert(kFieldIs<&QxIvf::list_offsets, qx::Array<std::int32_t>>);

// Whether the offsets rise strictly from 0.
bool are_in_order(const std::vector<std::size_t>& offsets) {
  for (std::size_t i = 1; i < offsets.size(); ++i) {
    if (offsets[i] <= offsets[i - 1]) return false;
  }
  return offsets.at(0) == 0;
}

TEST(Layout, TheFieldsOfTheRecordAreInTheirOrder) {
  EXPECT_TRUE(are_in_order({
      offsetof(QxIndex, dim),          offsetof(QxIndex, user_tag),
      offsetof(QxIndex, n_base),       offsetof(QxIndex, sealed),
      offsetof(QxIndex, n_parts),      offsetof(QxIndex, base_vectors),
      offsetof(QxIndex, base_ids),     offsetof(QxIndex, part_keys),
      offsetof(QxIndex, part_starts),  offsetof(QxIndex, part_sizes),
      offsetof(QxIndex, id_to_row),    offsetof(QxIndex, max_base_id),
      offsetof(QxIndex, snapshot),     offsetof(QxIndex, mutated),
      offsetof(QxIndex, delta_pos),    offsetof(QxIndex, delta_ids),
      offsetof(QxIndex, delta_stamps), offsetof(QxIndex, delta_vectors),
      offsetof(QxIndex, deleted_at),   offsetof(QxIndex, row_labels),
      offsetof(QxIndex, meta_ncols),   offsetof(QxIndex, meta_columns),
      offsetof(QxIndex, ivf_map),      offsetof(QxIndex, ivf_list),
  }));
}

TEST(Layout, TheFieldsOfAnIvfStructureAreInTheirOrder) {
  EXPECT_TRUE(
      are_in_order({offsetof(QxIvf, nlist), offsetof(QxIvf, nprobe), offsetof(QxIvf, centroids),
                    offsetof(QxIvf, list_ids), offsetof(QxIvf, list_offsets)}));
}

// What is derived comes after the fixed fields.
TEST(Layout, DerivedFieldsFollowTheFixedOnes) {
  EXPECT_TRUE(are_in_order({0, offsetof(QxIndex, ivf_list), offsetof(QxIndex, base_magnitude),
                            offsetof(QxIndex, duplicate_rows)}));
  EXPECT_EQ(sizeof(QxIvf), offsetof(QxIvf, list_offsets) + sizeof(QxIvf::list_offsets));
}

TEST(Layout, AHandleIsAligned) {
  const Index index(3);
  const QxIndex* const record = index;
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(record) % 8, 0u);
}

template <typename T>
bool owns_nothing(const qx::Array<T>& array) {
  return array.data == nullptr && array.length == 0 && array.capacity == 0;
}

TEST(Layout, ANewRecordHoldsItsInitialValues) {
  const Index index(7, 42);
  EXPECT_EQ(index->dim, 7u);
  EXPECT_EQ(index->user_tag, 42u);
  EXPECT_EQ(index->n_base, 0);
  EXPECT_EQ(index->sealed, 0u);
  EXPECT_EQ(index->n_parts, 0);
  EXPECT_EQ(index->max_base_id, -1);
  EXPECT_EQ(index->snapshot, 0u);
  EXPECT_EQ(index->mutated, 0u);
  EXPECT_EQ(index->meta_ncols, 0);
}

TEST(Layout, ANewRecordOwnsNoArrays) {
  const Index index(7, 42);
  EXPECT_EQ(index->base_vectors, nullptr);
  EXPECT_EQ(index->base_ids, nullptr);
  EXPECT_EQ(index->part_keys, nullptr);
  EXPECT_EQ(index->part_starts, nullptr);
  EXPECT_EQ(index->part_sizes, nullptr);
  EXPECT_EQ(index->id_to_row, nullptr);
  EXPECT_TRUE(owns_nothing(index->delta_ids));
  EXPECT_TRUE(owns_nothing(index->delta_stamps));
  EXPECT_TRUE(owns_nothing(index->delta_vectors));
  EXPECT_TRUE(owns_nothing(index->meta_columns));
  EXPECT_TRUE(owns_nothing(index->ivf_list));
}

TEST(Layout, ANewRecordHasEmptyMaps) {
  const Index index(7, 42);
  EXPECT_EQ(index->delta_pos.size(), 0);
  EXPECT_EQ(index->deleted_at.size(), 0);
  EXPECT_EQ(index->row_labels.size(), 0);
  EXPECT_EQ(index->ivf_map.size(), 0);
}

}  // namespace
}  // namespace qx_test
