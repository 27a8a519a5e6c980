// How many lists searches must probe.
#pragma once

#include "search/search.h"

namespace qx::collection {

// The fewest lists by which queries find at least `recall` of their k best rows, and what that
// costs. Requires: the state has lists, and k >= 1.
QxTuning tune(const State& state, const Selection& selection, const Queries& queries,
              std::int64_t k, double recall, const Progress& progress);

}  // namespace qx::collection
