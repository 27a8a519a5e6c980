// Lists of ids as sources of a scan: those of a host, and the best lists of an IVF structure.
#pragma once

#include "read/scan.h"

namespace qx {

// Adds the visible rows of listed ids, in the order of the list. Ids without one are skipped.
void add_visible_rows(const QxIndex& index, const std::int64_t* ids, std::int64_t count,
                      Scan& scan);

// Adds the base rows of listed ids, in the order of the list. Ids without one are skipped.
void add_base_rows(const QxIndex& index, const std::int64_t* ids, std::int64_t count, Scan& scan);

// Adds the members of the nprobe lists whose centroids score best, best list first. Allocates one
// array of nlist scores. Ends the process if the structure's arrays are too short for it.
// Requires: nlist >= 1.
void add_best_lists(const QxIndex& index, const QxIvf& ivf, const float* query, Scan& scan);

}  // namespace qx
