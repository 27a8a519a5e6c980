#include "scan.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "kernels/kernels.h"
#include "support/bits.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace qx {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Scans of up to so many bytes find their rows in the second-level, or the last-level, cache.
constexpr std::int64_t kNearBytes = std::int64_t{1} << 20;
constexpr std::int64_t kFarBytes = std::int64_t{20} << 20;

Reach reach_of(std::int64_t bytes) {
  if (bytes <= kNearBytes) return Reach::kNear;
  return bytes <= kFarBytes ? Reach::kFar : Reach::kMemory;
}

Reach reach_of_rows(std::int64_t rows, std::int64_t width) {
  return reach_of(rows * width * std::int64_t{sizeof(float)});
}

// Rows that lie one after the other.
struct ContiguousBlock {
  const float* rows;
  std::int64_t count;
  std::int64_t width;
  Reach reach;

  const float* vector(std::int64_t i) const { return rows + i * width; }
  void estimate(const float* query, float* estimates) const {
    kernels().estimate_contiguous(rows, count, width, query, reach, estimates);
  }
  void score(const float* query, float* scores) const {
    kernels().score_contiguous(rows, count, width, query, reach, scores);
  }
};

// Rows that lie anywhere. Of those that are not bounded, no estimate is known.
struct ScatteredBlock {
  const float* const* vectors;
  std::int64_t count;
  std::int64_t width;
  const std::uint64_t* unbounded;  // a bit for each row; null for none

  const float* vector(std::int64_t i) const { return vectors[i]; }
  void estimate(const float* query, float* estimates) const {
    kernels().estimate_scattered(vectors, count, width, query, estimates);
    for (std::int64_t first = 0; unbounded != nullptr && first < count; first += Scan::kMaskRows) {
      for_each_bit(unbounded[first / Scan::kMaskRows],
                   [&](std::int64_t i) { estimates[first + i] = kNaN; });
    }
  }
  void score(const float* query, float* scores) const {
    kernels().score_scattered(vectors, count, width, query, scores);
  }
};

static_assert(kBlockRows <= Screen::kMostLearned && kBlockRows <= 256);

}  // namespace

void score_contiguous(const float* rows, std::int64_t count, std::int64_t width, const float* query,
                      float* scores) {
  in_default_fp_environment([&] {
    kernels().score_contiguous(rows, count, width, query, reach_of_rows(count, width), scores);
  });
}

void Scan::add_masked(const float* rows, const std::int64_t* ids, std::int64_t count,
                      std::uint64_t mask, std::int64_t whole_rows) {
  flush_pending();
  const bool follows = run_ids_ + run_count_ == ids && run_rows_ + run_count_ * width_ == rows;
  if (run_count_ > 0 && (!follows || run_count_ % kMaskRows != 0)) flush_run();
  if (run_count_ == 0) {
    run_rows_ = rows;
    run_ids_ = ids;
    run_whole_rows_ = whole_rows;
  }
  run_masks_[run_count_ / kMaskRows] = mask;
  run_count_ += count;
  if (run_count_ > kBlockRows - kMaskRows) flush_run();
}

void Scan::flush_run() {
  in_default_fp_environment([&] { scan_run(); });
}

void Scan::flush_pending() {
  if (pending_ == 0) return;
  in_default_fp_environment([&] { scan_pending(); });
}

void Scan::scan_run() {
  if (run_count_ == 0) return;
  if (run_is_whole()) {
    const Reach reach = reach_of_rows(run_whole_rows_, width_);
    scan_block(ContiguousBlock{run_rows_, run_count_, width_, reach}, run_ids_, run_count_);
  } else {
    const std::int64_t listed = list_run();
    const ScatteredBlock block{vectors_.data(), listed, width_, nullptr};
    if (listed > 0) scan_block(block, ids_.data(), listed);
  }
  run_count_ = 0;
}

void Scan::scan_contiguous(const float* rows, const std::int64_t* ids, std::int64_t count,
                           std::int64_t whole_rows) {
  const Reach reach = reach_of_rows(whole_rows, width_);
  for (std::int64_t first = 0; first < count; first += kBlockRows) {
    const std::int64_t size = std::min(kBlockRows, count - first);
    scan_block(ContiguousBlock{rows + first * width_, size, width_, reach}, ids + first, size);
  }
}

bool Scan::run_is_whole() const {
  std::int64_t selected = 0;
  for (std::int64_t first = 0; first < run_count_; first += kMaskRows) {
    selected += count_bits(run_masks_[first / kMaskRows]);
  }
  return selected == run_count_;
}

