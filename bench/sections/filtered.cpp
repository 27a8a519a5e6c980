// Filtered search, against the exact search of the same base.
#include "limits/limits.h"
#include "peers/absl_index.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kDim = 128;
constexpr std::int64_t kCommon = 1;  // the label of every row
constexpr std::int64_t kRare = 2;    // column 0 of one row in a hundred

struct Filter {
  const char* name;
  std::int64_t passing_percent;
  std::uint32_t mode;
  std::int64_t value;
};
constexpr Filter kFilters[] = {
    {"no test", 100, QX_FILTER_ALL, 0},
    {"a label that all rows have", 100, QX_FILTER_LABEL, kCommon},
    {"a column value that 1 % of the rows have", 1, QX_FILTER_COLUMN, kRare},
};

// Labels and one column for all rows, in base order.
void attach_metadata(const ChangedBase& base, Random& random) {
  Ids ids = base.absl.base_ids;
  ids.insert(ids.end(), base.inserted.begin(), base.inserted.end());
  const Ids labels(ids.size(), kCommon);
  Ids values(ids.size());
  for (std::int64_t& value : values) value = random.below(100) == 0 ? kRare : kCommon;
  qx_index_set_rowmeta(base.index.get(), ids.data(), labels.data(), values.data(), 1,
                       count32_of(ids));
}

void run_filtered(Run& run) {
  Random random(5);
  const std::int64_t rows = run.pick(1000000, 400000);
  for (const double changed_percent : {0.0, 1.0}) {
    ChangedBase base(permuted_ids(rows, random), kDim, random);
    base.change(changed_percent / 100, random);
    attach_metadata(base, random);
    for (const Filter& filter : kFilters) {
      Queries queries(kDim, random);
      Slots slots;
      Contestants contestants = {
          {"qx_runtime", Role::kEngine,
           [&] {
             return qx_index_search_filtered(base.index.get(), filter.mode, 0, filter.value,
                                             queries.next(), slots.k, slots.ids.data(),
                                             slots.scores.data());
           }},
          {"exact search of the base", Role::kBaseline,
           [&] { return slots.search_full(base.index.get(), queries.next()); }}};
      const std::int64_t bytes = rows * kDim * 4;
      add_read_limits(contestants, base_vectors(base.index), bytes);
      run.compare({{"filter", filter.name},
                   {"passing", filter.passing_percent},
                   {"changed", changed_percent}},
                  bytes, rows, contestants);
    }
  }
}

}  // namespace

const Section kFiltered = {"filtered", "filtered search, against the exact search of the base",
                           run_filtered};

}  // namespace bench
