// From rows to results: judges or scores rows block by block, and offers the scores that may enter,
// in order, to the top-k buffer. Every search ends here. It knows vectors and the ids to
// report, not why the rows were selected.
#pragma once

#include "kernels/kernels.h"
#include "kernels/tuning.h"
#include "read/pruner.h"
#include "read/row_span.h"
#include "store/codes.h"
#include "store/members.h"

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

  // Lets rows with a score below this be left out of the results: k others are not. Must be called
  // before the first row.
  void leave_out_below(float score) {
    if (!(score > kEmptyScore)) return;
    pruner_.seed(score);
    choice_.trust(Judge::kFourBits);
  }

  // Adds the selected rows of a span. Codes of the base are read of others too, vectors are not.
  void add(const RowSpan& span);

  // The same of a span of the base whose other rows may be read too, which is quicker where most
  // are selected.
  void add_among_readable(const RowSpan& span);

  // Adds `count` consecutive base rows, and the ids to report for them, which must stay readable
  // until finish().
  void add_base_rows(std::int64_t first, std::int64_t count, const std::int64_t* ids);

  // Adds `count` consecutive members of a structure that has their codes, and the ids to report for
  // them, which must stay readable until finish(). Requires: those of other structures are not
  // added.
  void add_members(const QxMembers& members, std::int64_t first, std::int64_t count,
                   const std::int64_t* ids);

  // Adds one row. Ends the process if a row of the delta has no vector.
  void add(Row row, std::int64_t id) {
    if (run_.count > 0 || listed_ == kBlockRows) flush();
    if (row.in_delta) {
      listed_in_delta_[listed_ / kMaskRows] |= std::uint64_t{1} << (listed_ % kMaskRows);
      ++listed_delta_rows_;
    }
    listed_vectors_[listed_] = vector_of(index_, row, dim_);
    listed_rows_[listed_] = row.number;
    prefetch(row, listed_vectors_[listed_]);
    listed_ids_[listed_++] = id;
  }

  // Completes the results, and returns the number of slots. Must be called after the last row.
  std::int32_t finish();

 private:
  // Rows of one kernel call that scores or estimates: a multiple of every kernel's group of rows. A
  // block's scores stay in the first-level cache, and one indirect call is amortised over many
  // rows.
  static constexpr std::int64_t kBlockRows = JudgeChoice::kBlockRows;
  // Candidates that wait for their scores, in addition to those of the latest block.
  static constexpr std::int64_t kWaitingCandidates = 64;
  static constexpr std::int64_t kCandidateCapacity = kWaitingCandidates + kBlockRows;
  // Tuning: which queries are copied; the results are the same.
  static constexpr std::int64_t kMaxCopiedDim = 1024;
  static constexpr std::int64_t kSeedColumns = 192;
  // More results are found sooner by scoring the first rows than by choosing among them. Zen 4, 500
  // results of 20,000 words, speed against estimates: 0.93 with a seed, 1.11 without; 1,000 results
  // of 24,576 rows, dim 128: 0.92 and 1.22.
  static constexpr std::int64_t kMostSeeds = JudgeChoice::kMostRows / 16;
  static constexpr std::int64_t kSampleRows = 128;  // at most
  static constexpr std::int64_t kPrefetchedFloats = 256;
  static_assert(kBlockRows % kMaskRows == 0 && kBlockRows <= Pruner::kMaxObserved);

  // Rows that are scanned together: consecutive ones of one place, listed ones, of both, or
  // consecutive members of a structure, whose codes are consecutive and whose vectors are not.
  struct Block {
    bool listed;
    Row first;          // if consecutive; of members, the number of the first
    const float* rows;  // its vector; null of members
    const std::int64_t* ids;
    std::int64_t count;
    const std::int64_t* member_rows = nullptr;  // the base row of each member
  };

  // All of these compute: they are called in the default floating-point environment.
  void scan_waiting();
  std::int64_t rows_to_judge(Judge judge) const;
  std::int64_t scan_block(Judge judge, const Block& block);
  void open();
  Judge choose_judge(const Block& block);
  void score_block(const Block& block);
  bool may_wait(const Block& block) const;
  void wait_for_seed(const Block& block);
  void estimate_block(const Block& block);
  std::int64_t bound_block(const Block& block, CodeBits bits);
  bool bound_first(const Block& block, CodeBits bits, float* bounds, std::int64_t* bounded);
  void bound_up_to(std::int64_t end, const Block& block, CodeBits bits, float* bounds,
                   std::int64_t* bounded) const;
  bool separates(const Block& sample, const float* bounds) const;
  bool leaves_too_many(const Block& first, const float* bounds) const;
  std::int64_t take_bounded(const Block& block, const float* bounds, CodeBits bits);
  void estimate(const Block& block, float* estimates) const;
  void bound(const Block& block, CodeBits bits, float* bounds) const;
  void bound_mixed(const Block& block, CodeBits bits, float* bounds) const;
  std::int64_t offset_of(const Block& block) const;
  std::int64_t count_selected(const Block& block) const;
  void drop_unselected(const Block& block, float* numbers) const;
  void compute(ContiguousFunction* contiguous, ScatteredFunction* scattered, const Block& block,
               float* values) const;
  bool can_wait_for_seed() const;
  bool can_seed(const Block& block) const;
  void seed(const Block& block, const float* bounds);
  std::int64_t choose_seed_columns(std::int64_t rows) const;
  void offer_places(const float* bounds, const std::int32_t* places, std::int64_t count);
  float lowest_score(const Block& block, const std::int64_t* places) const;
  void refine(const Block& block, const std::int64_t* places, std::int64_t count);
  void add_candidate(const Block& block, std::int64_t i, float number);
  void make_room_for_candidates();
  void offer(const float* scores, const std::int64_t* ids, std::int64_t count);
  float limit() const;
  void prune_candidates(std::int64_t first);
  void score_candidates();

  // True if the codes of a place can judge its rows.
  bool is_coded(bool in_delta) const { return is_coded_[in_delta ? 1 : 0]; }
  const CodeView& codes_of(bool in_delta) const { return codes_[in_delta ? 1 : 0]; }
  const CodeView& codes_of(const Block& block) const {
    return block.member_rows == nullptr ? codes_of(is_in_delta(block)) : member_codes_;
  }
  bool is_mixed(const Block& block) const {
    return block.listed && listed_delta_rows_ > 0 && listed_delta_rows_ < block.count;
  }
  // Part of a block of consecutive rows, or all of one that is listed.
  Block part_of(const Block& block, std::int64_t first, std::int64_t count) const {
    if (block.listed) return block;
    const bool members = block.member_rows != nullptr;
    return {false,
            {block.first.in_delta, block.first.number + first},
            members ? nullptr : block.rows + first * dim_,
            block.ids + first,
            count,
            members ? block.member_rows + first : nullptr};
  }
  // The place of a block that is not mixed; of one that is, the base.
  bool is_in_delta(const Block& block) const {
    return block.listed ? listed_delta_rows_ == block.count : block.first.in_delta;
  }
  std::int64_t row_of(const Block& block, std::int64_t i) const {
    return block.listed ? listed_rows_[i] : block.first.number + i;
  }

  const float* vector_at(const Block& block, std::int64_t i) const {
    if (block.member_rows != nullptr) return index_.base_vectors + block.member_rows[i] * dim_;
    return block.listed ? listed_vectors_[i] : block.rows + i * dim_;
  }

  // Prefetches the vector of a candidate, or its beginning.
  void prefetch_vector(const float* vector) const {
    const std::int64_t floats = std::min(dim_, kPrefetchedFloats);
    for (std::int64_t j = 0; j < floats; j += 16) __builtin_prefetch(vector + j);
  }

  // Prefetches what will be read of a listed row first.
  void prefetch(Row row, const float* vector) const {
    if (lists_by_codes_ && is_coded(row.in_delta)) {
      prefetch_code(codes_of(row.in_delta), row.number);
    } else {
      __builtin_prefetch(vector);
    }
  }

  void flush();
  void scan_run();
  void scan_listed();
  void add_rows(Row first, std::int64_t count, const std::int64_t* ids);
  void add_among_others(const RowSpan& span, std::int64_t offset, std::int64_t count);
  bool has_base_bounds();
  void add_windows(const RowSpan& span, std::int64_t offset, std::int64_t count);
  void add_window(const RowSpan& span, std::int64_t offset, std::int64_t count);
  void list_base_rows(const RowSpan& span, std::int64_t offset, std::int64_t count);

  // A copy of the query that starts at a cache line. The query is half of an estimate's loads;
  // aligned, none of them splits.
  alignas(64) float aligned_query_[kMaxCopiedDim];
  const QxIndex& index_;
  const float* query_;
  std::int64_t dim_ = dim_of(index_);
  std::int64_t rows_;
  bool is_coded_[2] = {index_.base_codes.rows > 0, has_delta_codes(index_)};
  CodeView codes_[2] = {view_of(index_.base_codes), view_of(index_.delta_codes)};
  CodeView member_codes_ = {};
  bool lists_by_codes_ = dim_ >= tuning::kMinListedCodedDim || JudgeChoice::is_forced();
  CacheLevel level_ = tuning::cache_level(rows_ * dim_ * std::int64_t{sizeof(float)});
  bool opened_ = false;
  bool offered_ = false;  // a score, to the results
  ResultSlots slots_;
  TopK topk_;
  Pruner pruner_;
  JudgeChoice choice_;

  // What waits to be scanned: consecutive rows, or listed rows; never both.
  Block run_ = {false, {false, 0}, nullptr, nullptr, 0};
  const RowSpan* among_ = nullptr;  // the span of a run of which only selected rows are wanted
  bool reads_others_ = false;       // whether vectors of its others may be read
  std::int64_t listed_ = 0;
  std::int64_t listed_delta_rows_ = 0;
  std::uint64_t listed_in_delta_[kBlockRows / kMaskRows] = {};
  std::int64_t listed_rows_[kBlockRows];
  const float* listed_vectors_[kBlockRows];
  std::int64_t listed_ids_[kBlockRows];

  // Rows that passed a judge, and their numbers by it: bounds or estimates, never both.
  bool candidates_are_bounded_ = false;
  std::int64_t candidates_ = 0;
  const float* candidate_vectors_[kCandidateCapacity];
  std::int64_t candidate_ids_[kCandidateCapacity];
  float candidate_numbers_[kCandidateCapacity];
};

}  // namespace qx
