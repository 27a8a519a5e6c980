// From rows to results: estimates or scores rows block by block, and offers to a top-k buffer, in
// order, those that may enter. Every search ends here. It knows vectors and the ids to report, not
// why the rows were chosen.
#pragma once

#include <cstdint>

#include "screen.h"
#include "support/room.h"
#include "support/topk.h"

namespace qx {

// Rows that one kernel call takes: a multiple of every kernel's group of rows. A block's scores
// stay in the first-level cache, and one indirect call is spread over many rows.
inline constexpr std::int64_t kBlockRows = 192;

// Scores `count` rows that lie one after the other.
void score_contiguous(const float* rows, std::int64_t count, std::int64_t width, const float* query,
                      float* scores);

// What a scan goes through.
struct ScanOf {
  const float* query;
  std::int64_t width;
  std::int64_t rows;  // about how many will be added
  float magnitude;    // no component of a bounded row is larger; may be infinite
};

// A scan of rows that are added in their order. Its results are those of scoring every row; rows
// that an estimate rules out are not scored.
class Scan {
 public:
  Scan(const ScanOf& of, TopK& topk)
      : query_(of.query),
        width_(of.width),
        rows_(of.rows),
        magnitude_(of.magnitude),
        topk_(topk),
        screen_(topk.k()) {}
  Scan(const Scan&) = delete;
  Scan& operator=(const Scan&) = delete;

  // Adds a row, bounded or not. Vectors must stay readable until finish().
  void add(const float* vector, std::int64_t id, bool bounded) {
    if (run_count_ > 0) flush_run();
    __builtin_prefetch(vector);  // its block is looked at up to kBlockRows rows later
    vectors_[pending_] = vector;
    ids_[pending_] = id;
    if (!bounded) unbounded_[pending_ / kMaskRows] |= std::uint64_t{1} << (pending_ % kMaskRows);
    if (++pending_ == kBlockRows) flush_pending();
  }

  // Adds those of kMaskRows bounded rows, or fewer, that a mask selects. The rows lie one after the
  // other, as part of `whole_rows` that do. Worth it if most are selected; the others are not read.
  void add_masked(const float* rows, const std::int64_t* ids, std::int64_t count,
                  std::uint64_t mask, std::int64_t whole_rows);
  static constexpr std::int64_t kMaskRows = 64;

  // Completes the results. Must be called after the last row.
  void finish();

  // Adds the last `count` rows, which are bounded and lie one after the other, as part of
  // `whole_rows` that do; and completes the results.
  void finish_with(const float* rows, const std::int64_t* ids, std::int64_t count,
                   std::int64_t whole_rows);

 private:
  // Candidates that wait for their scores, beyond those of the latest block.
  static constexpr std::int64_t kFewCandidates = 64;
  static constexpr std::int64_t kMostExactBlocks = 32;
  static constexpr std::int64_t kMasks = kBlockRows / kMaskRows;

  // What waits is scanned: flush_*() in the default environment, scan_*() in an environment that is
  // the default one already.
  void flush_run();
  void flush_pending();
  void scan_run();
  void scan_pending();
  void scan_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                       std::int64_t whole_rows);
  void complete();

  // Whether every row of the waiting run is selected; and those that are, by address and id.
  bool run_is_whole() const;
  std::int64_t list_run();

  // Looks at the query, when there is a row to be scored.
  void open();

  // Takes a block through estimates or scores. A block can estimate and score its rows and name the
  // vector of each.
  template <typename Block>
  void scan_block(const Block& block, const std::int64_t* ids, std::int64_t count);

  // Makes candidates of the rows of a block that an estimate does not rule out.
  template <typename Block>
  void choose_candidates(const Block& block, const float* estimates, const std::int64_t* ids,
                         std::int64_t count);

  // Drops the candidates that are ruled out by now.
  void thin_candidates();

  // Scores the candidates and offers them.
  void offer_candidates();

  static constexpr std::int64_t kLongestCopied = 1024;
  alignas(64) float query_at_line_[kLongestCopied];
  const float* query_;
  std::int64_t width_;
  std::int64_t rows_;
  float magnitude_;
  bool opened_ = false;
  TopK& topk_;
  Screen screen_;

  // Rows of add(), and which of them are not bounded. The arrays also take the selected rows of a
  // run: no row of add() waits while there is one.
  std::int64_t pending_ = 0;
  std::uint64_t unbounded_[kMasks] = {};
  Room<const float*, kBlockRows> vectors_;
  Room<std::int64_t, kBlockRows> ids_;

  // Rows of add_masked().
  std::int64_t run_count_ = 0;
  std::int64_t run_whole_rows_ = 0;
  const float* run_rows_ = nullptr;
  const std::int64_t* run_ids_ = nullptr;
  Room<std::uint64_t, kMasks> run_masks_;

  // Where most rows enter, estimates are wasted: then a number of blocks is scored at once, each
  // time twice as many.
  std::int64_t exact_blocks_ = 0;
  std::int64_t next_exact_blocks_ = 1;

  std::int64_t candidates_ = 0;
  Room<const float*, kFewCandidates + kBlockRows> candidate_vectors_;
  Room<std::int64_t, kFewCandidates + kBlockRows> candidate_ids_;
  Room<float, kFewCandidates + kBlockRows> candidate_estimates_;
};

}  // namespace qx
