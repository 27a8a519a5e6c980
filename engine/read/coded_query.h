// A query as kernels multiply it with the codes of rows.
#pragma once

#include "kernels/codes.h"

namespace qx {

// Codes a query of 1 to kMaxCodedDim components. Returns false if bounds from codes would prove
// nothing: a component is not finite, or the largest is far too small or too large.
bool code_query(const float* query, std::int64_t dim, CodedQuery& coded);

}  // namespace qx
