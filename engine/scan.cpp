#include "scan.h"

#include <algorithm>

#include "kernels/kernels.h"

namespace qx {
namespace {

// A scan of more bytes than this comes from memory, not from the caches.
constexpr std::int64_t kCachedBytes = std::int64_t{20} << 20;

}  // namespace

void scan_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                     std::int64_t width, const float* query, TopK& topk) {
  const auto score = kernels().score_contiguous;
  const bool streaming = count * width > kCachedBytes / std::int64_t{sizeof(float)};
  float scores[kBlockRows];
  for (std::int64_t first = 0; first < count; first += kBlockRows) {
    const std::int64_t size = std::min(kBlockRows, count - first);
    score(rows + first * width, size, width, query, streaming, scores);
    topk.offer(scores, ids + first, size);
  }
  topk.finish();
}

void ScatteredScan::flush() {
  float scores[kBlockRows];
  kernels().score_scattered(vectors_, pending_, width_, query_, scores);
  topk_.offer(scores, ids_, pending_);
  pending_ = 0;
}

}  // namespace qx
