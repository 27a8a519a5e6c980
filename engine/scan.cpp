#include "scan.h"

#include <algorithm>

#include "kernels/kernels.h"

namespace qx {

void scan_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                     std::int64_t width, const float* query, TopK& topk) {
  const auto score = kernels().score_contiguous;
  float scores[kBlockRows];
  for (std::int64_t first = 0; first < count; first += kBlockRows) {
    const std::int64_t size = std::min(kBlockRows, count - first);
    score(rows + first * width, size, width, query, scores);
    topk.offer(scores, ids + first, size);
  }
}

void ScatteredScan::finish() {
  float scores[kBlockRows];
  kernels().score_scattered(vectors_, pending_, width_, query_, scores);
  topk_.offer(scores, ids_, pending_);
  pending_ = 0;
}

}  // namespace qx
