// From ids to the bits of their base rows.
#pragma once

#include <cstdint>

#include "store/base.h"

namespace qx {

// Calls visit(row) with the base row, or -1, of every key of a map that may have one and whose
// entry is wanted. Branch-free, since neither can be predicted.
template <typename Wanted, typename Visit>
void for_each_base_row(const QxIndex& index, const Int64Map& map, Wanted wanted, Visit visit) {
  // Loads that are prefetched together, into the second-level cache, which has more of them in
  // flight than the first.
  constexpr std::int64_t kInFlight = 512;
  constexpr int kSecondLevel = 2;
  for (const Int64Map::Entry* next = map.begin(); next != map.end();) {
    std::int64_t ids[kInFlight];
    std::int64_t listed = 0;
    for (; next != map.end() && listed < kInFlight; ++next) {
      ids[listed] = next->key;
      listed += static_cast<std::int64_t>(wanted(*next)) &
                static_cast<std::int64_t>(may_have_base_row(index, next->key));
    }
    for (std::int64_t i = 0; i < listed; ++i) {
      __builtin_prefetch(index.id_to_row + ids[i], 0, kSecondLevel);
    }
    for (std::int64_t i = 0; i < listed; ++i) visit(index.id_to_row[ids[i]]);
  }
}

}  // namespace qx
