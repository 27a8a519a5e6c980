#include "store/validity.h"

#include <cmath>

#include "store/base.h"
#include "store/codes.h"
#include "store/members.h"

namespace qx {
namespace {

template <typename T>
bool is_valid(const Array<T>& array) {
  return array.length >= 0 && array.length <= array.capacity &&
         (array.data == nullptr) == (array.capacity == 0);
}

bool is_unsealed(const QxIndex& index) {
  return index.n_base == 0 && index.n_parts == 0 && index.base_vectors == nullptr &&
         index.base_ids == nullptr && index.part_keys == nullptr && index.part_starts == nullptr &&
         index.part_sizes == nullptr && index.id_to_row == nullptr && index.max_base_id == -1 &&
         index.duplicate_rows.length == 0 && index.base_magnitude == 0;
}

// Every row of the table has its id, and every other row is listed, in order.
bool table_is_valid(const QxIndex& index) {
  std::int64_t listed = 0;
  std::int64_t largest = -1;
  for (std::int64_t r = 0; r < index.n_base; ++r) {
    const std::int64_t id = index.base_ids[r];
    if (id < 0 || id > index.max_base_id || index.id_to_row[id] < r) return false;
    largest = id > largest ? id : largest;
    if (index.id_to_row[id] == r) continue;
    if (listed == index.duplicate_rows.length || index.duplicate_rows.at(listed) != r) return false;
    ++listed;
  }
  for (std::int64_t id = 0; id <= index.max_base_id; ++id) {
    const std::int64_t row = index.id_to_row[id];
    if (row < -1 || row >= index.n_base || (row >= 0 && index.base_ids[row] != id)) return false;
  }
  return listed == index.duplicate_rows.length && largest == index.max_base_id;
}

bool magnitude_is_valid(const QxIndex& index) {
  for (std::int64_t i = 0; i < index.n_base * dim_of(index); ++i) {
    if (std::abs(index.base_vectors[i]) > index.base_magnitude) return false;
  }
  return true;
}

// All base rows have codes, or none has.
bool base_codes_are_valid(const QxIndex& index) {
  const QxCodes& codes = index.base_codes;
  return (codes.block == nullptr || (codes.rows == index.n_base && codes.dim == dim_of(index))) &&
         codes_are_valid(codes, index.base_vectors);
}

bool base_is_valid(const QxIndex& index) {
  if (!is_valid(index.duplicate_rows) || !base_codes_are_valid(index)) return false;
  if (index.sealed == 0) return is_unsealed(index);
  return index.sealed == 1 && index.n_base >= 0 && index.n_parts >= 0 && table_is_valid(index) &&
         magnitude_is_valid(index);
}

bool delta_is_valid(const QxIndex& index) {
  bool valid = is_valid(index.delta_ids) && is_valid(index.delta_stamps) &&
               is_valid(index.delta_vectors) && index.delta_pos.is_valid() &&
               index.deleted_at.is_valid() && index.delta_pos.size() == index.delta_ids.length &&
               index.delta_stamps.length == index.delta_ids.length &&
               (index.mutated == 0) == (index.snapshot == 0) && index.mutated <= 1;
  for (std::int64_t p = 0; valid && p < index.delta_ids.length; ++p) {
    const auto stamp = static_cast<std::uint64_t>(index.delta_stamps.at(p));
    valid = index.delta_pos.get(index.delta_ids.at(p), -1) == p && stamp >= 1 &&
            stamp <= index.snapshot;
  }
  for (const Int64Map::Entry& tombstone : index.deleted_at) {
    valid &= static_cast<std::uint64_t>(tombstone.value) <= index.snapshot;
  }
  return valid;
}

// All rows of the delta have codes, or none has. Under another dimension, codes are not read, and
// may be of any rows.
bool delta_codes_are_valid(const QxIndex& index) {
  const QxCodes& codes = index.delta_codes;
  const bool complete = codes.rows == 0 || (codes.rows == index.delta_ids.length &&
                                            codes.rows * codes.dim == index.delta_vectors.length);
  return codes.dim != dim_of(index) ||
         (complete && codes_are_valid(codes, index.delta_vectors.data));
}

bool metadata_is_valid(const QxIndex& index) {
  bool valid = is_valid(index.meta_columns) && index.row_labels.is_valid() &&
               index.meta_ncols >= 0 && index.meta_columns.length >= index.meta_ncols;
  for (std::int64_t c = 0; valid && c < index.meta_columns.length; ++c) {
    valid = index.meta_columns.at(c).is_valid();
  }
  return valid;
}

bool ivf_is_valid(const QxIndex& index) {
  bool valid = is_valid(index.ivf_list) && index.ivf_map.is_valid() &&
               index.ivf_map.size() == index.ivf_list.length;
  // Positions are given in order and never reused, so those of the entries are 0, 1, 2, ...
  std::int64_t position = 0;
  for (const Int64Map::Entry& entry : index.ivf_map) valid &= entry.value == position++;
  for (std::int64_t i = 0; valid && i < index.ivf_list.length; ++i) {
    const QxIvf& ivf = index.ivf_list.at(i);
    valid = is_valid(ivf.centroids) && is_valid(ivf.list_ids) && is_valid(ivf.list_offsets);
  }
  return valid;
}

}  // namespace

bool index_is_valid(const QxIndex& index) {
  return base_is_valid(index) && delta_is_valid(index) && delta_codes_are_valid(index) &&
         metadata_is_valid(index) && ivf_is_valid(index) && members_are_valid(index);
}

}  // namespace qx
