// The top-k buffer rule, stated once: which candidates enter a result, and where. It knows scores
// and ids, not where they come from.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <functional>

namespace qx {

// What an empty slot holds. The score is also the bar that a first candidate must pass.
inline constexpr std::int64_t kEmptyId = -1;
inline constexpr float kEmptyScore = -1e30f;
static_assert(std::bit_cast<std::uint32_t>(kEmptyScore) == 0xF149F2CA);

// The k best candidates so far, in the host's own two arrays and a small batch on the stack.
//
// A small buffer takes each candidate at once, by shifting its inferiors. For a larger one that
// would move k / 2 slots each time: candidates that beat the last slot gather in a batch, which is
// sorted and merged in one pass. The bar is then stale between merges, that is, too low; the merge
// applies the exact rule.
//
// Invariants: k >= 1; scores never rise from slot 0 to slot k - 1; among equal scores the earlier
// arrival comes first; no slot holds a NaN, and none an occupied score of kEmptyScore or below.
// Candidates of the batch have arrived after all that are in the slots.
class TopK {
 public:
  // Takes k slots and empties them.
  TopK(std::int64_t* ids, float* scores, std::int64_t k)
      : ids_(ids), scores_(scores), k_(k), batch_limit_(batch_limit(k)) {
    std::fill_n(scores_, k_, kEmptyScore);
    std::fill_n(ids_, k_, kEmptyId);
  }

  std::int64_t k() const { return k_; }

  // What a candidate must beat to enter, or less: between merges of a batch it may have risen.
  float bar() const { return scores_[k_ - 1]; }

  // Offers a block in order: a candidate enters if it beats the last slot, behind all of its
  // equals. A NaN beats nothing. Few candidates of a long scan enter, so a run is first compared
  // with the last slot as a whole, by a loop without branches that compilers turn into SIMD.
  void offer(const float* scores, const std::int64_t* ids, std::int64_t count) {
    std::int64_t first = 0;
    for (; first + kRun <= count; first += kRun) {
      if (any_above(scores + first, scores_[k_ - 1])) take(scores + first, ids + first, kRun);
    }
    take(scores + first, ids + first, count - first);
  }

  // Completes the slots. Must be called after the last offer.
  void finish() {
    if (batch_size_ > 0) merge();
  }

 private:
  static constexpr std::int64_t kRun = 32;
  static constexpr std::int64_t kMostBatched = 256;

  // Candidates gathered before a merge, 0 for none; by measurement. A longer batch saves merges,
  // but lets more candidates in by its staler bar, which costs a small buffer more than it saves.
  static std::int64_t batch_limit(std::int64_t k) {
    if (k <= 48) return 0;
    return k < 512 ? 64 : k < 4096 ? 128 : kMostBatched;
  }

  // Whether any score of a whole run is above the bar.
  static bool any_above(const float* scores, float bar) {
    std::int32_t any = 0;
    for (std::int64_t i = 0; i < kRun; ++i) any |= scores[i] > bar ? -1 : 0;
    return any != 0;
  }

  void take(const float* scores, const std::int64_t* ids, std::int64_t count) {
    if (batch_limit_ > 0) {
      gather(scores, ids, count);
    } else {
      for (std::int64_t i = 0; i < count; ++i) insert(scores[i], ids[i]);
    }
  }

  void insert(float score, std::int64_t id) {
    if (!(score > scores_[k_ - 1])) return;
    std::int64_t slot = k_ - 1;
    for (; slot > 0 && scores_[slot - 1] < score; --slot) {
      scores_[slot] = scores_[slot - 1];
      ids_[slot] = ids_[slot - 1];
    }
    scores_[slot] = score;
    ids_[slot] = id;
  }

  void gather(const float* scores, const std::int64_t* ids, std::int64_t count) {
    if (batch_size_ + count > batch_limit_) merge();
    const float bar = scores_[k_ - 1];
    for (std::int64_t i = 0; i < count; ++i) {
      batch_scores_[batch_size_] = scores[i];
      batch_ids_[batch_size_] = ids[i];
      batch_size_ += scores[i] > bar ? 1 : 0;
    }
  }

  // A number that is the larger, the better the candidate: its score's bits in an order of
  // integers, -0 made +0, above the inverse of its place in the batch.
  std::uint64_t rank(std::int64_t place) const {
    const auto bits = std::bit_cast<std::uint32_t>(batch_scores_[place] + 0.0f);
    const std::uint32_t ordered = (bits >> 31) != 0 ? ~bits : bits | 0x80000000u;
    return (std::uint64_t{ordered} << 32) | static_cast<std::uint32_t>(~place);
  }
  static std::int64_t place_of(std::uint64_t rank) {
    return static_cast<std::int64_t>(~static_cast<std::uint32_t>(rank));
  }

  // Merges the batch into the slots, from the last slot upwards. The m best of the batch enter if
  // the m-th of them beats the m-th slot from the end, which it then pushes out.
  void merge() {
    std::uint64_t ranks[kMostBatched];
    for (std::int64_t i = 0; i < batch_size_; ++i) ranks[i] = rank(i);
    std::sort(ranks, ranks + batch_size_, std::greater<>());
    std::int64_t entering = 0;
    const std::int64_t most = std::min(batch_size_, k_);
    while (entering < most &&
           batch_scores_[place_of(ranks[entering])] > scores_[k_ - 1 - entering]) {
      ++entering;
    }
    std::int64_t from = k_ - 1 - entering;
    for (std::int64_t to = k_ - 1; entering > 0; --to) {
      const std::int64_t place = place_of(ranks[entering - 1]);
      const bool slot_moves = from >= 0 && scores_[from] < batch_scores_[place];
      scores_[to] = slot_moves ? scores_[from] : batch_scores_[place];
      ids_[to] = slot_moves ? ids_[from] : batch_ids_[place];
      (slot_moves ? from : entering) -= 1;
    }
    batch_size_ = 0;
  }

  std::int64_t* ids_;
  float* scores_;
  std::int64_t k_;
  std::int64_t batch_limit_;
  std::int64_t batch_size_ = 0;
  float batch_scores_[kMostBatched];
  std::int64_t batch_ids_[kMostBatched];
};

}  // namespace qx
