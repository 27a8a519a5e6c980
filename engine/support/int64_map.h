// The map from 64-bit keys to 64-bit values that the delta, the tombstones, the metadata and the
// IVF keys share. Any key is valid and nothing is ever erased.
//
// Entries lie in an array in the order of their first insertion; a table of slots under open
// addressing with linear probing says where. A slot carries a piece of its key's hash beside the
// entry's position, so that a probe past a foreign key rarely leaves the table.
//
// Whoever has many keys hands them over together: the memory of later keys is then on its way
// while earlier ones are worked on, and keys in the order of their insertion need no probe at all.
//
// Entries and table share one block, so that a growing map asks the system for each page once.
// Memory of n entries: with c the smallest power of two that is not below n, nor below 4, 16 bytes
// times c and 4 bytes times 2c (8 bytes each from 2^29 slots on). That is 24 bytes per entry where
// n is a power of two, 25.2 at a million, and below 48 always from 3 entries on.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "support/array.h"
#include "support/memory.h"

namespace qx {

// Invariants: a map without entries owns no storage. Otherwise the table has 2^bits slots, at least
// twice the number of entries, so a probe always ends at an empty slot; it lies in the block of the
// entries, behind room for half as many entries as there are slots. A slot has 32 bits while
// bits is at most kNarrowBits, and 64 above. Slot value 0 is empty; any other has position + 1 of
// an entry in its low `bits` bits and as many low bits of the key's hash as fit above. Every entry
// stands in exactly one slot, and no two entries have the same key.
template <int kNarrowBits>
class BasicInt64Map {
 public:
  struct Entry {
    std::int64_t key;
    std::int64_t value;
  };

  // The most keys that a batch may have.
  static constexpr std::int64_t kBatch = 64;

  std::int64_t size() const { return entries_.length; }

  // The entries in the order of their insertion, good until the next one.
  const Entry* begin() const { return entries_.data; }
  const Entry* end() const { return entries_.data + entries_.length; }

  // The value of a key, which the caller may assign through the pointer; null when absent. The
  // pointer is good until the next insertion.
  const std::int64_t* find(std::int64_t key) const {
    if (entries_.length == 0) return nullptr;
    const std::int64_t found = position_of(key);
    return found < 0 ? nullptr : &entries_.data[found].value;
  }
  std::int64_t* find(std::int64_t key) {
    return const_cast<std::int64_t*>(static_cast<const BasicInt64Map*>(this)->find(key));
  }

  // The value of a key, or `otherwise`.
  std::int64_t get(std::int64_t key, std::int64_t otherwise) const {
    const std::int64_t* const value = find(key);
    return value == nullptr ? otherwise : *value;
  }

  bool contains(std::int64_t key) const { return find(key) != nullptr; }

  // get() for up to kBatch keys. `guess` starts at 0 and belongs to a sequence of batches: it is
  // where the next key may stand, which is right wherever keys come in the order of insertion.
  void get_batch(const std::int64_t* keys, std::int64_t count, std::int64_t otherwise,
                 std::int64_t* values, std::int64_t& guess) const {
    if (is_guess(guess, keys, count, 0) || is_guess(guess, keys, count, 1)) {
      get_in_order(keys, count, otherwise, values, guess);
    } else if (entries_.length == 0) {
      for (std::int64_t i = 0; i < count; ++i) values[i] = otherwise;
    } else if (wide()) {
      get_anywhere<std::uint64_t>(keys, count, otherwise, values, guess);
    } else {
      get_anywhere<std::uint32_t>(keys, count, otherwise, values, guess);
    }
  }

  // Gives a key its value, inserting the key if it is new.
  void assign(std::int64_t key, std::int64_t value) {
    bool inserted;
    std::int64_t* const present = find_or_insert(key, value, &inserted);
    if (!inserted) *present = value;
  }

  // assign() for any number of keys in order; key i gets value_of(i).
  template <typename ValueOf>
  void assign_batch(const std::int64_t* keys, std::int64_t count, ValueOf value_of) {
    for (std::int64_t i = 0; i < count; ++i) {
      if (i + kAhead < count) prefetch(keys[i + kAhead]);
      bool inserted;
      std::int64_t* const value = find_or_insert(keys[i], value_of(i), &inserted);
      if (!inserted) *value = value_of(i);
    }
  }

  // The value of a key, which is inserted with the given value if it is new.
  std::int64_t* find_or_insert(std::int64_t key, std::int64_t value, bool* inserted) {
    *inserted = false;
    if (entries_.length * 2 == slot_count()) {
      if (std::int64_t* const present = find(key)) return present;
      grow();
    }
    const std::int64_t at = wide() ? claim<std::uint64_t>(key) : claim<std::uint32_t>(key);
    *inserted = at == entries_.length;
    if (*inserted) entries_.append({key, value});
    return &entries_.data[at].value;
  }

