// From rows to results: estimates or scores rows block by block, and offers the scores that may
// enter, in order, to the top-k buffer. Every search ends here. It knows vectors and the ids to
// report, not why the rows were selected.
#pragma once

#include "kernels/kernels.h"
#include "read/pruner.h"
#include "read/selection.h"

namespace qx {

// The host's slots for the results of a search. Requires: k >= 1.
struct ResultSlots {
  std::int64_t k;
  std::int64_t* ids;
  float* scores;
};

// A scan of rows in the order in which they are added. Its results are those of scoring every row;
// pruned rows are not scored, and rows that are not added are not read.
class Scan {
 public:
  // Empties the slots. `rows` is about how many rows the source of the scan has: it decides whether
  // pruning is worthwhile, and how near the rows are cached. The query is read when there is a row
  // to score.
  Scan(const QxIndex& index, const float* query, const ResultSlots& slots, std::int64_t rows);
  Scan(const Scan&) = delete;

  // Adds the selected rows of a span.
  void add(const Selection& span);

  // Adds `count` consecutive base rows, and the ids to report for them, which must stay readable
  // until finish().
  void add_base_rows(std::int64_t first, std::int64_t count, const std::int64_t* ids);

  // Adds one row. Ends the process if a row of the delta has no vector.
  void add(Row row, std::int64_t id) {
    if (run_.count > 0 || listed_ == kBlockRows) flush();
    if (row.in_delta) {
      listed_in_delta_[listed_ / kMaskRows] |= std::uint64_t{1} << (listed_ % kMaskRows);
    }
    const float* const vector = vector_of(index_, row, dim_);
    __builtin_prefetch(vector);
    listed_vectors_[listed_] = vector;
    listed_ids_[listed_++] = id;
  }

  // Completes the results, and returns the number of slots. Must be called after the last row.
  std::int32_t finish();

 private:
  // Rows of one kernel call: a multiple of every kernel's group of rows. A block's scores stay in
  // the first-level cache, and one indirect call is amortised over many rows.
  static constexpr std::int64_t kBlockRows = 192;
  // Candidates that wait for their scores, in addition to those of the latest block.
  static constexpr std::int64_t kWaitingCandidates = 64;
  static constexpr std::int64_t kCandidateCapacity = kWaitingCandidates + kBlockRows;
  // Tuning: where estimates are not tried, and which queries are copied; the results are the same.
  static constexpr std::int64_t kMaxExactBlocks = 32;
  static constexpr std::int64_t kMaxCopiedDim = 1024;
  static_assert(kBlockRows % kMaskRows == 0 && kBlockRows <= Pruner::kMaxObserved);

  // Rows that are scanned together: consecutive ones from `rows` on, or listed ones.
  struct Block {
    bool listed;
    const float* rows;
    const std::int64_t* ids;
    std::int64_t count;
  };

  // All of these compute: they are called in the default floating-point environment.
  void scan_waiting();
  void scan_block(const Block& block);
  void open();
  void estimate(const Block& block, float* estimates) const;
  void compute(ContiguousFunction* contiguous, ScatteredFunction* scattered, const Block& block,
               float* values) const;
  void prune(const Block& block, const float* estimates);
  void add_candidate(const Block& block, std::int64_t i, float estimate);
  void adapt_to(std::int64_t candidates, std::int64_t rows);
  void prune_candidates(std::int64_t first);
  void score_candidates();

  void flush();
  void add_window(const Selection& span, std::int64_t offset, std::int64_t count);
  void list_base_rows(const Selection& span, std::int64_t offset, std::int64_t count);

  // A copy of the query that starts at a cache line. The query is half of an estimate's loads;
  // aligned, none of them splits.
  alignas(64) float aligned_query_[kMaxCopiedDim];
  const QxIndex& index_;
  const float* query_;
  std::int64_t dim_ = dim_of(index_);
  std::int64_t rows_;
  bool opened_ = false;
  CacheLevel level_ = CacheLevel::kMemory;  // of the rows, once opened
  TopK topk_;
  Pruner pruner_;

  // What waits to be scanned: consecutive base rows, or listed rows; never both.
  Block run_ = {false, nullptr, nullptr, 0};
  std::int64_t listed_ = 0;
  std::uint64_t listed_in_delta_[kBlockRows / kMaskRows] = {};  // no magnitude bounds these rows
  const float* listed_vectors_[kBlockRows];
  std::int64_t listed_ids_[kBlockRows];

  // Where most rows enter, estimates are wasted: then a number of blocks is scored at once, each
  // time twice as many.
  std::int64_t exact_blocks_ = 0;
  std::int64_t next_exact_blocks_ = 1;

  std::int64_t candidates_ = 0;
  const float* candidate_vectors_[kCandidateCapacity];
  std::int64_t candidate_ids_[kCandidateCapacity];
  float candidate_estimates_[kCandidateCapacity];
};

}  // namespace qx
