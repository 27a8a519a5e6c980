#include "read/scan.h"

#include "kernels/tuning.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace qx {

Scan::Scan(const QxIndex& index, const float* query, const ResultSlots& slots, std::int64_t rows)
    : index_(index),
      query_(query),
      rows_(rows),
      topk_(slots.ids, slots.scores, slots.k),
      pruner_(slots.k) {}

void Scan::add(const Selection& span) {
  for (std::int64_t offset = 0; offset < span.count(); offset += kBlockRows) {
    add_window(span, offset, std::min(kBlockRows, span.count() - offset));
  }
}

// Rows that are left out must not be read: base rows are scanned as they are only if all of them
// are selected. If most are, they are listed together, which is cheaper than one by one.
void Scan::add_window(const Selection& span, std::int64_t offset, std::int64_t count) {
  const std::int64_t selected = span.count_selected(offset, count);
  if (!span.in_delta() && selected == count) {
    add_base_rows(span.row(offset).number, count, span.ids() + offset);
  } else if (!span.in_delta() && 2 * selected > count) {
    flush();
    list_base_rows(span, offset, count);
  } else {
    span.for_each_row(offset, count, [&](std::int64_t i) { add(span.row(i), span.ids()[i]); });
  }
}

void Scan::list_base_rows(const Selection& span, std::int64_t offset, std::int64_t count) {
  const std::int64_t dim = dim_;
  const float* const rows = vector_of(index_, span.row(0), dim);
  const std::int64_t* const ids = span.ids();
  std::int64_t listed = 0;
  span.for_each_row(offset, count, [&](std::int64_t i) {
    listed_vectors_[listed] = rows + i * dim;
    listed_ids_[listed++] = ids[i];
  });
  listed_ = listed;
}

void Scan::add_base_rows(std::int64_t first, std::int64_t count, const std::int64_t* ids) {
  const float* const rows = vector_of(index_, {false, first}, dim_);
  const bool follows = run_.ids + run_.count == ids && run_.rows + run_.count * dim_ == rows;
  if (run_.count > 0 && follows) {
    run_.count += count;
    return;
  }
  flush();
  run_ = {false, rows, ids, count};
}

void Scan::flush() {
  if (run_.count == 0 && listed_ == 0) return;
  in_default_fp_environment([&] { scan_waiting(); });
}

// Without a row, nothing is computed and the query is not read.
std::int32_t Scan::finish() {
  if (opened_ || run_.count > 0 || listed_ > 0) {
    in_default_fp_environment([&] {
      scan_waiting();
      prune_candidates(0);
      score_candidates();
      topk_.finish();
    });
  }
  return static_cast<std::int32_t>(topk_.k());
}

void Scan::scan_waiting() {
  for (std::int64_t first = 0; first < run_.count; first += kBlockRows) {
    const std::int64_t count = std::min(kBlockRows, run_.count - first);
    scan_block({false, run_.rows + first * dim_, run_.ids + first, count});
  }
  if (listed_ > 0) scan_block({true, nullptr, listed_ids_, listed_});
  run_.count = listed_ = 0;
  std::fill_n(listed_in_delta_, kBlockRows / kMaskRows, 0);
}

void Scan::scan_block(const Block& block) {
  QX_ASSERT(block.count >= 1 && block.count <= kBlockRows);
  alignas(64) float values[kBlockRows];
  if (!opened_) open();
  if (pruner_.is_worthwhile() && exact_blocks_ == 0) {
    estimate(block, values);
    prune(block, values);
  } else {
    exact_blocks_ = std::max<std::int64_t>(exact_blocks_ - 1, 0);
    score_candidates();
    compute(kernels().score_contiguous, kernels().score_scattered, block, values);
    topk_.offer(values, block.ids, block.count);
  }
}

void Scan::open() {
  opened_ = true;
  level_ = tuning::cache_level(rows_ * dim_ * std::int64_t{sizeof(float)});
  pruner_.open(query_, dim_, index_.base_magnitude, rows_);
  if (!pruner_.is_worthwhile() || dim_ > kMaxCopiedDim) return;
  std::copy_n(query_, dim_, aligned_query_);
  query_ = aligned_query_;
}

void Scan::estimate(const Block& block, float* estimates) const {
  compute(kernels().estimate_contiguous, kernels().estimate_scattered, block, estimates);
  if (!block.listed) return;
  // A NaN is never pruned.
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
  for (std::int64_t first = 0; first < block.count; first += kMaskRows) {
    for_each_bit(listed_in_delta_[first / kMaskRows],
                 [&](std::int64_t i) { estimates[first + i] = kNaN; });
  }
}

void Scan::compute(ContiguousFunction* contiguous, ScatteredFunction* scattered, const Block& block,
                   float* values) const {
  if (block.listed) {
    scattered(listed_vectors_, block.count, dim_, query_, values);
  } else {
    contiguous(block.rows, block.count, dim_, query_, level_, values);
  }
}

void Scan::prune(const Block& block, const float* estimates) {
  const bool seeding = pruner_.is_empty();
  if (seeding) pruner_.observe(estimates, block.count);
  const float threshold = pruner_.pruning_threshold(topk_.threshold());
  const std::int64_t earlier = candidates_;
  for (std::int64_t first = 0; first < block.count; first += kMaskRows) {
    const std::int64_t rows = std::min(kMaskRows, block.count - first);
    for_each_bit(kernels().mask_not_less(estimates + first, rows, threshold),
                 [&](std::int64_t i) { add_candidate(block, first + i, estimates[first + i]); });
  }
  const std::int64_t added = candidates_ - earlier;
  if (added == 0) return;
  if (!seeding) pruner_.observe(candidate_estimates_ + earlier, added);
  prune_candidates(earlier);
  adapt_to(candidates_ - earlier, block.count);
}

void Scan::add_candidate(const Block& block, std::int64_t i, float estimate) {
  candidate_vectors_[candidates_] = block.listed ? listed_vectors_[i] : block.rows + i * dim_;
  candidate_ids_[candidates_] = block.ids[i];
  candidate_estimates_[candidates_++] = estimate;
}

// Decides how the next blocks are scanned, after a block of `rows` rows has left `candidates`.
void Scan::adapt_to(std::int64_t candidates, std::int64_t rows) {
  if (candidates_ > kWaitingCandidates) prune_candidates(0);
  if (4 * candidates > rows) {
    exact_blocks_ = next_exact_blocks_;
    next_exact_blocks_ = std::min(2 * next_exact_blocks_, kMaxExactBlocks);
  } else {
    next_exact_blocks_ = 1;
  }
  if (candidates_ > kWaitingCandidates) score_candidates();
}

// Drops the candidates, from `first` on, that are pruned by now.
void Scan::prune_candidates(std::int64_t first) {
  const float threshold = pruner_.pruning_threshold(topk_.threshold());
  std::int64_t kept = first;
  for (std::int64_t i = first; i < candidates_; ++i) {
    candidate_vectors_[kept] = candidate_vectors_[i];
    candidate_ids_[kept] = candidate_ids_[i];
    candidate_estimates_[kept] = candidate_estimates_[i];
    kept += candidate_estimates_[i] < threshold ? 0 : 1;
  }
  candidates_ = kept;
}

void Scan::score_candidates() {
  if (candidates_ == 0) return;
  float scores[kCandidateCapacity];
  kernels().score_scattered(candidate_vectors_, candidates_, dim_, query_, scores);
  topk_.offer(scores, candidate_ids_, candidates_);
  candidates_ = 0;
}

}  // namespace qx