  // Starts to load what a search of the key will need first.
  void prefetch(std::int64_t key) const {
    if (slots_ == nullptr) return;
    const std::uint64_t home = hash(key) >> (64 - bits_);
    const auto* const table = static_cast<const char*>(slots_);
    __builtin_prefetch(table + home * slot_bytes());
  }

  // How many keys ahead of its work a loop over keys calls prefetch().
  static constexpr std::int64_t kAhead = 16;

  // Gives the storage back; the map is empty afterwards.
  void release() {
    entries_.release();
    *this = BasicInt64Map();
  }

  // Two multiplications with a fold between: a single one collapses to linear search on some
  // ordinary strides of keys. The table is indexed by the top bits, the tag is the low ones.
  static std::uint64_t hash(std::int64_t key) {
    std::uint64_t mixed = static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15u;
    mixed ^= mixed >> 32;
    return mixed * 0xD6E8FEB86659FD93u;
  }

 private:
  static constexpr int kInitialBits = 3;

  bool wide() const { return bits_ > kNarrowBits; }
  std::size_t slot_bytes() const { return wide() ? sizeof(std::uint64_t) : sizeof(std::uint32_t); }
  std::int64_t slot_count() const { return slots_ == nullptr ? 0 : std::int64_t{1} << bits_; }

  template <typename Slot>
  Slot* table() const {
    return static_cast<Slot*>(slots_);
  }
  template <typename Slot>
  Slot tag(std::uint64_t key_hash) const {
    return static_cast<Slot>(key_hash << bits_);
  }
  template <typename Slot>
  std::int64_t position(Slot slot) const {
    return static_cast<std::int64_t>(slot & ((Slot{1} << bits_) - 1)) - 1;
  }

  // Whether a slot is neither empty nor carries the tag.
  template <typename Slot>
  bool is_foreign(Slot slot, Slot wanted) const {
    return (slot != 0) & ((slot ^ wanted) >> bits_ != 0);
  }

  // The first slot from `at` on that is not foreign.
  template <typename Slot>
  std::uint64_t next_candidate(std::uint64_t at, Slot wanted) const {
    const std::uint64_t last = (std::uint64_t{1} << bits_) - 1;
    at &= last;
    while (is_foreign(table<Slot>()[at], wanted)) at = (at + 1) & last;
    return at;
  }

  // The same from the home slot on, for keys whose searches differ in length: as most of them end
  // in the first two slots, no branch depends on the first.
  template <typename Slot>
  std::uint64_t first_candidate(std::uint64_t home, Slot wanted) const {
    const std::uint64_t foreign = is_foreign(table<Slot>()[home], wanted) ? 1 : 0;
    return next_candidate<Slot>(home + foreign, wanted);
  }

  // The slot that holds the key, or the empty one where it belongs.
  template <typename Slot>
  std::uint64_t probe(std::int64_t key, std::uint64_t key_hash) const {
    const Slot wanted = tag<Slot>(key_hash);
    std::uint64_t at = next_candidate<Slot>(key_hash >> (64 - bits_), wanted);
    while (table<Slot>()[at] != 0 && entries_.data[position(table<Slot>()[at])].key != key) {
      at = next_candidate<Slot>(at + 1, wanted);
    }
    return at;
  }

  // The entry of a key, or -1. There is a table.
  std::int64_t position_of(std::int64_t key) const {
    const std::uint64_t key_hash = hash(key);
    if (wide()) return position(table<std::uint64_t>()[probe<std::uint64_t>(key, key_hash)]);
    return position(table<std::uint32_t>()[probe<std::uint32_t>(key, key_hash)]);
  }

  // The entry of a key; for a new key, a slot is written for the entry that is appended next.
  template <typename Slot>
  std::int64_t claim(std::int64_t key) {
    const std::uint64_t key_hash = hash(key);
    Slot& slot = table<Slot>()[probe<Slot>(key, key_hash)];
    if (slot == 0) slot = tag<Slot>(key_hash) | static_cast<Slot>(entries_.length + 1);
    return position(slot);
  }

  // Whether there is a key `i` and the entry at `guess` is its.
  bool is_guess(std::int64_t guess, const std::int64_t* keys, std::int64_t count,
                std::int64_t i) const {
    return guess < entries_.length && i < count && entries_.data[guess].key == keys[i];
  }

