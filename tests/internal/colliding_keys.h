// Keys made to collide in the map.
#pragma once

#include <cstdint>

namespace qx_test {

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

}  // namespace qx_test
