// From rows to results: scores rows block by block and offers them to a top-k buffer, in order.
// Every search ends here. It knows vectors and the ids to report, not why the rows were chosen.
#pragma once

#include <cstdint>

#include "support/topk.h"

namespace qx {

// Rows scored by one kernel call: a multiple of every kernel's group of rows. A block's scores stay
// in the first-level cache, and one indirect call is spread over many rows.
inline constexpr std::int64_t kBlockRows = 192;

// Scores `count` rows that lie one after the other.
void score_contiguous(const float* rows, std::int64_t count, std::int64_t width, const float* query,
                      float* scores);

// Offers `count` rows that lie one after the other, of `whole_rows` that the scan will go through;
// row i reports ids[i].
void offer_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                      std::int64_t whole_rows, std::int64_t width, const float* query, TopK& topk);

// Offers all `count` rows of a scan, which lie one after the other, and completes the results.
void scan_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                     std::int64_t width, const float* query, TopK& topk);

// Offers rows that lie anywhere, one by one, in the order in which they are added.
class ScatteredScan {
 public:
  ScatteredScan(std::int64_t width, const float* query, TopK& topk)
      : width_(width), query_(query), topk_(topk) {}

  // Adds a row. Its vector must stay readable until finish().
  void add(const float* vector, std::int64_t id) {
    __builtin_prefetch(vector);  // its block is scored up to kBlockRows rows later
    vectors_[pending_] = vector;
    ids_[pending_] = id;
    if (++pending_ == kBlockRows) flush();
  }

  // Adds rows that lie one after the other, after what was added before. They are a part of
  // `whole_rows` rows that lie so.
  void add_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                      std::int64_t whole_rows) {
    if (pending_ > 0) flush();
    offer_contiguous(rows, ids, count, whole_rows, width_, query_, topk_);
  }

  // Completes the results. Must be called after the last row.
  void finish() {
    flush();
    topk_.finish();
  }

 private:
  // Offers what was added since the last full block.
  void flush();

  std::int64_t width_;
  const float* query_;
  TopK& topk_;
  std::int64_t pending_ = 0;
  const float* vectors_[kBlockRows];
  std::int64_t ids_[kBlockRows];
};

}  // namespace qx
