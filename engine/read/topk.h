// The top-k buffer rule, stated once: which scores enter the results, and where. It knows scores
// and ids, not where they come from.
#pragma once

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "support/abort.h"

namespace qx {

// What an empty slot holds. The score is also the first threshold.
inline constexpr std::int64_t kEmptyId = -1;
inline constexpr float kEmptyScore = -1e30f;
static_assert(std::bit_cast<std::uint32_t>(kEmptyScore) == 0xF149F2CA);

// The k best rows so far, in the host's own two arrays and a small batch on the stack.
//
// A small buffer inserts each row at once, by shifting its inferiors. For a larger one that would
// move k / 2 slots each time: rows that exceed the threshold are appended to a batch, which is
// sorted and merged in one pass. Between merges the threshold is stale, that is, too low; the merge
// applies the exact rule.
//
// Invariants: k >= 1. Scores never rise from slot 0 to slot k - 1; among equal scores the earlier
// arrival comes first. No slot holds a NaN, and no occupied slot a score <= kEmptyScore. Rows of
// the batch have arrived after all rows in the slots, and are in the order of their arrival. The
// batch always has room for a chunk.
template <std::int64_t kMaxBatch>
class BasicTopK {
 public:
  // Takes k slots and empties them.
  // cppcheck-suppress uninitMemberVar ; batch_ is read up to batch_size_
  BasicTopK(std::int64_t* ids, float* scores, std::int64_t k)
      : ids_(ids), scores_(scores), k_(k), batch_limit_(batch_limit(k)) {
    QX_ASSERT(k >= 1);
    clear();
  }

  // Empties the slots.
  void clear() {
    std::fill_n(scores_, k_, kEmptyScore);
    std::fill_n(ids_, k_, kEmptyId);
    batch_size_ = 0;
  }

  std::int64_t k() const { return k_; }

  // A lower bound of the score needed to enter; exact after finish().
  float threshold() const { return scores_[k_ - 1]; }

  // Offers a block in order: a row enters if its score exceeds the threshold, after all of its
  // equals. A NaN exceeds nothing. Few rows of a long scan enter, so a chunk is first compared with
  // the threshold as a whole, by a branch-free loop that compilers turn into SIMD.
  void offer(const float* scores, const std::int64_t* ids, std::int64_t count) {
    std::int64_t first = 0;
    for (; first + kChunk <= count; first += kChunk) {
      if (any_above(scores + first, scores_[k_ - 1])) {
        consider_chunk(scores + first, ids + first, count - first);
      }
    }
    if (first == count) return;
    float last_chunk[kChunk];
    std::fill_n(last_chunk, kChunk, kEmptyScore);
    std::copy_n(scores + first, count - first, last_chunk);
    consider_chunk(last_chunk, ids + first, kChunk);
  }

  // Offers one row.
  void offer(float score, std::int64_t id) {
    if (!(score > scores_[k_ - 1])) return;
    if (batch_limit_ > 0) {
      append_to_batch(&score, &id, 1);
    } else {
      insert(score, id);
    }
  }

  // Merges the batch. Must be called after the last offer, and may be called earlier for an exact
  // threshold.
  void finish() {
    if (batch_size_ > 0) merge();
  }

 private:
  static constexpr std::int64_t kChunk = 32;
  static constexpr std::int64_t kLanes = 16;
  static constexpr std::int64_t kMovedTogether = 16;

  // Tuning: which of two stable sorts orders a batch.
  static constexpr std::int64_t kInsertionSorted = 24;

  // Aligned, so that none lies in two cache lines: choosing 200 of 1,000 rows by the sort below
  // took up to a fifth longer (Zen 4), depending on the stack.
  struct alignas(16) Waiting {
    std::int64_t id;
    float score;
    std::uint32_t key;  // falls where the score rises; equal scores have equal keys
  };

  // The size of a batch, 0 for none. A longer batch saves merges, but its staler threshold lets
  // more rows in, which costs a small buffer more than it saves (docs/DEAD_ENDS.md has the
  // figures).
  static std::int64_t batch_limit(std::int64_t k) {
    if (k <= kLanes) return 0;
    return k < 256 ? std::min<std::int64_t>(128, kMaxBatch) : kMaxBatch;
  }

  // True if any score of a chunk exceeds the threshold.
  static bool any_above(const float* scores, float threshold) {
    std::int32_t any = 0;
    for (std::int64_t i = 0; i < kChunk; ++i) any |= scores[i] > threshold ? -1 : 0;
    return any != 0;
  }

  // kAt[i] == 1 << i. A loop that reads its bits from a table is turned into SIMD, one that
  // shifts them is not.
  template <typename Positions>
  struct Bits;
  template <std::int64_t... kPositions>
  struct Bits<std::integer_sequence<std::int64_t, kPositions...>> {
    static constexpr std::uint32_t kAt[] = {(std::uint32_t{1} << kPositions)...};
  };
  using ChunkBits = Bits<std::make_integer_sequence<std::int64_t, kChunk>>;

  // A bit for each score of a chunk that exceeds the threshold.
  static std::uint32_t which_above(const float* scores, float threshold) {
    std::uint32_t above = 0;
    for (std::int64_t i = 0; i < kChunk; ++i)
      above |= scores[i] > threshold ? ChunkBits::kAt[i] : 0;
    return above;
  }