std::int64_t Scan::list_run() {
  std::int64_t listed = 0;
  for (std::int64_t first = 0; first < run_count_; first += kMaskRows) {
    for_each_bit(run_masks_[first / kMaskRows], [&](std::int64_t i) {
      vectors_[listed] = run_rows_ + (first + i) * width_;
      ids_[listed] = run_ids_[first + i];
      ++listed;
    });
  }
  return listed;
}

void Scan::scan_pending() {
  if (pending_ == 0) return;
  const ScatteredBlock block{vectors_.data(), pending_, width_, unbounded_};
  scan_block(block, ids_.data(), pending_);
  pending_ = 0;
  std::fill_n(unbounded_, kMasks, 0);
}

void Scan::open() {
  opened_ = true;
  screen_.open(query_, width_, magnitude_, rows_);
  // Each line of the query is read for each row, or each few: half of the loads of an estimate.
  if (!screen_.pays() || width_ > kLongestCopied) return;
  std::memcpy(query_at_line_, query_, static_cast<std::size_t>(width_) * sizeof(float));
  query_ = query_at_line_;
}

template <typename Block>
void Scan::scan_block(const Block& block, const std::int64_t* ids, std::int64_t count) {
  alignas(64) float values[kBlockRows];
  if (!opened_) open();
  if (screen_.pays() && exact_blocks_ == 0) {
    block.estimate(query_, values);
    choose_candidates(block, values, ids, count);
  } else {
    exact_blocks_ = std::max<std::int64_t>(exact_blocks_ - 1, 0);
    offer_candidates();
    block.score(query_, values);
    topk_.offer(values, ids, count);
  }
}

template <typename Block>
void Scan::choose_candidates(const Block& block, const float* estimates, const std::int64_t* ids,
                             std::int64_t count) {
  const bool first_look = screen_.knows_nothing();
  if (first_look) screen_.learn(estimates, count);
  const float limit = screen_.limit(topk_.bar());
  std::uint8_t places[kBlockRows];
  float chosen_estimates[kBlockRows];
  std::int64_t chosen = 0;
  for (std::int64_t first = 0; first < count; first += kMaskRows) {
    const std::int64_t size = std::min(kMaskRows, count - first);
    for_each_bit(kernels().not_below(estimates + first, size, limit), [&](std::int64_t i) {
      places[chosen] = static_cast<std::uint8_t>(first + i);
      chosen_estimates[chosen++] = estimates[first + i];
    });
  }
  if (chosen == 0) return;
  if (!first_look) screen_.learn(chosen_estimates, chosen);
  const float limit_now = screen_.limit(topk_.bar());
  const std::int64_t earlier = candidates_;
  for (std::int64_t i = 0; i < chosen; ++i) {
    if (chosen_estimates[i] < limit_now) continue;
    candidate_vectors_[candidates_] = block.vector(places[i]);
    candidate_ids_[candidates_] = ids[places[i]];
    candidate_estimates_[candidates_] = chosen_estimates[i];
    ++candidates_;
  }
  const std::int64_t added = candidates_ - earlier;
  if (candidates_ > kFewCandidates) thin_candidates();
  if (4 * added > count) {
    exact_blocks_ = next_exact_blocks_;
    next_exact_blocks_ = std::min(2 * next_exact_blocks_, kMostExactBlocks);
  } else {
    next_exact_blocks_ = 1;
  }
  if (candidates_ > kFewCandidates) offer_candidates();
}

void Scan::thin_candidates() {
  const float limit = screen_.limit(topk_.bar());
  std::int64_t kept = 0;
  for (std::int64_t i = 0; i < candidates_; ++i) {
    candidate_vectors_[kept] = candidate_vectors_[i];
    candidate_ids_[kept] = candidate_ids_[i];
    candidate_estimates_[kept] = candidate_estimates_[i];
    kept += candidate_estimates_[i] < limit ? 0 : 1;
  }
  candidates_ = kept;
}

void Scan::offer_candidates() {
  if (candidates_ == 0) return;
  float scores[kFewCandidates + kBlockRows];
  kernels().score_scattered(candidate_vectors_.data(), candidates_, width_, query_, scores);
  topk_.offer(scores, candidate_ids_.data(), candidates_);
  candidates_ = 0;
}

void Scan::complete() {
  thin_candidates();
  offer_candidates();
  topk_.finish();
}

void Scan::finish() {
  if (!opened_ && run_count_ == 0 && pending_ == 0) return;  // no row has come
  in_default_fp_environment([&] {
    scan_run();
    scan_pending();
    complete();
  });
}

void Scan::finish_with(const float* rows, const std::int64_t* ids, std::int64_t count,
                       std::int64_t whole_rows) {
  in_default_fp_environment([&] {
    scan_run();
    scan_pending();
    scan_contiguous(rows, ids, count, whole_rows);
    complete();
  });
}

}  // namespace qx
