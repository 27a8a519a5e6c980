#include "peers/plain_topk.h"

#include <algorithm>

namespace bench {

void plain_topk(const float* values, const std::int64_t* ids, std::int64_t rows, float query,
                std::int64_t k, std::int64_t* out_ids, float* out_scores) {
  std::fill_n(out_ids, k, -1);
  std::fill_n(out_scores, k, -1e30f);
  for (std::int64_t r = 0; r < rows; ++r) {
    const float score = values[r] * query;
    if (!(score > out_scores[k - 1])) continue;
    std::int64_t slot = k - 1;
    for (; slot > 0 && out_scores[slot - 1] < score; --slot) {
      out_scores[slot] = out_scores[slot - 1];
      out_ids[slot] = out_ids[slot - 1];
    }
    out_scores[slot] = score;
    out_ids[slot] = ids[r];
  }
}

}  // namespace bench
