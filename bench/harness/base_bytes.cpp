// The only place of the benchmark that looks inside an index.
#include "harness/base_bytes.h"

#include "store/qx_index.h"

namespace bench {

const float* base_vectors(const QxIndex* index) { return index->base_vectors; }

}  // namespace bench
