// A query of which few components count.
#pragma once

#include <bit>

#include "kernels/kernels.h"
#include "read/row_span.h"

namespace qx::collection {

// A query of few components that are not zero. Rows are finite, so the other components change a
// score's chain only where it is -0.0, which a product that underflows gives: they may turn it into
// +0.0. So a row is read at the few components alone, and as a whole where these give -0.0.
class SparseQuery {
 public:
  SparseQuery(const float* query, std::int64_t dim) : query_(query), dim_(dim) {
    for (std::int64_t j = 0; j < dim && count_ <= kMost; ++j) {
      if (query[j] == 0) continue;
      if (count_ < kMost) {
        places_[count_] = j;
        components_[count_] = query[j];
      }
      ++count_;
    }
    is_sparse_ = count_ <= kMost && kComponentsApart * count_ <= dim;
  }
  bool is_sparse() const { return is_sparse_; }

  // No row whose components are between these has a higher score (metric/box.cpp): the other
  // components change the sign of a zero, and no comparison.
  float bound(const float* least, const float* largest) const {
    float best[kMost];
    for (std::int64_t j = 0; j < count_; ++j) {
      best[j] = (components_[j] > 0 ? largest : least)[places_[j]];
    }
    float bound = 0;
    kernels().score_contiguous(best, 1, count_, components_, CacheLevel::kL2, &bound);
    return bound;
  }

  // Scores up to kMaskRows rows.
  void score(const float* const* rows, std::int64_t count, float* scores) const {
    float gathered[kMaskRows * kMost];
    float* next = gathered;
    for (std::int64_t i = 0; i < count; ++i) {
      for (std::int64_t j = 0; j < count_; ++j) {
        const float* const component = rows[i] + places_[j];
        __builtin_prefetch(component + kRowsAhead * dim_);
        *next++ = *component;
      }
    }
    kernels().score_contiguous(gathered, count, count_, components_, CacheLevel::kL2, scores);
    for (std::int64_t i = 0; i < count; ++i) {
      const bool is_negative_zero = std::bit_cast<std::uint32_t>(scores[i]) == 0x80000000u;
      if (is_negative_zero) kernels().score_scattered(rows + i, 1, dim_, query_, scores + i);
    }
  }

 private:
  static constexpr std::int64_t kMost = 8;
  static constexpr std::int64_t kComponentsApart = 16;  // a cache line, of which each reads one

  static constexpr std::int64_t kRowsAhead = 64;

  const float* query_;
  std::int64_t dim_;
  std::int64_t count_ = 0;
  bool is_sparse_ = false;
  std::int64_t places_[kMost];
  float components_[kMost];
};

}  // namespace qx::collection
