// Which base ids may be hidden by the delta or the tombstones: a set of bits on the reader's stack,
// made anew by each walk over the base. The test of one bit replaces two lookups per base row. It
// knows ids, not rows, and unless it is exact, its yes is a maybe.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

#include "kernels/kernels.h"
#include "support/int64_map.h"

namespace qx {

// Exact mode has a bit for each possible id. Where that is too many, there are two parts that may
// both say maybe: in the first a bit stands for 2^shift consecutive ids, in the second for those
// that share a hash. The first is the cheaper to ask, many ids at once; a yes of both is seldom
// wrong. Base ids are never spread much wider than memory is, since the table from ids to rows has
// 8 bytes for each possible one; so the first part need not hash.
//
// Invariants: bit i of the first part is 1 exactly if an id from i << shift to ((i + 1) << shift) -
// 1 was added, for i below bits, which is a power of two. Exact mode is shift 0. Otherwise bit i of
// the second part is 1 exactly if an id with hash i was added. Other bits have no value.
class HiddenIds {
 public:
  // 128 KiB. No function of the engine but the walks needs more than a few KiB of stack.
  static constexpr std::int64_t kMostBits = std::int64_t{1} << 20;

  // An empty set for ids from 0 to max_id.
  explicit HiddenIds(std::int64_t max_id)
      : max_id_(max_id), shift_(shift_for(max_id)), bits_(bits_for(max_id)) {
    std::fill_n(words_, exact() ? (bits_ + 31) / 32 : kMostBits / 32, 0u);
  }

  // Whether a set of `added` ids pays for the questions about `asked` ids: it costs the clearing
  // and the adding, and a crowded set says maybe too often.
  static bool pays(std::int64_t added, std::int64_t asked, std::int64_t max_id) {
    const std::int64_t bits = bits_for(max_id);
    return bits / 64 + added <= asked && (shift_for(max_id) == 0 || added <= bits / 2);
  }

  bool exact() const { return shift_ == 0; }

  // Adds an id if `wanted`; ids that no base row has may come, and are ignored. A bit is written in
  // any case, since branches on ids and tombstones are beyond prediction.
  void add(std::int64_t id, bool wanted) {
    const bool inside = static_cast<std::uint64_t>(id) <= static_cast<std::uint64_t>(max_id_);
    const std::int64_t bit = (id >> shift_) & (bits_ - 1);
    const std::uint32_t written = wanted && inside ? 1 : 0;
    words_[bit / 32] |= written << (bit % 32);
    if (exact()) return;
    const std::uint64_t hashed = second_bit(id);
    words_[hashed / 32] |= written << (hashed % 32);
  }

  // Bit i of the result says whether ids[i], which is from 0 to max_id, may have been added. At
  // most 64 ids.
  std::uint64_t ask(const std::int64_t* ids, std::int64_t count) const {
    return kernels().test_bits(words_, shift_, ids, count);
  }

  // Whether an id may have been added by the second part, too. Not in exact mode.
  bool ask_again(std::int64_t id) const {
    const std::uint64_t hashed = second_bit(id);
    return ((words_[hashed / 32] >> (hashed % 32)) & 1) != 0;
  }

 private:
  static int shift_for(std::int64_t max_id) {
    if (max_id < kMostBits) return 0;
    int shift = 1;
    while (max_id >> shift >= kMostBits / 2) ++shift;
    return shift;
  }

  // A bit of the upper half of the words.
  static std::uint64_t second_bit(std::int64_t id) {
    constexpr std::uint64_t kHalf = kMostBits / 2;
    return kHalf + Int64Map::hash(id) % kHalf;
  }
  // A power of two, so that any number can be cut down to a bit of the set.
  static std::int64_t bits_for(std::int64_t max_id) {
    return static_cast<std::int64_t>(
        std::bit_ceil(static_cast<std::uint64_t>(max_id >> shift_for(max_id)) + 1));
  }

  std::int64_t max_id_;
  int shift_;
  std::int64_t bits_;
  std::uint32_t words_[kMostBits / 32];
};

}  // namespace qx
