// The top-k buffer rule, stated once: which candidates enter a result, and where. It knows scores
// and ids, not where they come from.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

#include "support/room.h"

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
// Candidates of the batch have arrived after all that are in the slots, and are in the order of
// their arrival; the batch always has room for a run.
template <std::int64_t kMostBatched>
class BasicTopK {
 public:
  // Takes k slots and empties them.
  BasicTopK(std::int64_t* ids, float* scores, std::int64_t k)
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
      if (any_above(scores + first, scores_[k_ - 1])) {
        take(scores + first, ids + first, count - first);
      }
    }
    if (first == count) return;
    float last_run[kRun];
    std::fill_n(last_run, kRun, kEmptyScore);
    std::copy_n(scores + first, count - first, last_run);
    take(last_run, ids + first, kRun);
  }

  // Offers one candidate.
  void offer(float score, std::int64_t id) {
    if (!(score > scores_[k_ - 1])) return;
    if (batch_limit_ > 0) {
      gather(&score, &id, 1);
    } else {
      insert(score, id);
    }
  }

  // Completes the slots: merges what has been gathered. Must be called after the last offer, and
  // may be earlier for an exact bar.
  void finish() {
    if (batch_size_ > 0) merge();
  }

 private:
  static constexpr std::int64_t kRun = 32;
  static constexpr std::int64_t kLanes = 16;
  static constexpr std::int64_t kFewBatched = 24;
  static constexpr std::int64_t kMovedAtOnce = 16;

  struct Candidate {
    std::int64_t id;
    float score;
    std::uint32_t key;  // the score as a number that is the smaller, the better the score
  };

  // Room for candidates before a merge, 0 for none; by measurement. A longer batch saves merges,
  // but lets more candidates in by its staler bar, which costs a small buffer more than it saves.
  static std::int64_t batch_limit(std::int64_t k) {
    if (k <= kLanes) return 0;
    return k < 256 ? std::min<std::int64_t>(128, kMostBatched) : kMostBatched;
  }

  // Whether any score of a whole run is above the bar.
  static bool any_above(const float* scores, float bar) {
    std::int32_t any = 0;
    for (std::int64_t i = 0; i < kRun; ++i) any |= scores[i] > bar ? -1 : 0;
    return any != 0;
  }

  // Bit i at place i. A loop that takes its bits from a table is turned into SIMD, one that shifts
  // them is not.
  template <typename Places>
  struct Bits;
  template <std::int64_t... kPlaces>
  struct Bits<std::integer_sequence<std::int64_t, kPlaces...>> {
    static constexpr std::uint32_t kAt[] = {(std::uint32_t{1} << kPlaces)...};
  };
  using RunBits = Bits<std::make_integer_sequence<std::int64_t, kRun>>;

  // Which scores of a whole run are above the bar, a bit for each.
  static std::uint32_t which_above(const float* scores, float bar) {
    std::uint32_t above = 0;
    for (std::int64_t i = 0; i < kRun; ++i) above |= scores[i] > bar ? RunBits::kAt[i] : 0;
    return above;
  }

  // Takes what is above the bar of a whole run; `count` scores come from its first one on. Kept out
  // of the loop over the runs, few of which get here, so that compilers inline that where the
  // scores are made.
  [[gnu::noinline]] void take(const float* scores, const std::int64_t* ids, std::int64_t count) {
    std::uint32_t above = which_above(scores, scores_[k_ - 1]);
    if (batch_limit_ > 0) {
      gather(scores, ids, above);
      return;
    }
    const float least = reached_by_all_lanes(scores, count);
    for (; above != 0; above &= above - 1) {
      const int i = std::countr_zero(above);
      if (scores[i] >= least) insert(scores[i], ids[i]);
    }
  }

  // A score that at least kLanes of the given ones reach. A buffer of no more slots will hold
  // nothing below it in the end: where scores rise, most need not be inserted.
  static float reached_by_all_lanes(const float* scores, std::int64_t count) {
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

  void gather(const float* scores, const std::int64_t* ids, std::uint32_t above) {
    for (; above != 0; above &= above - 1) {
      const int i = std::countr_zero(above);
      batch_[batch_size_++] = {ids[i], scores[i], key_of(scores[i])};
    }
    if (batch_size_ + kRun > batch_limit_) merge();
  }

  // Equal scores, such as -0 and +0, have equal keys.
  static std::uint32_t key_of(float score) {
    const auto bits = std::bit_cast<std::uint32_t>(score + 0.0f);
    return (bits >> 31) != 0 ? bits : bits ^ 0x7FFFFFFFu;
  }

  // Sorts the batch by its keys, byte by byte from the low end, which keeps equals in order. No
  // branch depends on a score. The best of a long scan are close: their high bytes are the same.
  void sort_batch() {
    if (batch_size_ <= kFewBatched) {
      sort_few();
      return;
    }
    std::uint32_t differing = 0;
    for (std::int64_t i = 1; i < batch_size_; ++i) differing |= batch_[i].key ^ batch_[0].key;
    for (int shift = 0; shift < 32; shift += 8) {
      if ((differing >> shift & 0xFF) != 0) sort_batch_by_byte(shift);
    }
  }

  void sort_few() {
    for (std::int64_t i = 1; i < batch_size_; ++i) {
      const Candidate moved = batch_[i];
      std::int64_t at = i;
      for (; at > 0 && batch_[at - 1].key > moved.key; --at) batch_[at] = batch_[at - 1];
      batch_[at] = moved;
    }
  }

  void sort_batch_by_byte(int shift) {
    const auto byte_of = [&](std::int64_t i) { return batch_[i].key >> shift & 0xFF; };
    std::int32_t places[257] = {};  // of the next candidate with each byte
    for (std::int64_t i = 0; i < batch_size_; ++i) ++places[byte_of(i) + 1];
    for (int byte = 1; byte < 256; ++byte) places[byte] += places[byte - 1];
    Candidate sorted[kMostBatched];
    for (std::int64_t i = 0; i < batch_size_; ++i) sorted[places[byte_of(i)]++] = batch_[i];
    std::copy_n(sorted, batch_size_, batch_.data());
  }

  // Merges the batch into the slots, from the last slot upwards. The m best of the batch enter if
  // the m-th of them beats the m-th slot from the end, which it then pushes out.
  void merge() {
    sort_batch();
    std::int64_t entering = 0;
    const std::int64_t most = std::min(batch_size_, k_);
    while (entering < most && batch_[entering].score > scores_[k_ - 1 - entering]) ++entering;
    std::int64_t unmoved = k_ - entering;
    for (; entering > 0; --entering) {
      const Candidate& next = batch_[entering - 1];
      unmoved = move_inferior(next.score, unmoved, entering);
      scores_[unmoved + entering - 1] = next.score;
      ids_[unmoved + entering - 1] = next.id;
    }
    batch_size_ = 0;
  }

  // Moves those of the first `unmoved` slots that are below a score down by `distance`, several at
  // once while that many are. Returns how many stay.
  std::int64_t move_inferior(float score, std::int64_t unmoved, std::int64_t distance) {
    while (unmoved >= kMovedAtOnce && scores_[unmoved - kMovedAtOnce] < score) {
      unmoved -= kMovedAtOnce;
      float* const moved_scores = scores_ + unmoved;
      std::int64_t* const moved_ids = ids_ + unmoved;
      std::memmove(moved_scores + distance, moved_scores, kMovedAtOnce * sizeof(float));
      std::memmove(moved_ids + distance, moved_ids, kMovedAtOnce * sizeof(std::int64_t));
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
  Room<Candidate, kMostBatched> batch_;
};

using TopK = BasicTopK<256>;

}  // namespace qx
