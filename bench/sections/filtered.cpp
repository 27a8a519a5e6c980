// Filtered search, against the exact search of the same base.
#include <string>
#include <vector>

#include "harness/base_bytes.h"
#include "harness/changes.h"
#include "limits/read.h"
#include "peers/absl_index.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kDim = 128;
constexpr std::int32_t kResults = 10;
constexpr std::int64_t kCommon = 1;  // the label of every row
constexpr std::int64_t kRare = 2;    // column 0 of one row in a hundred

constexpr std::uint32_t kEveryRow = 0;
constexpr std::uint32_t kByLabel = 1;
constexpr std::uint32_t kByColumn = 2;

struct Filter {
  const char* name;
  int passing_percent;
  std::uint32_t mode;
  std::int64_t value;
};

constexpr Filter kFilters[] = {
    {"no test", 100, kEveryRow, 0},
    {"a label that all rows have", 100, kByLabel, kCommon},
    {"a column value that 1 % of the rows have", 1, kByColumn, kRare},
};

// Labels and one column for all rows, in base order.
void attach_metadata(const Ids& ids, QxIndex* index, Random& random) {
  const Ids labels(ids.size(), kCommon);
  Ids values(ids.size());
  for (std::int64_t& value : values) value = random.below(100) == 0 ? kRare : kCommon;
  qx_index_set_rowmeta(index, ids.data(), labels.data(), values.data(), 1, count32_of(ids));
}

void run_case(const Settings& settings, Results& results, std::int64_t rows, const QxIndex* index,
              const Filter& filter, double changed_percent) {
  Random random(6);
  Queries queries(kDim, random);
  std::int64_t ids[kResults];
  float scores[kResults];
  std::vector<Contestant> contestants = {
      {"qx_runtime", Role::kEngine,
       [&] {
         consume(qx_index_search_filtered(index, filter.mode, 0, filter.value, queries.next(),
                                          kResults, ids, scores));
       }},
      {"exact search of the base", Role::kBaseline,
       [&] { consume(qx_index_search_full(index, queries.next(), kResults, ids, scores)); }}};
  const std::int64_t bytes = rows * kDim * 4;
  add_read_limits(contestants, base_vectors(index), static_cast<std::size_t>(bytes));
  const Labels labels = {{"filter", filter.name},
                         {"passing", std::int64_t{filter.passing_percent}},
                         {"changed", changed_percent}};
  compare(settings, results, {"filtered", labels, bytes, rows}, contestants);
}

}  // namespace

void run_filtered(const Settings& settings, Results& results) {
  Random random(5);
  const std::int64_t rows = settings.pick(1000000, 400000);
  const Floats vectors = random_floats(rows * kDim, random);
  const Ids base_ids = permuted_ids(rows, random);
  for (const double changed_percent : {0.0, 1.0}) {
    const Index index = built_index(vectors.data(), base_ids, kDim);
    const Changes changes = draw_changes(base_ids, changed_percent / 100, random);
    AbslIndex unused;
    apply_changes(changes, index.get(), unused, kDim, random);
    Ids with_metadata = base_ids;
    for (const std::int64_t id : changes.inserted) with_metadata.push_back(id);
    attach_metadata(with_metadata, index.get(), random);
    for (const Filter& filter : kFilters) {
      run_case(settings, results, rows, index.get(), filter, changed_percent);
    }
  }
}

}  // namespace bench
