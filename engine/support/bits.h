// Masks of up to 64 rows, one bit for each.
#pragma once

#include <bit>

#include "support/abort.h"

namespace qx {

// The mask of the first `count` rows. Requires: 1 <= count <= 64.
inline std::uint64_t first_bits(std::int64_t count) {
  QX_ASSERT(count >= 1 && count <= 64);
  return ~std::uint64_t{0} >> (64 - count);
}

// The number of bits of a mask. std::popcount calls the compiler's library where a CPU may lack the
// instruction, which takes several times as long.
inline std::int64_t count_bits(std::uint64_t mask) {
  mask -= mask >> 1 & 0x5555555555555555u;
  mask = (mask & 0x3333333333333333u) + (mask >> 2 & 0x3333333333333333u);
  mask = (mask + (mask >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
  return static_cast<std::int64_t>(mask * 0x0101010101010101u >> 56);
}

// Calls visit(i) for every bit of a mask, in order.
template <typename Visit>
void for_each_bit(std::uint64_t mask, Visit&& visit) {
  for (; mask != 0; mask &= mask - 1) visit(std::int64_t{std::countr_zero(mask)});
}

}  // namespace qx
