#include "scan.h"

#include <algorithm>

#include "kernels/kernels.h"

namespace qx {
namespace {

// Scans of up to so many bytes find their rows in the second-level, or the last-level, cache.
constexpr std::int64_t kNearBytes = std::int64_t{1} << 20;
constexpr std::int64_t kFarBytes = std::int64_t{20} << 20;

Reach reach_of(std::int64_t bytes) {
  if (bytes <= kNearBytes) return Reach::kNear;
  return bytes <= kFarBytes ? Reach::kFar : Reach::kMemory;
}

}  // namespace

void score_contiguous(const float* rows, std::int64_t count, std::int64_t width, const float* query,
                      float* scores) {
  const Reach reach = reach_of(count * width * std::int64_t{sizeof(float)});
  kernels().score_contiguous(rows, count, width, query, reach, scores);
}

void offer_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                      std::int64_t whole_rows, std::int64_t width, const float* query, TopK& topk) {
  const auto score = kernels().score_contiguous;
  const Reach reach = reach_of(whole_rows * width * std::int64_t{sizeof(float)});
  float scores[kBlockRows];
  for (std::int64_t first = 0; first < count; first += kBlockRows) {
    const std::int64_t size = std::min(kBlockRows, count - first);
    score(rows + first * width, size, width, query, reach, scores);
    topk.offer(scores, ids + first, size);
  }
}

void scan_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                     std::int64_t width, const float* query, TopK& topk) {
  offer_contiguous(rows, ids, count, count, width, query, topk);
  topk.finish();
}

void ScatteredScan::flush() {
  float scores[kBlockRows];
  kernels().score_scattered(vectors_, pending_, width_, query_, scores);
  topk_.offer(scores, ids_, pending_);
  pending_ = 0;
}

}  // namespace qx
