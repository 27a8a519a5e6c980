// Masks of up to 64 rows, one bit for each.
#pragma once

#include <bit>
#include <cstdint>

namespace qx {

// The mask of the first `count` rows; `count` is 1 to 64.
inline std::uint64_t first_bits(std::int64_t count) { return ~std::uint64_t{0} >> (64 - count); }

// Calls visit(i) for every bit of a mask, in order.
template <typename Visit>
void for_each_bit(std::uint64_t mask, Visit&& visit) {
  for (; mask != 0; mask &= mask - 1) visit(std::int64_t{std::countr_zero(mask)});
}

}  // namespace qx
