// Labels and columns per id. It knows nothing of rows.
#pragma once

#include "store/qx_index.h"

namespace qx {

// What a missing label or column value reads as, everywhere.
inline constexpr std::int64_t kMissing = -1;

// Assigns the label and the column values of n ids; values are row-major. Returns false, with
// nothing changed, if ncols is below the current number of columns. n < 1 widens the index alone.
bool set_metadata(QxIndex& index, const std::int64_t* ids, const std::int64_t* labels,
                  const std::int64_t* values, std::int32_t ncols, std::int64_t n);

// Reads them back, kMissing where there is none.
void get_metadata(const QxIndex& index, const std::int64_t* ids, std::int64_t n,
                  std::int64_t* labels, std::int64_t* values);

}  // namespace qx
