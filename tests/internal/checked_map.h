// A map beside a standard one, and keys that are made to collide in it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "support/int64_map.h"

namespace qx_test {

using Keys = std::vector<std::int64_t>;
using WideMap = qx::BasicInt64Map<4>;  // wide table slots from 32 of them on

// The key whose hash is `hash`: both multiplications are by odd numbers and the fold is its own
// inverse, so the hash can be inverted.
inline std::int64_t key_of_hash(std::uint64_t hash) {
  const auto inverse = [](std::uint64_t odd) {
    std::uint64_t x = odd;  // the inverse modulo 2^3; each round doubles the exponent
    for (int round = 0; round < 5; ++round) x *= 2 - odd * x;
    return x;
  };
  hash *= inverse(0xD6E8FEB86659FD93u);
  hash ^= hash >> 32;
  return static_cast<std::int64_t>(hash * inverse(0x9E3779B97F4A7C15u));
}

// Number i of up to 2^20 keys that all start at the same slot of any table up to 2^20 slots and
// carry the same tag.
inline std::int64_t colliding_key(std::uint64_t i) {
  return key_of_hash((std::uint64_t{0xABCDE} << 44) | (i << 24) | 0x123456u);
}

// Makes each call on a map and on a standard one, and says where they disagree.
template <typename Map>
class CheckedMap {
 public:
  explicit CheckedMap(std::function<void(bool, const char*)> require)
      : require_(std::move(require)) {}
  ~CheckedMap() { map_.release(); }
  CheckedMap(const CheckedMap&) = delete;
  CheckedMap& operator=(const CheckedMap&) = delete;

  // The keys in the order of their first insertion.
  const Keys& order() const { return order_; }

  void assign(std::int64_t key, std::int64_t value) {
    map_.assign(key, value);
    note(key, value);
  }

  void assign_batch(const Keys& keys, std::int64_t first_value) {
    map_.assign_batch(keys.data(), std::ssize(keys),
                      [&](std::int64_t i) { return first_value + i; });
    for (const std::int64_t key : keys) note(key, first_value++);
  }

  void assign_through_the_found_value(std::int64_t key, std::int64_t value) {
    std::int64_t* const found = map_.find(key);
    require_((found != nullptr) == model_.contains(key), "a key is found or not");
    if (found == nullptr) return;
    *found = value;
    model_[key] = value;
  }

  void find_or_insert(std::int64_t key, std::int64_t value) {
    const bool known = model_.contains(key);
    bool inserted = false;
    const std::int64_t found = *map_.find_or_insert(key, value, &inserted);
    require_(inserted != known, "a key is new or not");
    if (!known) note(key, value);
    require_(found == model_[key], "the value found or inserted");
  }

  void ask(std::int64_t key) const {
    require_(map_.contains(key) == model_.contains(key), "a key is contained or not");
    require_(map_.get(key, -7) == value_of(key), "a value");
  }

  void ask_batch(const Keys& keys, typename Map::Cursor& cursor) const {
    take_next(keys, cursor);
    Keys values(keys.size());
    map_.get_batch(keys.data(), std::ssize(keys), -7, values.data(), cursor);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      require_(values[i] == value_of(keys[i]), "a value of a batch");
    }
  }

  void compare_all() const {
    require_(map_.size() == std::ssize(order_), "the number of keys");
    Keys listed;
    for (const auto& entry : map_) {
      listed.push_back(entry.key);
      require_(entry.value == value_of(entry.key), "the value of an entry");
      ask(entry.key);
    }
    require_(listed == order_, "the order of first insertion");
  }

 private:
  // With a cursor of its own.
  void take_next(const Keys& keys, typename Map::Cursor cursor) const {
    const auto first = order_.begin() + cursor.next;
    const bool follow =
        std::ssize(keys) <= order_.end() - first && std::equal(keys.begin(), keys.end(), first);
    const auto* const entries = map_.take_next(keys.data(), std::ssize(keys), cursor);
    require_((entries != nullptr) == (follow && map_.size() > 0), "keys follow a cursor or not");
    require_(cursor.next == first - order_.begin() + (entries != nullptr ? std::ssize(keys) : 0),
             "where a cursor is");
    for (std::size_t i = 0; entries != nullptr && i < keys.size(); ++i) {
      require_(entries[i].value == value_of(keys[i]), "the value of an entry that follows");
    }
  }

  void note(std::int64_t key, std::int64_t value) {
    if (!model_.contains(key)) order_.push_back(key);
    model_[key] = value;
  }

  std::int64_t value_of(std::int64_t key) const {
    const auto known = model_.find(key);
    return known == model_.end() ? -7 : known->second;
  }

  std::function<void(bool, const char*)> require_;
  Map map_;
  std::unordered_map<std::int64_t, std::int64_t> model_;
  Keys order_;
};

}  // namespace qx_test
