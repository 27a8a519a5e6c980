// index_is_valid() holds for an index after ordinary calls, and notices each broken invariant.
#include "store/validity.h"

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
  expect_noticed(index, index.duplicate_rows.capacity, 0, "a length above the capacity");
  expect_noticed(index, index.base_magnitude, 5.5f, "a component above the magnitude");
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
  expect_noticed(index, index.delta_vectors.length, -1, "a length below 0");
}

TEST(Validity, NoticesBrokenMetadataAndABrokenIvf) {
  const Full full;
  QxIndex& index = *full;
  expect_noticed(index, index.meta_ncols, -1, "a number of columns below 0");
  expect_noticed(index, index.meta_ncols, 2, "a column without a map");
  expect_noticed(index, index.ivf_list.length, 1, "a key without its structure");
  expect_noticed(index, *index.ivf_map.find(8), 0, "two keys of one structure");
  expect_noticed(index, index.ivf_list.data[1].list_ids.capacity, 0, "an array of a structure");
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
