#include "search/distance_scan.h"

#include <numeric>

namespace qx::collection {

DistanceScan::DistanceScan(const Segment& segment, const float* query, const ResultSlots& slots,
                           const Best& best)
    : index_(segment.index()),
      half_norms_(segment.half_norms()),
      query_(query),
      dim_(dim_of(index_)),
      k_(slots.k),
      best_(best),
      limit_(query, dim_),
      topk_(slots.ids, slots.scores, slots.k),
      codes_(view_of(index_.base_codes)) {
  const Kernels& chosen = kernels();
  const bool pays = index_.base_codes.rows > 0 && dim_ >= chosen.min_bounded_dim &&
                    segment.rows() * dim_ >= chosen.min_bounded_floats;
  has_bounds_ = pays && code_query(query, dim_, coded_query_);
  if (has_threshold()) choice_.trust(Judge::kFourBits);
}

void DistanceScan::add(const RowSpan& span) {
  for (std::int64_t offset = 0; offset < span.count(); offset += kWindowRows) {
    judge_window(span, offset, std::min(kWindowRows, span.count() - offset));
    if (waiting_ >= kMaskRows) judge_waiting();
  }
}

void DistanceScan::add(Row, std::int64_t number) {
  if (choice_.next(Judge::kEightBits) == Judge::kEightBits && has_bounds_ && has_threshold()) {
    wait(Judge::kEightBits, number);
    if (waiting_ >= kMaskRows) judge_waiting();
  } else {
    judge_waiting();
    take(number);
    choice_.record(Judge::kScores, 1, 0);
  }
}

void DistanceScan::finish() {
  judge_waiting();
  score_taken();
  topk_.finish();
}

Judge DistanceScan::choose_judge(const RowSpan& span, std::int64_t offset, Judge least) {
  if (!has_bounds_) return Judge::kScores;
  if (!has_threshold()) seed(span, offset);
  if (!has_threshold()) return Judge::kScores;
  const Judge judge = choice_.next(least);
  return judge == Judge::kEstimates ? Judge::kScores : judge;
}

void DistanceScan::judge_window(const RowSpan& span, std::int64_t offset, std::int64_t count) {
  const std::int64_t selected = span.count_selected(offset, count);
  if (selected == 0) return;
  const bool are_few = 4 * selected < count;
  const Judge judge = choose_judge(span, offset, are_few ? Judge::kEightBits : Judge::kFourBits);
  const auto each = [&](auto visit) {
    span.for_each_row(offset, count, [&](std::int64_t i) { visit(span.row(i).number); });
  };
  std::int64_t left = 0;
  if (judge == Judge::kScores) {
    judge_waiting();
    each([&](std::int64_t row) { take(row); });
  } else if (are_few) {  // they are bounded one by one, and recorded then
    each([&](std::int64_t row) { wait(judge, row); });
    return;
  } else if (judge == Judge::kFourBits) {
    for_each_left(span, offset, count, CodeBits::kFour, [&](std::int64_t row, float) {
      wait(judge, row);
      ++left;
    });
  } else {
    judge_waiting();
    for_each_left(span, offset, count, CodeBits::kEight, [&](std::int64_t row, float) {
      take(row);
      ++left;
    });
  }
  choice_.record(judge, selected, left);
}

// Calls visit(row, number) for the selected rows of up to kWindowRows that are not ruled out.
template <typename Visit>
void DistanceScan::for_each_left(const RowSpan& span, std::int64_t offset, std::int64_t count,
                                 CodeBits bits, Visit visit) const {
  float numbers[kWindowRows];
  const std::int64_t first = span.row(offset).number;
  kernels().bound_contiguous(codes_, first, count, coded_query_, bits, numbers);
  for (std::int64_t i = 0; i < count; ++i) numbers[i] -= half_norms_[first + i];
  const float limit = limit_.of(threshold());
  for (std::int64_t i = 0; i < count; i += kMaskRows) {
    const std::int64_t rows = std::min(kMaskRows, count - i);
    for_each_bit(kernels().mask_not_less(numbers + i, rows, limit) & span.mask(offset + i),
                 [&](std::int64_t bit) { visit(first + i + bit, numbers[i + bit]); });
  }
}

// The first rows of a scan are likely to hold good ones, and their bounds tell which: k of them
// give the first threshold.
void DistanceScan::seed(const RowSpan& span, std::int64_t offset) {
  if (!std::exchange(may_seed_, false)) return;
  float numbers[kMostSeedRows];
  std::int64_t rows[kMostSeedRows];
  std::int64_t found = 0;
  const std::int64_t wanted = std::clamp<std::int64_t>(32 * k_, 512, kMostSeedRows);
  const std::int64_t end = std::min(span.count(), offset + wanted);
  for (std::int64_t first = offset; first < end; first += kWindowRows) {
    for_each_left(span, first, std::min(kWindowRows, end - first), CodeBits::kEight,
                  [&](std::int64_t row, float number) {
                    numbers[found] = number == number ? number : kEmptyScore;
                    rows[found++] = row;
                  });
  }
  if (found / 4 < k_) return;
  std::int32_t order[kMostSeedRows];
  std::iota(order, order + found, 0);
  std::nth_element(order, order + k_, order + found,
                   [&](std::int32_t a, std::int32_t b) { return numbers[a] > numbers[b]; });
  std::int64_t chosen[kMostSeedRows / 4];
  std::transform(order, order + k_, chosen, [&](std::int32_t place) { return rows[place]; });
  seed_ = lowest_score(chosen);
}

// Of k rows.
float DistanceScan::lowest_score(const std::int64_t* rows) const {
  float lowest = std::numeric_limits<float>::infinity();
  for (std::int64_t first = 0; first < k_; first += kMaskRows) {
    const float* vectors[kMaskRows];
    float scores[kMaskRows];
    const std::int64_t count = std::min(kMaskRows, k_ - first);
    for (std::int64_t i = 0; i < count; ++i) vectors[i] = vector(rows[first + i]);
    score_rows(Metric::kEuclidean, vectors, count, dim_, query_, scores);
    lowest = std::min(lowest, *std::min_element(scores, scores + count));
  }
  return lowest;
}

void DistanceScan::wait(Judge from, std::int64_t row) {
  if (waiting_from_ != from || waiting_ == kMostWaiting) judge_waiting();
  waiting_from_ = from;
  if (from == Judge::kEightBits) prefetch_code(codes_, row);
  prefetch_rest_of_code(codes_, row);
  waiting_rows_[waiting_++] = row;
}

void DistanceScan::judge_waiting() {
  if (waiting_ == 0) return;
  float numbers[kMostWaiting];
  kernels().bound_scattered(codes_, waiting_rows_, waiting_, coded_query_, CodeBits::kEight,
                            numbers);
  const float limit = limit_.of(threshold());
  std::int64_t left = 0;
  for (std::int64_t i = 0; i < waiting_; ++i) {
    if (numbers[i] - half_norms_[waiting_rows_[i]] < limit) continue;
    take(waiting_rows_[i]);
    ++left;
  }
  if (waiting_from_ == Judge::kEightBits) choice_.record(Judge::kEightBits, waiting_, left);
  waiting_ = 0;
}

void DistanceScan::take(std::int64_t row) {
  taken_rows_[taken_] = row;
  taken_vectors_[taken_] = vector(row);
  for (std::int64_t j = 0; has_bounds_ && j < std::min<std::int64_t>(dim_, 256); j += 16) {
    __builtin_prefetch(taken_vectors_[taken_] + j);
  }
  if (++taken_ == kMaskRows) score_taken();
}

void DistanceScan::score_taken() {
  float scores[kMaskRows];
  score_rows(Metric::kEuclidean, taken_vectors_, taken_, dim_, query_, scores);
  topk_.offer(scores, taken_rows_, taken_);
  taken_ = 0;
}

}  // namespace qx::collection
