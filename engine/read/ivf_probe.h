// The search through an IVF structure: which lists are probed, in which order.
#pragma once

#include <cstdint>

#include "read/scan.h"

namespace qx {

// Adds the members of the nprobe lists whose centroids score best, best list first. Allocates one
// array of nlist scores. Ends the process if the structure's arrays are too short for it.
// Requires: nlist >= 1.
void add_best_lists(const QxIndex& index, const QxIvf& ivf, const float* query, Scan& scan);

}  // namespace qx
