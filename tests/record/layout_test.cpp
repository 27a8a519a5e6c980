// The record as a piece of memory: its fields, their types and order, and what a new one holds.
#include <cstddef>
#include <type_traits>

#include "record/fields.h"
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

template <typename Type, auto... Members>
constexpr bool kFieldsAre = (std::is_same_v<typename FieldOf<Members>::Type, Type> && ...);

static_assert(kFieldsAre<std::uint32_t, &QxIndex::dim, &QxIndex::user_tag, &QxIndex::sealed,
                         &QxIndex::mutated>);
static_assert(kFieldsAre<std::int32_t, &QxIndex::n_parts, &QxIndex::meta_ncols>);
static_assert(kFieldsAre<std::int64_t, &QxIndex::n_base, &QxIndex::max_base_id>);
static_assert(kFieldsAre<std::uint64_t, &QxIndex::snapshot>);
static_assert(kFieldsAre<float*, &QxIndex::base_vectors>);
static_assert(
    kFieldsAre<std::int64_t*, &QxIndex::base_ids, &QxIndex::part_keys, &QxIndex::id_to_row>);
static_assert(kFieldsAre<std::int32_t*, &QxIndex::part_starts, &QxIndex::part_sizes>);
static_assert(kFieldsAre<qx::Int64Map, &QxIndex::delta_pos, &QxIndex::deleted_at,
                         &QxIndex::row_labels, &QxIndex::ivf_map>);
static_assert(kFieldsAre<qx::Array<std::int64_t>, &QxIndex::delta_ids, &QxIndex::delta_stamps>);
static_assert(kFieldsAre<qx::Array<float>, &QxIndex::delta_vectors>);
static_assert(kFieldsAre<qx::Array<qx::Int64Map>, &QxIndex::meta_columns>);
static_assert(kFieldsAre<qx::Array<QxIvf>, &QxIndex::ivf_list>);

static_assert(kFieldsAre<std::int32_t, &QxIvf::nlist, &QxIvf::nprobe>);
static_assert(kFieldsAre<qx::Array<float>, &QxIvf::centroids>);
static_assert(kFieldsAre<qx::Array<std::int64_t>, &QxIvf::list_ids>);
static_assert(kFieldsAre<qx::Array<std::int32_t>, &QxIvf::list_offsets>);

// Whether the offsets rise strictly from 0.
bool are_in_order(const std::vector<std::size_t>& offsets) {
  for (std::size_t i = 1; i < offsets.size(); ++i) {
    if (offsets[i] <= offsets[i - 1]) return false;
  }
  return offsets.at(0) == 0;
}

TEST(Layout, TheFieldsOfTheRecordAreInTheirOrder) {
  EXPECT_TRUE(are_in_order(
      {offsetof(QxIndex, dim), offsetof(QxIndex, user_tag), offsetof(QxIndex, n_base),
       offsetof(QxIndex, sealed), offsetof(QxIndex, n_parts), offsetof(QxIndex, base_vectors),
       offsetof(QxIndex, base_ids), offsetof(QxIndex, part_keys), offsetof(QxIndex, part_starts),
       offsetof(QxIndex, part_sizes), offsetof(QxIndex, id_to_row), offsetof(QxIndex, max_base_id),
       offsetof(QxIndex, snapshot), offsetof(QxIndex, mutated), offsetof(QxIndex, delta_pos),
       offsetof(QxIndex, delta_ids), offsetof(QxIndex, delta_stamps),
       offsetof(QxIndex, delta_vectors), offsetof(QxIndex, deleted_at),
       offsetof(QxIndex, row_labels), offsetof(QxIndex, meta_ncols),
       offsetof(QxIndex, meta_columns), offsetof(QxIndex, ivf_map), offsetof(QxIndex, ivf_list),
       // What is derived comes after the fixed fields.
       offsetof(QxIndex, base_magnitude), offsetof(QxIndex, duplicate_rows),
       offsetof(QxIndex, base_codes), offsetof(QxIndex, delta_codes)}));
}

TEST(Layout, TheFieldsOfAnIvfStructureAreInTheirOrderAndTheWhole) {
  EXPECT_TRUE(
      are_in_order({offsetof(QxIvf, nlist), offsetof(QxIvf, nprobe), offsetof(QxIvf, centroids),
                    offsetof(QxIvf, list_ids), offsetof(QxIvf, list_offsets)}));
  EXPECT_EQ(sizeof(QxIvf), offsetof(QxIvf, list_offsets) + sizeof(QxIvf::list_offsets));
}

TEST(Layout, ANewRecordIsAligned) {
  const Index index(7, 42);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(static_cast<QxIndex*>(index)) % 8, 0u);
}

}  // namespace
}  // namespace qx_test
