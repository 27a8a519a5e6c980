// The map from 64-bit keys to 64-bit values that the delta, the tombstones, the metadata and the
// IVF keys share. Any key is valid and nothing is ever erased.
//
// Entries are kept in the order of their first insertion; a table of slots under open addressing
// with linear probing finds them. A slot has a tag, a part of its key's hash, in addition to the
// entry's position, so that a probe past a foreign key rarely leaves the table.
//
// Keys are looked up in batches: the memory of later keys is loaded while earlier ones are worked
// on, and keys in the order of their insertion need no probe at all.
//
// Entries and table share one block, so that a growing map asks the system for each page once.
// Memory of n entries: with c the smallest power of two that is at least n and at least 4, 16 bytes
// times c and 4 bytes times 2c (8 bytes each from 2^29 slots on). That is 24 bytes an entry where n
// is a power of two, 25.2 at a million, and below 48 always from 3 entries on.
#pragma once

#include <algorithm>
#include <cstring>
#include <utility>

#include "support/abort.h"
#include "support/memory.h"

namespace qx {

// Invariants: a map without entries owns no storage. Otherwise the table has 2^bits_ slots, at
// least twice the number of entries, so that a probe always ends at an empty slot. One block has
// capacity for half as many entries as there are slots, then the slots. A slot has 32 bits while
// bits_ <= kNarrowBits, and 64 above. Slot value 0 is empty; any other has the position + 1 of an
// entry in its low bits_ bits and as many low bits of the key's hash as fit above. Every entry has
// exactly one slot, and no two entries have the same key.
template <int kNarrowBits>
class BasicInt64Map {
 public:
  struct Entry {
    std::int64_t key;
    std::int64_t value;
  };

  // The most keys of a batch.
  static constexpr std::int64_t kBatch = 64;

  // Where the next key of a sequence of batches probably is: right wherever keys come in the order
  // of insertion. Each sequence has its own.
  struct Cursor {
    std::int64_t next = 0;
  };

  BasicInt64Map() = default;
  BasicInt64Map(BasicInt64Map&& other) noexcept { swap(other); }
  BasicInt64Map& operator=(BasicInt64Map other) noexcept {
    swap(other);
    return *this;
  }
  ~BasicInt64Map() { qx::release(entries_); }

  std::int64_t size() const { return size_; }

  // The entries in the order of their insertion; valid until the next insertion.
  const Entry* begin() const { return entries_; }
  const Entry* end() const { return entries_ + size_; }

