// The members of IVF structures in the order of their lists: their base rows, and where those are
// scattered, codes of them beside each other, so that a search reads lists as if the base were in
// their order. They are derived from the base and the lists, and no host sees them.
#pragma once

#include "store/qx_index.h"

namespace qx {

// Derives the members of the structure at a position of ivf_list, in place of what was derived for
// it. Nothing is derived if a member has no base row. Scattered members have codes if the base has,
// but for more of them in all structures than the base has rows, or without memory for them.
// Requires: it was called for all earlier positions.
void derive_members(QxIndex& index, std::int64_t position);

// The same of all structures, in order.
void derive_all_members(QxIndex& index);

// Releases what was derived for all structures.
void release_all_members(QxIndex& index);

// What was derived for a structure of the index.
inline const QxMembers& members_of(const QxIndex& index, const QxIvf& ivf) {
  return index.ivf_members.at(&ivf - index.ivf_list.data);
}

// True if what is derived is that of the lists and the base.
bool members_are_valid(const QxIndex& index);

}  // namespace qx
