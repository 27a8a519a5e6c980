// Exact search with codes beside the same library without them: for rows that look like those of
// hosts, and for rows that are made to defeat codes.
#include <string>
#include <vector>

#include "limits/limits.h"
#include "sections/rows.h"
#include "sections/sections.h"

namespace bench {
namespace {

void run_case(Run& run, const std::string& set, const RowKind& kind, std::int64_t bytes,
              std::int64_t dim, const Ids& ks) {
  const Floats values = rows_of(kind, bytes, dim);
  const std::int64_t rows = values.count() / dim;
  const Index index = built_index(values.data(), ascending_ids(rows), dim);
  for (const std::int64_t k : ks) {
    Contestants contestants = with_and_without_codes(index, rising_queries(dim, k), k);
    const std::int64_t read = values.count() * std::int64_t{sizeof(float)};
    add_read_limits(contestants, base_vectors(index), read);
    run.compare({{"set", set}, {"rows", kind.name}, {"dim", dim}, {"k", k}}, read, rows,
                contestants);
    run.use_chosen_kernel();
  }
}

struct CachedSet {
  std::int64_t bytes;
  Ids dims;
  Ids ks;
};

void run_codes(Run& run) {
  const CachedSet cached[] = {{512 << 10, {64, 100, 128, 200, 256}, {10}},
                              {2 << 20, {64, 100, 128, 256, 384, 768}, {10}},
                              {12 << 20, {32, 64}, {10}},
                              {12 << 20, {100, 128, 256, 384, 768}, {10, 100}},
                              {12 << 20, {128}, {1000}}};
  for (const CachedSet& set : cached) {
    for (const std::int64_t dim : set.dims) {
      run_case(run, megabytes(set.bytes), kNormal, set.bytes, dim, set.ks);
    }
  }
  const std::int64_t bytes = std::int64_t{run.pick(500, 128)} << 20;
  run_case(run, "memory", kNormal, bytes, 128, {1, 10, 100, 1000});
  run_case(run, "memory", kClustered, bytes, 768, {10, 100});
  for (const RowKind& kind : hostile_kinds()) run_case(run, "memory", kind, bytes, 128, {10});
}

}  // namespace

const Section kCodes = {"codes", "exact search with codes and without", run_codes};

}  // namespace bench