  // The value of a key, to be read or assigned; null if absent. Valid until the next insertion.
  const std::int64_t* find(std::int64_t key) const {
    if (size_ == 0) return nullptr;
    const std::int64_t found = position_of(key);
    return found < 0 ? nullptr : &entries_[found].value;
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

  // The entries of keys that follow the cursor, which then is behind them; null if they do not.
  const Entry* take_next(const std::int64_t* keys, std::int64_t count, Cursor& cursor) const {
    if (!are_next(keys, count, cursor)) return nullptr;
    const Entry* const next = entries_ + cursor.next;
    cursor.next += count;
    return next;
  }

  // get() for up to kBatch keys.
  void get_batch(const std::int64_t* keys, std::int64_t count, std::int64_t otherwise,
                 std::int64_t* values, Cursor& cursor) const {
    QX_ASSERT(count <= kBatch && cursor.next >= 0 && cursor.next <= size_);
    if (is_at(cursor, keys, count, 0) || is_at(cursor, keys, count, 1)) {
      get_in_order(keys, count, otherwise, values, cursor);
    } else if (size_ == 0) {
      std::fill_n(values, count, otherwise);
    } else {
      with_table([&](auto table) { get_unordered(table, keys, count, otherwise, values, cursor); });
    }
  }

  // Gives a key its value, inserting the key if it is new.
  void assign(std::int64_t key, std::int64_t value) {
    bool inserted;
    *find_or_insert(key, value, &inserted) = value;
  }

  // assign() for any number of keys in order; key i gets value_of(i).
  template <typename ValueOf>
  void assign_batch(const std::int64_t* keys, std::int64_t count, ValueOf value_of) {
    for (std::int64_t i = 0; i < count; ++i) {
      if (i + kPrefetchDistance < count) prefetch(keys[i + kPrefetchDistance]);
      assign(keys[i], value_of(i));
    }
  }

  // The value of a key, which is inserted with the given value if it is new.
  std::int64_t* find_or_insert(std::int64_t key, std::int64_t value, bool* inserted) {
    *inserted = false;
    if (size_ * 2 == slot_count()) {
      if (std::int64_t* const present = find(key)) return present;
      grow();
    }
    const std::int64_t at = with_table([&](auto table) { return table.claim(key, size_); });
    *inserted = at == size_;
    if (*inserted) entries_[size_++] = {key, value};
    return &entries_[at].value;
  }

  // Prefetches what a lookup of the key reads first.
  void prefetch(std::int64_t key) const {
    if (slots_ == nullptr) return;
    const std::uint64_t home = hash(key) >> (64 - bits_);
    __builtin_prefetch(static_cast<const char*>(slots_) + home * slot_bytes());
  }

  // Tuning: how many keys ahead a loop over keys calls prefetch(), a mere hint.
  static constexpr std::int64_t kPrefetchDistance = 16;

  // Releases the storage. The map is empty afterwards.
  void release() { *this = BasicInt64Map(); }

  // Checks every invariant, for tests.
  bool is_valid() const {
    if (slots_ == nullptr) return (size_ == 0) & (entries_ == nullptr);
    const std::int64_t empty = with_table(
        [&](auto table) { return std::count(table.slots, table.slots + slot_count(), 0u); });
    bool found = slot_count() - empty == size_;
    found &= 2 * size_ <= slot_count();
    for (std::int64_t i = 0; i < size_; ++i) found &= position_of(entries_[i].key) == i;
    return found;
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

  // The table, as slots of one width.
  template <typename Slot>
  struct Table {
    Slot* slots;
    const Entry* entries;
    int bits;

    std::uint64_t last() const { return (std::uint64_t{1} << bits) - 1; }
    std::uint64_t home(std::uint64_t key_hash) const { return key_hash >> (64 - bits); }
    Slot tag(std::uint64_t key_hash) const { return static_cast<Slot>(key_hash << bits); }

    // The entry of a slot, or -1.
    std::int64_t position(std::uint64_t at) const {
      return static_cast<std::int64_t>(slots[at] & last()) - 1;
    }

    // True if a slot is neither empty nor has the tag.
    bool is_foreign(std::uint64_t at, Slot wanted) const {
      return (slots[at] != 0) & ((slots[at] ^ wanted) >> bits != 0);
    }

    // The first slot from `at` on that is not foreign.
    std::uint64_t next_candidate(std::uint64_t at, Slot wanted) const {
      at &= last();
      while (is_foreign(at, wanted)) at = (at + 1) & last();
      return at;
    }

    // Like next_candidate() from the key's home on, but the first step is branch-free: most probes
    // end in the first two slots, unpredictably in which.
    std::uint64_t first_candidate(std::uint64_t key_hash) const {
      const std::uint64_t foreign = is_foreign(home(key_hash), tag(key_hash)) ? 1 : 0;
      return next_candidate(home(key_hash) + foreign, tag(key_hash));
    }

    // The slot that holds the key, or the empty one where it belongs.
    std::uint64_t probe(std::int64_t key, std::uint64_t key_hash) const {
      const Slot wanted = tag(key_hash);
      std::uint64_t at = next_candidate(home(key_hash), wanted);
      while (slots[at] != 0 && entries[position(at)].key != key) {
        at = next_candidate(at + 1, wanted);
      }
      return at;
    }

    // The entry of a key; the slot of a new key is written for the entry `next`.
    std::int64_t claim(std::int64_t key, std::int64_t next) const {
      const std::uint64_t key_hash = hash(key);
      const std::uint64_t at = probe(key, key_hash);
      if (slots[at] == 0) slots[at] = tag(key_hash) | static_cast<Slot>(next + 1);
      return position(at);
    }
  };

  // Calls use(table) with the table, whichever width its slots have.
  template <typename Use>
  auto with_table(Use use) const {
    return wide() ? use(Table<std::uint64_t>{static_cast<std::uint64_t*>(slots_), entries_, bits_})
                  : use(Table<std::uint32_t>{static_cast<std::uint32_t*>(slots_), entries_, bits_});
  }

  // The entry of a key, or -1. Requires: size() > 0.
  std::int64_t position_of(std::int64_t key) const {
    return with_table([&](auto table) { return table.position(table.probe(key, hash(key))); });
  }

  // True if there is a key `i` and the cursor is at its entry.
  bool is_at(Cursor cursor, const std::int64_t* keys, std::int64_t count, std::int64_t i) const {
    return cursor.next < size_ && i < count && entries_[cursor.next].key == keys[i];
  }

  // True if all keys are those of the entries from the cursor on; branch-free, so that it is SIMD.
  bool are_next(const std::int64_t* keys, std::int64_t count, Cursor cursor) const {
    if (count > size_ - cursor.next) return false;
    std::int64_t differing = 0;
    for (std::int64_t i = 0; i < count; ++i) {
      differing |= entries_[cursor.next + i].key ^ keys[i];
    }
    return differing == 0;
  }

  // get_batch() for keys that follow the cursor. If the entry is that of the following key instead,
  // the key is probably absent: prefetch its slot and look it up after the loop. Otherwise look it
  // up now, to resynchronise the cursor.
  void get_in_order(const std::int64_t* keys, std::int64_t count, std::int64_t otherwise,
                    std::int64_t* values, Cursor& cursor) const {
    if (const Entry* const next = take_next(keys, count, cursor)) {
      for (std::int64_t i = 0; i < count; ++i) values[i] = next[i].value;
      return;
    }
    std::int64_t skipped[kBatch];
    std::int64_t skips = 0;
    for (std::int64_t i = 0; i < count; ++i) {
      if (is_at(cursor, keys, count, i)) {
        values[i] = entries_[cursor.next++].value;
      } else if (is_at(cursor, keys, count, i + 1)) {
        prefetch(keys[i]);
        skipped[skips++] = i;
      } else {
        const std::int64_t found = position_of(keys[i]);
        values[i] = found < 0 ? otherwise : entries_[found].value;
        if (found >= 0) cursor.next = found + 1;
      }
    }
    for (std::int64_t s = 0; s < skips; ++s) values[skipped[s]] = get(keys[skipped[s]], otherwise);
  }

  // get_batch() for keys in any order: three passes, each of which prefetches for the next.
  template <typename Slot>
  void get_unordered(Table<Slot> table, const std::int64_t* keys, std::int64_t count,
                     std::int64_t otherwise, std::int64_t* values, Cursor& cursor) const {
    std::uint64_t hashes[kBatch];
    std::int64_t positions[kBatch];
    for (std::int64_t i = 0; i < count; ++i) {
      hashes[i] = hash(keys[i]);
      __builtin_prefetch(table.slots + table.home(hashes[i]));
    }
    for (std::int64_t i = 0; i < count; ++i) {
      positions[i] = table.position(table.first_candidate(hashes[i]));
      __builtin_prefetch(entries_ + std::max<std::int64_t>(positions[i], 0));
    }
    // Hits and misses mix, so no branch depends on them.
    for (std::int64_t i = 0; i < count; ++i) {
      const bool candidate = positions[i] >= 0;
      const Entry& entry = entries_[candidate ? positions[i] : 0];
      const bool found = candidate && entry.key == keys[i];
      values[i] = found ? entry.value : otherwise;
      cursor.next = found ? positions[i] + 1 : cursor.next;
      if (candidate & !found) values[i] = get(keys[i], otherwise);
    }
  }

  // Doubles the table, and the capacity for entries before it. The entries stay where they are if
  // the block can grow in place; the old table becomes capacity for entries.
  void grow() {
    bits_ = slots_ == nullptr ? kInitialBits : bits_ + 1;
    const std::int64_t slots = std::int64_t{1} << bits_;
    const std::size_t table_bytes = static_cast<std::size_t>(slots) * slot_bytes();
    const auto table_entries = static_cast<std::int64_t>(table_bytes / sizeof(Entry));
    const std::int64_t capacity = slots / 2;
    entries_ = static_cast<Entry*>(reallocate(entries_, capacity + table_entries, sizeof(Entry)));
    slots_ = std::memset(entries_ + capacity, 0, table_bytes);
    with_table([&](auto table) { fill(table); });
  }

  // Writes the slot of every entry into an empty table. All keys differ, so none is compared.
  template <typename Slot>
  void fill(Table<Slot> table) const {
    for (std::int64_t i = 0; i < size_; ++i) {
      if (i + kPrefetchDistance < size_) prefetch(entries_[i + kPrefetchDistance].key);
      const std::uint64_t key_hash = hash(entries_[i].key);
      std::uint64_t at = table.home(key_hash);
      while (table.slots[at] != 0) at = (at + 1) & table.last();
      table.slots[at] = table.tag(key_hash) | static_cast<Slot>(i + 1);
    }
  }

  void swap(BasicInt64Map& other) {
    std::swap(entries_, other.entries_);
    std::swap(slots_, other.slots_);
    std::swap(size_, other.size_);
    std::swap(bits_, other.bits_);
  }

  Entry* entries_ = nullptr;
  void* slots_ = nullptr;
  std::int64_t size_ = 0;
  int bits_ = 0;
};

// Up to 2^28 slots at least four bits of a narrow slot are the tag.
using Int64Map = BasicInt64Map<28>;

}  // namespace qx
