// Kinds of rows, and the search of the whole base with codes beside the same search without.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "harness/data.h"
#include "harness/measure.h"

namespace bench {

struct RowKind {
  const char* name;
  void (*fill)(Floats& values, std::int64_t dim, Random& random);
};
extern const RowKind kNormal, kClustered;  // like rows of hosts
std::span<const RowKind> hostile_kinds();  // made to defeat codes

// As many rows as a number of bytes holds. The same call gives the same rows.
Floats rows_of(const RowKind& kind, std::int64_t bytes, std::int64_t dim);

// "12 MB"
std::string megabytes(std::int64_t bytes);

// Queries above 0 in sum, for which rows are better the larger they are. Each k has others.
Queries rising_queries(std::int64_t dim, std::int64_t k);

// A host's search: fills its slots. `turn` counts its searches, from 0.
using HostSearch = std::function<void(Slots& slots, const float* query, std::int64_t turn)>;

// The engine, and as a baseline the engine without codes. Both must give the same bits for the
// first query. A run must make its kernel and judges be chosen again afterwards.
Contestants with_and_without_codes(const HostSearch& search, const Queries& queries,
                                   std::int64_t k);

// The same, by the exact search of a base.
Contestants with_and_without_codes(const Index& index, const Queries& queries, std::int64_t k);

}  // namespace bench
