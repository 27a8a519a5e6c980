// The map from 64-bit keys to 64-bit values that the delta, the tombstones, the metadata and the
// IVF keys share. Any key is valid and nothing is ever erased.
//
// Entries lie in an array in the order of their first insertion; a table of slots under open
// addressing with linear probing says where. A slot carries a piece of its key's hash beside the
// entry's position, so that a probe past a foreign key rarely leaves the table.
#pragma once

#include <cstdint>

#include "support/array.h"
#include "support/memory.h"

namespace qx {

// Invariants: a map without entries owns no storage. Otherwise the table has 2^(64 - shift) slots,
// at least twice the number of entries, so a probe always ends at an empty slot. Slot value 0 is
// empty; any other is hash_tag(key) << kPositionBits | position + 1 of an entry; every entry stands
// in exactly one slot, and no two entries have the same key.
class Int64Map {
 public:
  struct Entry {
    std::int64_t key;
    std::int64_t value;
  };

  std::int64_t size() const { return entries_.length; }

  // The value of a key, which the caller may assign through the pointer; null when absent. The
  // pointer is good until the next insertion.
  const std::int64_t* find(std::int64_t key) const {
    if (entries_.length == 0) return nullptr;
    const std::uint64_t slot = slots_[probe(key, hash(key))];
    return slot == 0 ? nullptr : &entries_.data[position(slot)].value;
  }
  std::int64_t* find(std::int64_t key) {
    return const_cast<std::int64_t*>(static_cast<const Int64Map*>(this)->find(key));
  }

  // The value of a key, or `otherwise`.
  std::int64_t get(std::int64_t key, std::int64_t otherwise) const {
    const std::int64_t* const value = find(key);
    return value == nullptr ? otherwise : *value;
  }

  bool contains(std::int64_t key) const { return find(key) != nullptr; }

  // Gives a key its value, inserting the key if it is new.
  void assign(std::int64_t key, std::int64_t value) {
    if (std::int64_t* const present = find(key)) {
      *present = value;
    } else {
      insert_new(key, value);
    }
  }

  // Inserts a key that is not in the map.
  void insert_new(std::int64_t key, std::int64_t value) {
    if (slots_ == nullptr || (entries_.length + 1) * 2 > slot_count()) grow();
    const std::uint64_t key_hash = hash(key);
    slots_[probe(key, key_hash)] = slot_of(key_hash, entries_.length);
    entries_.append({key, value});
  }

  // Gives the storage back, the table before the entries; the map is empty afterwards.
  void release() {
    qx::release(slots_);
    entries_.release();
    *this = Int64Map();
  }

 private:
  // 2^40 entries are 16 TiB of entries alone; the 24 bits above make one false match in 16 million.
  static constexpr int kPositionBits = 40;
  static constexpr std::uint64_t kPositionMask = (std::uint64_t{1} << kPositionBits) - 1;
  static constexpr int kInitialShift = 64 - 3;

  // Two multiplications with a fold between: a single one collapses to linear search on some
  // ordinary strides of keys. The table is indexed by the top bits, the tag is the low ones.
  static std::uint64_t hash(std::int64_t key) {
    std::uint64_t mixed = static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15u;
    mixed ^= mixed >> 32;
    return mixed * 0xD6E8FEB86659FD93u;
  }
  static std::uint64_t slot_of(std::uint64_t key_hash, std::int64_t position) {
    return (key_hash << kPositionBits) | (static_cast<std::uint64_t>(position) + 1);
  }
  static std::uint64_t position(std::uint64_t slot) { return (slot & kPositionMask) - 1; }
  std::int64_t slot_count() const { return std::int64_t{1} << (64 - shift_); }

  // The slot that holds the key, or the empty one where it belongs.
  std::uint64_t probe(std::int64_t key, std::uint64_t key_hash) const {
    const std::uint64_t last = (std::uint64_t{1} << (64 - shift_)) - 1;
    std::uint64_t at = key_hash >> shift_;
    while (slots_[at] != 0) {
      const bool same_tag = ((slots_[at] ^ (key_hash << kPositionBits)) >> kPositionBits) == 0;
      if (same_tag && entries_.data[position(slots_[at])].key == key) break;
      at = (at + 1) & last;
    }
    return at;
  }

  void grow() {
    shift_ = slots_ == nullptr ? kInitialShift : shift_ - 1;
    qx::release(slots_);
    slots_ = static_cast<std::uint64_t*>(allocate_zeroed(slot_count(), sizeof(std::uint64_t)));
    for (std::int64_t i = 0; i < entries_.length; ++i) {
      const std::uint64_t key_hash = hash(entries_.data[i].key);
      slots_[probe(entries_.data[i].key, key_hash)] = slot_of(key_hash, i);
    }
  }

  std::uint64_t* slots_ = nullptr;
  int shift_ = 0;
  Array<Entry> entries_;
};

}  // namespace qx
