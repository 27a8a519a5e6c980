// The invariants of the record, as a function. Tests call it after every call of an index.
#pragma once

#include "store/qx_index.h"

namespace qx {

// True if every invariant of store/qx_index.h holds. Takes time for every row and every entry.
bool index_is_valid(const QxIndex& index);

}  // namespace qx
