// A top-k buffer by plain shifting insertion, fed by the products of one-component vectors.
#pragma once

#include <cstdint>

namespace bench {

// Fills the k slots with the best of `rows` products; slots are sorted from best to worst.
void plain_topk(const float* values, const std::int64_t* ids, std::int64_t rows, float query,
                std::int64_t k, std::int64_t* out_ids, float* out_scores);

}  // namespace bench
