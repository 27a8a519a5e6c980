// index_is_valid() holds for an index after ordinary calls, and notices each broken invariant.
#include "store/validity.h"

#include <algorithm>
#include <utility>

#include "store/codes.h"
#include "support/cases.h"

namespace qx_test {
namespace {

// An index that has a value in every field.
class Full : public Sealed {
 public:
  Full() : Sealed(2, {4, 1, 4}, {1, -2, 3, 4, 5, 6}, {{1}, {0}, {3}}) {
    insert(*this, {4, 9}, {1, 2, 3, 4});
    delete_ids(*this, {1, 9});
    set_rowmeta(*this, {4}, {5}, {6}, 1);
    set_ivf(*this, 3, {1, 1, {1, 2}, {4}, {0, 1}});
    set_ivf(*this, 8, {1, 1, {1, 2}, {4}, {0, 1}});
  }
};

TEST(Validity, HoldsAfterOrdinaryCalls) {
  EXPECT_TRUE(qx::index_is_valid(*Index(3)));
  EXPECT_TRUE(qx::index_is_valid(*Sealed(2, {}, {})));
  EXPECT_TRUE(qx::index_is_valid(*Full()));
}

// Breaks an invariant, and puts it right for the release of the index.
template <typename Field, typename Value>
void expect_noticed(QxIndex& index, Field& field, Value broken, const char* what) {
  const Field kept = field;
  field = static_cast<Field>(broken);
  EXPECT_FALSE(qx::index_is_valid(index)) << what;
  field = kept;
  EXPECT_TRUE(qx::index_is_valid(index)) << what;
}

TEST(Validity, NoticesABrokenBase) {
  const Full full;
  QxIndex& index = *full;
  expect_noticed(index, index.sealed, 2, "sealed");
  expect_noticed(index, index.sealed, 0, "fields of a base without one");
  expect_noticed(index, index.n_base, -1, "n_base");
  expect_noticed(index, index.n_parts, -1, "n_parts");
  expect_noticed(index, index.base_ids[1], -1, "an id below 0");
  expect_noticed(index, index.base_ids[1], 5, "an id above the largest");
  expect_noticed(index, index.id_to_row[4], 0, "not the last row of an id");
  expect_noticed(index, index.id_to_row[1], -1, "a row that its id does not find");
  expect_noticed(index, index.id_to_row[0], 1, "an element with the row of another id");
  expect_noticed(index, index.id_to_row[0], 3, "a row that is none");
  expect_noticed(index, index.id_to_row[0], -2, "a row below -1");
  expect_noticed(index, index.max_base_id, 3, "too small a largest id");
  expect_noticed(index, index.duplicate_rows.data[0], 1, "another duplicate");
  expect_noticed(index, index.duplicate_rows.length, 0, "no duplicate");
  expect_noticed(index, index.base_magnitude, 5.5f, "a component above the magnitude");
  qx::Array<std::int64_t> two = qx::Array<std::int64_t>::of_length(2);
  two.data[0] = 0;
  two.data[1] = 3;
  std::swap(index.duplicate_rows, two);
  EXPECT_FALSE(qx::index_is_valid(index)) << "a duplicate too many";
  std::swap(index.duplicate_rows, two);
  std::int64_t longer[] = {1, 1, -1, -1, 2, -1};
  std::copy_n(index.id_to_row, 5, longer);
  std::int64_t* const table = std::exchange(index.id_to_row, longer);
  expect_noticed(index, index.max_base_id, 5, "too large a largest id");
  index.id_to_row = table;
}

TEST(Validity, NoticesFieldsOfABaseThatIsNotThere) {
  const Index unsealed(2);
  QxIndex& index = *unsealed;
  expect_noticed(index, index.n_base, 1, "n_base");
  expect_noticed(index, index.n_parts, 1, "n_parts");
  expect_noticed(index, index.max_base_id, 0, "max_base_id");
  expect_noticed(index, index.base_magnitude, 1.0f, "base_magnitude");
  float number = 0;
  expect_noticed(index, index.base_vectors, &number, "base_vectors");
  std::int64_t id = 0;
  expect_noticed(index, index.base_ids, &id, "base_ids");
  expect_noticed(index, index.part_keys, &id, "part_keys");
  expect_noticed(index, index.id_to_row, &id, "id_to_row");
  std::int32_t row = 0;
  expect_noticed(index, index.part_starts, &row, "part_starts");
  expect_noticed(index, index.part_sizes, &row, "part_sizes");
  index.duplicate_rows = qx::Array<std::int64_t>::of_length(1);
  EXPECT_FALSE(qx::index_is_valid(index)) << "duplicate_rows";
}

// Breaks the first entry of a map.
void expect_noticed(QxIndex& index, const qx::Int64Map& map, const char* what) {
  expect_noticed(index, const_cast<qx::Int64Map::Entry*>(map.begin())->key, 77, what);
}

// Breaks the invariants of an array.
template <typename T>
void expect_noticed(QxIndex& index, qx::Array<T>& array, const char* what) {
  expect_noticed(index, array.length, -1, what);
  expect_noticed(index, array.length, array.capacity + 1, what);
  expect_noticed(index, array.data, nullptr, what);
}

TEST(Validity, NoticesEachBrokenArrayAndMap) {
  const Full full;
  QxIndex& index = *full;
  expect_noticed(index, index.duplicate_rows, "duplicate_rows");
  expect_noticed(index, index.delta_pos, "delta_pos");
  expect_noticed(index, index.delta_ids, "delta_ids");
  expect_noticed(index, index.delta_stamps, "delta_stamps");
  expect_noticed(index, index.delta_vectors, "delta_vectors");
  expect_noticed(index, index.deleted_at, "deleted_at");
  expect_noticed(index, index.row_labels, "row_labels");
  expect_noticed(index, index.meta_columns, "meta_columns");
  expect_noticed(index, index.meta_columns.data[0], "a column");
  expect_noticed(index, index.ivf_map, "ivf_map");
  expect_noticed(index, index.ivf_list, "ivf_list");
  QxIvf& ivf = index.ivf_list.data[0];
  expect_noticed(index, ivf.centroids, "centroids");
  expect_noticed(index, ivf.list_ids, "list_ids");
  expect_noticed(index, ivf.list_offsets, "list_offsets");
}

TEST(Validity, NoticesABrokenDelta) {
  const Full full;
  QxIndex& index = *full;
  expect_noticed(index, index.mutated, 0, "mutations without the flag");
  expect_noticed(index, index.mutated, 2, "another flag");
  expect_noticed(index, index.snapshot, 0, "a flag without mutations");
  expect_noticed(index, index.snapshot, 1, "a tombstone of the future");
  expect_noticed(index, index.delta_ids.length, 1, "a key without its row");
  expect_noticed(index, index.delta_stamps.length, 1, "a row without its stamp");
  expect_noticed(index, index.delta_ids.data[0], 5, "a row under another id");
  expect_noticed(index, index.delta_stamps.data[0], 0, "a stamp of no mutation");
  expect_noticed(index, index.delta_stamps.data[0], 3, "a stamp of the future");
}

// Breaks each part of the codes of three rows or more.
void expect_noticed(QxIndex& index, QxCodes& codes, const char* what) {
  const qx::CodeView view = qx::view_of(codes);
  expect_noticed(index, codes.rows, -1, what);
  expect_noticed(index, codes.rows, codes.capacity + 1, what);
  expect_noticed(index, codes.capacity, codes.rows - 1, what);
  expect_noticed(index, codes.block, nullptr, what);
  expect_noticed(index, const_cast<std::uint8_t&>(view.high[2]), view.high[2] ^ 16, what);
  expect_noticed(index, const_cast<std::uint8_t&>(view.low[1]), view.low[1] ^ 1, what);
  expect_noticed(index, const_cast<std::uint32_t&>(view.constants[2]), 0, what);
  auto& norms = const_cast<qx::CodeNorms&>(view.norms[0]);
  for (float* const norm : {&norms.residual[0], &norms.residual[1], &norms.spread}) {
    expect_noticed(index, *norm, 0, what);
  }
}

TEST(Validity, NoticesBrokenCodes) {
  const Full full;
  QxIndex& index = *full;
  expect_noticed(index, index.base_codes.dim, 2, "a dimension without codes");
  expect_noticed(index, index.base_codes.rows, -1, "fewer rows than none");
  qx::begin_codes(index.base_codes, 3, 2);
  qx::code_range(index.base_codes, index.base_vectors, 0, 3);
  insert(full, {11}, {5, 6});
  qx::extend_codes(index.delta_codes, index.delta_vectors.data, 3, 2);
  ASSERT_TRUE(qx::index_is_valid(index));
  expect_noticed(index, index.base_codes, "base_codes");
  expect_noticed(index, index.base_codes.rows, 2, "codes of some rows of the base");
  expect_noticed(index, index.base_codes.dim, 1, "codes under another dimension");
  expect_noticed(index, index.delta_codes, "delta_codes");
  expect_noticed(index, index.delta_codes.rows, 2, "codes of some rows of the delta");
  expect_noticed(index, index.delta_vectors.length, 5, "a row of another dimension among them");
}

// Members that are scattered, have no row, or follow each other.
TEST(Validity, NoticesBrokenMembers) {
  const Full full;
  QxIndex& index = *full;
  set_ivf(full, 3, {1, 1, {1, 2}, {1, 4, 4}, {0, 3}});
  set_ivf(full, 8, {1, 1, {1, 2}, {1, 4}, {0, 2}});
  QxMembers& scattered = index.ivf_members.at(0);
  std::int64_t rows[] = {1, 2, 2};
  scattered.rows = rows;
  qx::begin_codes(scattered.codes, 3, 2);
  qx::code_listed(scattered.codes, index.base_vectors, rows);
  ASSERT_TRUE(qx::index_is_valid(index));
  expect_noticed(index, index.ivf_members.length, 1, "a structure without its members");
  expect_noticed(index, scattered.codes, "codes of members");
  expect_noticed(index, scattered.codes.dim, 1, "codes under another dimension");
  expect_noticed(index, scattered.rows, nullptr, "codes without rows");
  expect_noticed(index, rows[1], 0, "another row");
  expect_noticed(index, scattered.first_row, 1, "scattered members that follow each other");
  QxMembers& following = index.ivf_members.at(1);
  EXPECT_EQ(following.first_row, 1);
  expect_noticed(index, following.first_row, 0, "another first row");
  expect_noticed(index, following.rows, rows, "rows without codes");
  expect_noticed(index, index.ivf_list.at(1).list_ids.at(1), 2, "a member without a row");
  qx::release_codes(scattered.codes);
  scattered.rows = nullptr;
}

// Codes under another dimension are not read.
TEST(Validity, HoldsForCodesOfTheDeltaUnderAnotherDimension) {
  const Full full;
  qx::extend_codes(full->delta_codes, full->delta_vectors.data, 1, 4);
  full->delta_vectors.data[0] += 100;
  EXPECT_TRUE(qx::index_is_valid(*full));
}

TEST(Validity, NoticesBrokenMetadataAndABrokenIvf) {
  const Full full;
  QxIndex& index = *full;
  expect_noticed(index, index.meta_ncols, -1, "a number of columns below 0");
  expect_noticed(index, index.meta_ncols, 2, "a column without a map");
  expect_noticed(index, index.ivf_list.length, 1, "a key without its structure");
  expect_noticed(index, *index.ivf_map.find(8), 0, "two keys of one structure");
}

// The entries and the table of a map do not agree.
TEST(Validity, NoticesABrokenMap) {
  qx::Int64Map map;
  EXPECT_TRUE(map.is_valid());
  map.assign(7, 1);
  map.assign(8, 2);
  EXPECT_TRUE(map.is_valid());
  auto* const entries = const_cast<qx::Int64Map::Entry*>(map.begin());
  entries[0].key = 8;
  EXPECT_FALSE(map.is_valid());
  entries[0].key = 7;
  EXPECT_TRUE(map.is_valid());
}

}  // namespace
}  // namespace qx_test
