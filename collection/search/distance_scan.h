// Rows of a segment by their squared distances to one query: window by window, those that bounds
// from codes do not rule out are scored, in order, into the slots of a range.
#pragma once

#include "read/scan.h"
#include "search/best.h"

namespace qx::collection {

class DistanceScan {
 public:
  // Empties the slots. `best` has what other ranges found.
  DistanceScan(const Segment& segment, const float* query, const ResultSlots& slots,
               const Best& best);
  DistanceScan(const DistanceScan&) = delete;

  // Adds the selected rows of a span. Its others may be read.
  void add(const RowSpan& span);

  // Adds one row of the segment, by its number, as Scan::add() does.
  void add(Row, std::int64_t number);

  // Completes the slots, which hold rows by their numbers. Must be called after the last row.
  void finish();

 private:
  static constexpr std::int64_t kWindowRows = 256;
  static constexpr std::int64_t kMostSeedRows = 4096;
  static constexpr std::int64_t kMostWaiting = kMaskRows + kWindowRows;

  Judge choose_judge(const RowSpan& span, std::int64_t offset, Judge least);
  void judge_window(const RowSpan& span, std::int64_t offset, std::int64_t count);
  template <typename Visit>
  void for_each_left(const RowSpan& span, std::int64_t offset, std::int64_t count, CodeBits bits,
                     Visit visit) const;
  void seed(const RowSpan& span, std::int64_t offset);
  float lowest_score(const std::int64_t* rows) const;
  void wait(Judge from, std::int64_t row);
  void judge_waiting();
  void take(std::int64_t row);
  void score_taken();

  const float* vector(std::int64_t row) const { return index_.base_vectors + row * dim_; }
  float threshold() const { return std::max({seed_, topk_.threshold(), best_.threshold()}); }
  bool has_threshold() const { return threshold() > kEmptyScore; }

  const QxIndex& index_;
  const float* half_norms_;
  const float* query_;
  const std::int64_t dim_;
  const std::int64_t k_;
  const Best& best_;
  const DistanceLimit limit_;
  TopK topk_;
  JudgeChoice choice_;
  float seed_ = kEmptyScore;  // the lowest score of k rows
  bool may_seed_ = true;
  bool has_bounds_ = false;
  CodeView codes_;
  CodedQuery coded_query_;  // set if has_bounds_

  // Rows that wait for a bound from all eight bits, and by which judge they came so far.
  Judge waiting_from_ = Judge::kFourBits;
  std::int64_t waiting_ = 0;
  std::int64_t waiting_rows_[kMostWaiting];
  // Rows that wait for their scores.
  std::int64_t taken_ = 0;
  std::int64_t taken_rows_[kMaskRows];
  const float* taken_vectors_[kMaskRows];
};

}  // namespace qx::collection
