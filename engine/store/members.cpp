#include "store/members.h"

#include "store/base.h"
#include "store/codes.h"
#include "support/memory.h"

namespace qx {
namespace {

void release_members(QxMembers& members) {
  release(members.rows);
  release_codes(members.codes);
  members = {};
}

// The members of all structures that have codes.
std::int64_t count_coded(const QxIndex& index) {
  std::int64_t count = 0;
  for (std::int64_t i = 0; i < index.ivf_members.length; ++i) {
    count += index.ivf_members.at(i).codes.rows;
  }
  return count;
}

// True if every id has a base row. Sets whether those rows follow each other.
bool find_rows(const QxIndex& index, const Array<std::int64_t>& ids, bool* follow) {
  *follow = true;
  for (std::int64_t i = 0; i < ids.length; ++i) {
    const std::int64_t row = base_row_of(index, ids.data[i]);
    if (row < 0) return false;
    *follow &= row == base_row_of(index, ids.data[0]) + i;
  }
  return ids.length > 0;
}

bool are_valid(const QxIndex& index, const QxMembers& members, const Array<std::int64_t>& ids) {
  const bool coded = members.rows != nullptr;
  if (coded != (members.codes.block != nullptr) || (coded && members.first_row >= 0)) return false;
  bool valid = !coded || (members.codes.dim == dim_of(index) && members.codes.rows == ids.length &&
                          members.codes.capacity == ids.length);
  for (std::int64_t i = 0; valid && i < ids.length && (coded || members.first_row >= 0); ++i) {
    const std::int64_t row = base_row_of(index, ids.data[i]);
    valid =
        row >= 0 && row == (coded ? members.rows[i] : members.first_row + i) &&
        (!coded || code_is_valid(members.codes, i, index.base_vectors + row * members.codes.dim));
  }
  return valid;
}

}  // namespace

void derive_members(QxIndex& index, std::int64_t position) {
  const std::int64_t dim = dim_of(index);
  const Array<std::int64_t>& ids = index.ivf_list.at(position).list_ids;
  if (position == index.ivf_members.length) index.ivf_members.append({});
  QxMembers& members = index.ivf_members.at(position);
  release_members(members);
  bool follow = false;
  if (!find_rows(index, ids, &follow)) return;
  if (follow) {
    members.first_row = index.id_to_row[ids.data[0]];
    return;
  }
  if (index.base_codes.rows == 0 || !is_worth_coding(ids.length, dim)) return;
  if (count_coded(index) + ids.length > index.n_base) return;
  begin_codes(members.codes, ids.length, dim);
  members.rows = static_cast<std::int64_t*>(try_allocate(8 * ids.length));
  if (members.codes.block == nullptr || members.rows == nullptr) return release_members(members);
  for (std::int64_t i = 0; i < ids.length; ++i) {
    members.rows[i] = base_row_of(index, ids.data[i]);
  }
  code_listed(members.codes, index.base_vectors, members.rows);
}

void derive_all_members(QxIndex& index) {
  release_all_members(index);
  for (std::int64_t i = 0; i < index.ivf_list.length; ++i) derive_members(index, i);
}

void release_all_members(QxIndex& index) {
  for (std::int64_t i = 0; i < index.ivf_members.length; ++i) {
    release_members(index.ivf_members.at(i));
  }
  index.ivf_members.release();
}

bool members_are_valid(const QxIndex& index) {
  bool valid = index.ivf_members.length == index.ivf_list.length;
  for (std::int64_t i = 0; valid && i < index.ivf_members.length; ++i) {
    valid = are_valid(index, index.ivf_members.at(i), index.ivf_list.at(i).list_ids);
  }
  return valid;
}

}  // namespace qx