  // Whether all keys are those of the entries from `guess` on; without branches, as SIMD.
  bool are_next(const std::int64_t* keys, std::int64_t count, std::int64_t guess) const {
    if (count > entries_.length - guess) return false;
    std::int64_t differing = 0;
    for (std::int64_t i = 0; i < count; ++i) differing |= entries_.data[guess + i].key ^ keys[i];
    return differing == 0;
  }

  // get_batch() for keys that follow the entries from `guess` on. A key whose successor is there
  // instead is probably absent: its search has time until the end, when its slot is loaded. Any
  // other is searched at once, as the guess may be lost.
  void get_in_order(const std::int64_t* keys, std::int64_t count, std::int64_t otherwise,
                    std::int64_t* values, std::int64_t& guess) const {
    if (are_next(keys, count, guess)) {
      const Entry* const next = entries_.data + guess;
      for (std::int64_t i = 0; i < count; ++i) values[i] = next[i].value;
      guess += count;
      return;
    }
    std::int64_t skipped[kBatch];
    std::int64_t skips = 0;
    for (std::int64_t i = 0; i < count; ++i) {
      if (is_guess(guess, keys, count, i)) {
        values[i] = entries_.data[guess++].value;
      } else if (is_guess(guess, keys, count, i + 1)) {
        prefetch(keys[i]);
        skipped[skips++] = i;
      } else {
        const std::int64_t found = position_of(keys[i]);
        values[i] = found < 0 ? otherwise : entries_.data[found].value;
        if (found >= 0) guess = found + 1;
      }
    }
    for (std::int64_t s = 0; s < skips; ++s) values[skipped[s]] = get(keys[skipped[s]], otherwise);
  }

  // get_batch() for keys in any order: three passes, each of which starts the loads of the next.
  template <typename Slot>
  void get_anywhere(const std::int64_t* keys, std::int64_t count, std::int64_t otherwise,
                    std::int64_t* values, std::int64_t& guess) const {
    std::uint64_t hashes[kBatch];
    std::int64_t positions[kBatch];
    for (std::int64_t i = 0; i < count; ++i) {
      hashes[i] = hash(keys[i]);
      __builtin_prefetch(table<Slot>() + (hashes[i] >> (64 - bits_)));
    }
    for (std::int64_t i = 0; i < count; ++i) {
      const Slot wanted = tag<Slot>(hashes[i]);
      positions[i] = position(table<Slot>()[first_candidate(hashes[i] >> (64 - bits_), wanted)]);
      __builtin_prefetch(entries_.data + std::max<std::int64_t>(positions[i], 0));
    }
    // Hits and misses mix, so no branch depends on them.
    for (std::int64_t i = 0; i < count; ++i) {
      const bool candidate = positions[i] >= 0;
      const Entry& entry = entries_.data[candidate ? positions[i] : 0];
      const bool found = candidate && entry.key == keys[i];
      values[i] = found ? entry.value : otherwise;
      guess = found ? positions[i] + 1 : guess;
      if (candidate & !found) values[i] = get(keys[i], otherwise);
    }
  }

  // Doubles the table, and the room for entries before it. The entries stay where they are if the
  // block can grow in place; the old table becomes room for entries.
  void grow() {
    bits_ = slots_ == nullptr ? kInitialBits : bits_ + 1;
    const std::int64_t slots = std::int64_t{1} << bits_;
    const std::size_t table_bytes = static_cast<std::size_t>(slots) * slot_bytes();
    const auto table_entries = static_cast<std::int64_t>(table_bytes / sizeof(Entry));
    entries_.capacity = slots / 2;
    entries_.data = static_cast<Entry*>(
        reallocate(entries_.data, entries_.capacity + table_entries, sizeof(Entry)));
    slots_ = std::memset(entries_.data + entries_.capacity, 0, table_bytes);
    if (wide()) {
      fill_table<std::uint64_t>();
    } else {
      fill_table<std::uint32_t>();
    }
  }

  // Gives every entry its slot in an empty table. All keys differ, so none is compared.
  template <typename Slot>
  void fill_table() {
    const std::uint64_t last = (std::uint64_t{1} << bits_) - 1;
    for (std::int64_t i = 0; i < entries_.length; ++i) {
      if (i + kAhead < entries_.length) prefetch(entries_.data[i + kAhead].key);
      const std::uint64_t key_hash = hash(entries_.data[i].key);
      std::uint64_t at = key_hash >> (64 - bits_);
      while (table<Slot>()[at] != 0) at = (at + 1) & last;
      table<Slot>()[at] = tag<Slot>(key_hash) | static_cast<Slot>(i + 1);
    }
  }

  void* slots_ = nullptr;
  int bits_ = 0;
  Array<Entry> entries_;
};

// Up to 2^28 slots at least four bits of a narrow slot are the tag.
using Int64Map = BasicInt64Map<28>;

}  // namespace qx
