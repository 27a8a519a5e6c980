// The sealed base: its build, where its rows are, and which row an id has. It knows nothing of
// visibility, metadata and scores.
#pragma once

#include "store/qx_index.h"

namespace qx {

// The number of floats in a vector.
inline std::int64_t dim_of(const QxIndex& index) {
  const auto dim = static_cast<std::int32_t>(index.dim);
  return dim < 1 ? 0 : dim;
}

// True if an id is within id_to_row.
inline bool may_have_base_row(const QxIndex& index, std::int64_t id) {
  return static_cast<std::uint64_t>(id) < static_cast<std::uint64_t>(index.max_base_id + 1);
}

// The base row of an id, or -1. Of duplicates, it is the last row.
inline std::int64_t base_row_of(const QxIndex& index, std::int64_t id) {
  return may_have_base_row(index, id) ? index.id_to_row[id] : -1;
}

// Prefetches what base_row_of() reads.
inline void prefetch_base_row_of(const QxIndex& index, std::int64_t id) {
  if (may_have_base_row(index, id)) __builtin_prefetch(index.id_to_row + id);
}

// Calls visit(row) with the base row, or -1, of every key of a map that may have one and whose
// value is wanted. Branch-free, since neither can be predicted.
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
      listed += static_cast<std::int64_t>(wanted(next->value)) &
                static_cast<std::int64_t>(may_have_base_row(index, next->key));
    }
    for (std::int64_t i = 0; i < listed; ++i) {
      __builtin_prefetch(index.id_to_row + ids[i], 0, kSecondLevel);
    }
    for (std::int64_t i = 0; i < listed; ++i) visit(index.id_to_row[ids[i]]);
  }
}

// What a host hands over to be sealed.
struct BaseInput {
  const float* vectors;
  std::int64_t n;
  std::int32_t dim;
  const std::int64_t* ids;
  const std::int64_t* part_keys;
  const std::int32_t* part_starts;
  const std::int32_t* part_sizes;
  std::int32_t n_parts;
};

// Replaces the base. Returns false, with nothing changed, if a limit is exceeded or an id is
// negative. The arrays of an earlier base stay allocated, as the header tells the host.
bool build_base(QxIndex& index, const BaseInput& input);

// Seals `n` rows as the base of an empty index, with ids 0 to n - 1 and without a copy: `vectors`
// is a block of try_allocate(), which the index then owns, or null without floats. Returns false,
// with nothing changed, if there is no memory for the ids. derive_rows() is then called for all
// rows. Requires: n and dim are within the limits.
bool adopt_base(QxIndex& index, float* vectors, std::int64_t n, std::int32_t dim);

// Derives what reads need of the vectors of rows `first` to `end` - 1. Threads may do so at the
// same time in different groups (kCodeGroupRows).
void derive_rows(QxIndex& index, std::int64_t first, std::int64_t end);

// The partition of a key, or -1. Of equal keys, binary search decides, which is part of the
// contract.
std::int32_t find_partition(const QxIndex& index, std::int64_t key);

}  // namespace qx