  // Slow path for a chunk that has a score above the threshold. `count` scores are readable from
  // `scores` on. Not inlined, so that the scan loop around it can be.
  [[gnu::noinline]] void consider_chunk(const float* scores, const std::int64_t* ids,
                                        std::int64_t count) {
    std::uint32_t above = which_above(scores, scores_[k_ - 1]);
    if (batch_limit_ > 0) {
      append_to_batch(scores, ids, above);
      return;
    }
    const float least = lower_bound_of_kth_best(scores, count);
    for (; above != 0; above &= above - 1) {
      const int i = std::countr_zero(above);
      if (scores[i] >= least) insert(scores[i], ids[i]);
    }
  }

  // A lower bound of the k-th best score for k <= kLanes: anything below it would be pushed out
  // again. Where scores rise, most need not be inserted.
  static float lower_bound_of_kth_best(const float* scores, std::int64_t count) {
    float best[kLanes];
    std::fill_n(best, kLanes, kEmptyScore);
    for (std::int64_t first = 0; first + kLanes <= count; first += kLanes) {
      for (std::int64_t i = 0; i < kLanes; ++i) {
        best[i] = scores[first + i] > best[i] ? scores[first + i] : best[i];
      }
    }
    return *std::min_element(best, best + kLanes);
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

  void append_to_batch(const float* scores, const std::int64_t* ids, std::uint32_t above) {
    for (; above != 0; above &= above - 1) {
      const int i = std::countr_zero(above);
      batch_[batch_size_++] = {ids[i], scores[i], key_of(scores[i])};
    }
    if (batch_size_ + kChunk > batch_limit_) merge();
  }

  // Equal scores, such as -0 and +0, have equal keys.
  static std::uint32_t key_of(float score) {
    const auto bits = std::bit_cast<std::uint32_t>(score + 0.0f);
    return (bits >> 31) != 0 ? bits : bits ^ 0x7FFFFFFFu;
  }

  // A radix sort by the keys, from the low byte on, which keeps equals in order. No branch depends
  // on a score. The best of a long scan are close: their high bytes are equal, and skipped.
  void sort_batch() {
    if (batch_size_ <= kInsertionSorted) {
      insertion_sort();
      return;
    }
    std::uint32_t differing = 0;
    for (std::int64_t i = 1; i < batch_size_; ++i) differing |= batch_[i].key ^ batch_[0].key;
    for (int shift = 0; shift < 32; shift += 8) {
      if ((differing >> shift & 0xFF) != 0) radix_pass(shift);
    }
  }

  void insertion_sort() {
    for (std::int64_t i = 1; i < batch_size_; ++i) {
      const Waiting moved = batch_[i];
      std::int64_t at = i;
      for (; at > 0 && batch_[at - 1].key > moved.key; --at) batch_[at] = batch_[at - 1];
      batch_[at] = moved;
    }
  }

  void radix_pass(int shift) {
    const auto byte_of = [&](std::int64_t i) { return batch_[i].key >> shift & 0xFF; };
    std::int32_t positions[257] = {};  // of the next one with each byte
    for (std::int64_t i = 0; i < batch_size_; ++i) ++positions[byte_of(i) + 1];
    for (int byte = 1; byte < 256; ++byte) positions[byte] += positions[byte - 1];
    Waiting sorted[kMaxBatch];
    for (std::int64_t i = 0; i < batch_size_; ++i) sorted[positions[byte_of(i)]++] = batch_[i];
    std::copy_n(sorted, batch_size_, batch_);
  }

  // Merges the batch into the slots, from the last slot upwards. The m best of the batch enter if
  // the m-th of them exceeds the m-th slot from the end, which it then pushes out.
  void merge() {
    QX_ASSERT(batch_size_ >= 1 && batch_size_ <= batch_limit_);
    sort_batch();
    std::int64_t entering = 0;
    const std::int64_t most = std::min(batch_size_, k_);
    while (entering < most && batch_[entering].score > scores_[k_ - 1 - entering]) ++entering;
    std::int64_t unmoved = k_ - entering;
    for (; entering > 0; --entering) {
      const Waiting& next = batch_[entering - 1];
      unmoved = move_inferior(next.score, unmoved, entering);
      scores_[unmoved + entering - 1] = next.score;
      ids_[unmoved + entering - 1] = next.id;
    }
    batch_size_ = 0;
  }

  // Moves those of the first `unmoved` slots that are below a score down by `distance`, several at
  // once while that many are. Returns how many stay.
  std::int64_t move_inferior(float score, std::int64_t unmoved, std::int64_t distance) {
    while (unmoved >= kMovedTogether && scores_[unmoved - kMovedTogether] < score) {
      unmoved -= kMovedTogether;
      float* const moved_scores = scores_ + unmoved;
      std::int64_t* const moved_ids = ids_ + unmoved;
      std::memmove(moved_scores + distance, moved_scores, kMovedTogether * sizeof(float));
      std::memmove(moved_ids + distance, moved_ids, kMovedTogether * sizeof(std::int64_t));
    }
    for (; unmoved > 0 && scores_[unmoved - 1] < score; --unmoved) {
      scores_[unmoved - 1 + distance] = scores_[unmoved - 1];
      ids_[unmoved - 1 + distance] = ids_[unmoved - 1];
    }
    return unmoved;
  }

  std::int64_t* ids_;
  float* scores_;
  std::int64_t k_;
  std::int64_t batch_limit_;
  std::int64_t batch_size_ = 0;
  Waiting batch_[kMaxBatch];
};

using TopK = BasicTopK<256>;

}  // namespace qx
