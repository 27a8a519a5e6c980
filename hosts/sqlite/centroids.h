// The centres of the lists of an IVF, learned from a sample of the rows.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "vectors.h"

namespace qx_sqlite {

// Groups vectors by direction and gives the middle direction of each group, a unit vector: `lists`
// of them, or as many as there are vectors. The same vectors give the same centres. Calls
// progress() often; what that throws ends the work.
Floats learn_centroids(std::span<const float> vectors, std::int64_t dim, std::int64_t lists,
                       const std::function<void()>& progress);

}  // namespace qx_sqlite
