// The very bytes that the engine reads. How fast memory can be read depends on which pages the
// operating system happened to give, by more than a third between two blocks of one process. So
// limits, and peers that hold no copy of their own, read the engine's block and not an equal one.
#pragma once

#include "qx_runtime.h"

namespace bench {

// The vectors of the sealed base, row-major, as the engine holds them.
const float* base_vectors(const QxIndex* index);

}  // namespace bench
