// Exact search with codes beside the same library without them: for rows that look like those of
// hosts, and for rows that are made to defeat codes.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "limits/limits.h"
#include "sections/rows.h"
#include "sections/sections.h"

namespace bench {
namespace {

class Case {
 public:
  Case(Run& run, const std::string& set, const RowKind& kind, std::int64_t bytes, std::int64_t dim)
      : run_(run),
        set_(set),
        values_(rows_of(kind, bytes, dim)),
        dim_(dim),
        rows_(values_.count() / dim),
        index_(built_index(values_.data(), ascending_ids(rows_), dim)) {}

  void ask(const char* rows, const Queries& queries, std::int64_t k) {
    Contestants contestants = with_and_without_codes(index_, queries, k);
    const std::int64_t read = values_.count() * std::int64_t{sizeof(float)};
    add_read_limits(contestants, base_vectors(index_), read);
    run_.compare({{"set", set_}, {"rows", rows}, {"dim", dim_}, {"k", k}}, read, rows_,
                 contestants);
    run_.use_chosen_kernel();
  }

  // Eight rows, from all parts.
  Queries some_rows() const {
    constexpr std::int64_t kAsked = 8;
    Floats asked(kAsked * dim_);
    for (std::int64_t i = 0; i < kAsked; ++i) {
      std::copy_n(values_.data() + i * rows_ / kAsked * dim_, dim_, asked.data() + i * dim_);
    }
    return {dim_, std::move(asked)};
  }

 private:
  Run& run_;
  std::string set_;
  Floats values_;
  std::int64_t dim_;
  std::int64_t rows_;
  Index index_;
};

void run_case(Run& run, const std::string& set, const RowKind& kind, std::int64_t bytes,
              std::int64_t dim, const Ids& ks) {
  Case rows(run, set, kind, bytes, dim);
  for (const std::int64_t k : ks) rows.ask(kind.name, rising_queries(dim, k), k);
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
  Case clustered(run, "memory", kClustered, bytes, 768);
  for (const std::int64_t k : {10, 100}) {
    clustered.ask("clustered", clustered.some_rows(), k);
    clustered.ask("clustered, asked at random", rising_queries(768, k), k);
  }
  for (const RowKind& kind : hostile_kinds()) run_case(run, "memory", kind, bytes, 128, {10});
}

}  // namespace

const Section kCodes = {"codes", "exact search with codes and without", run_codes};

}  // namespace bench
