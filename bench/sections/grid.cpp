// Exact search with codes and without on a grid of sizes, dimensions, numbers of results and kinds
// of rows: wherever codes lose, it is to be seen here.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "sections/rows.h"
#include "sections/sections.h"

namespace bench {
namespace {

// All rows are asked for where they are at most this many.
constexpr std::int64_t kFewRows = 10000;

void run_base(Run& run, const RowKind& kind, std::int64_t bytes, std::int64_t dim) {
  const Effort effort = run.pick(Effort{15, 0.003, 1.0}, run.effort());
  const Floats values = rows_of(kind, bytes, dim);
  const std::int64_t rows = values.count() / dim;
  const Index index = built_index(values.data(), ascending_ids(rows), dim);
  std::vector<std::pair<std::string, std::int64_t>> ks = {
      {"1", 1}, {"100", 100}, {"n / 8", rows / 8}};
  if (rows <= kFewRows) ks.emplace_back("n", rows);
  for (const auto& [name, k] : ks) {
    const Contestants contestants = with_and_without_codes(index, rising_queries(dim, k), k);
    run.add({{"set", megabytes(bytes)}, {"rows", kind.name}, {"dim", dim}, {"k", name}}, 0, rows,
            time_rounds(contestants, effort));
    run.use_chosen_kernel();
  }
}

void run_grid(Run& run) {
  std::vector<RowKind> kinds = {kNormal};
  kinds.insert(kinds.end(), hostile_kinds().begin(), hostile_kinds().end());
  const Ids kilobytes = run.pick(Ids{512, 2 << 10, 12 << 10, 100 << 10}, Ids{512, 12 << 10});
  for (const std::int64_t size : kilobytes) {
    for (const RowKind& kind : kinds) {
      for (const std::int64_t dim : {16, 128, 768}) run_base(run, kind, size << 10, dim);
    }
  }
}

}  // namespace

const Section kGrid = {"grid", "exact search with codes and without, wherever codes might lose",
                       run_grid};

}  // namespace bench
