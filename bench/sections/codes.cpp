// Exact search with codes beside the same library without them: for rows that look like those of
// hosts, and for rows that are made to defeat codes.
#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "kernels/kernels.h"
#include "limits/limits.h"
#include "read/pruner.h"
#include "sections/sections.h"

namespace bench {
namespace {

// About normal: the sum of four numbers of 16 bits each, less its mean.
float bell(Random& random) {
  std::uint64_t bits = random.bits();
  std::int64_t sum = 0;
  for (int i = 0; i < 4; ++i, bits >>= 16) sum += static_cast<std::int64_t>(bits & 0xFFFF);
  return static_cast<float>(sum - 2 * 65535) * 0x1p-15f;
}

using Fill = void (*)(Floats& values, std::int64_t dim, Random& random);

void fill_bell(Floats& values, std::int64_t /*dim*/, Random& random) {
  for (std::int64_t i = 0; i < values.count(); ++i) values.data()[i] = bell(random);
}

// Rows about one of a hundred centres.
void fill_clustered(Floats& values, std::int64_t dim, Random& random) {
  constexpr std::int64_t kCentres = 100;
  Floats centres(kCentres * dim);
  fill_bell(centres, dim, random);
  for (std::int64_t row = 0; row < values.count() / dim; ++row) {
    const float* const centre = centres.data() + random.below(kCentres) * dim;
    for (std::int64_t j = 0; j < dim; ++j) {
      values.data()[row * dim + j] = centre[j] + 0.3f * bell(random);
    }
  }
}

void fill_equal(Floats& values, std::int64_t dim, Random& random) {
  Floats row(dim);
  fill_bell(row, dim, random);
  for (std::int64_t i = 0; i < values.count(); ++i) values.data()[i] = row.data()[i % dim];
}

// One component of each row is a thousand times as large, and takes all of its codes.
void fill_huge(Floats& values, std::int64_t dim, Random& random) {
  fill_bell(values, dim, random);
  for (std::int64_t row = 0; row < values.count() / dim; ++row) {
    values.data()[row * dim + random.below(dim)] *= 1000;
  }
}

void fill_offset(Floats& values, std::int64_t dim, Random& random) {
  fill_bell(values, dim, random);
  for (std::int64_t i = 0; i < values.count(); ++i) values.data()[i] += 100;
}

void fill_with_nans(Floats& values, std::int64_t dim, Random& random) {
  fill_bell(values, dim, random);
  for (std::int64_t row = 0; row < values.count() / dim; row += 32) {
    values.data()[row * dim + random.below(dim)] = std::numeric_limits<float>::quiet_NaN();
  }
}

// Each row is better than all before it, for queries that are above 0 in sum.
void fill_best_last(Floats& values, std::int64_t dim, Random& random) {
  fill_bell(values, dim, random);
  const auto rows = static_cast<float>(values.count() / dim);
  for (std::int64_t i = 0; i < values.count(); ++i) {
    values.data()[i] = values.data()[i] * 0x1p-6f + static_cast<float>(i / dim) / rows;
  }
}

struct Data {
  const char* name;
  Fill fill;
  std::int64_t dim;
  std::vector<std::int64_t> ks;
};

void run_case(Run& run, const char* set, const Data& data, const Index& index, const Floats& values,
              std::int64_t k) {
  Random random(static_cast<std::uint64_t>(k));
  const std::int64_t rows = values.count() / data.dim;
  Queries queries(data.dim, random);
  Slots coded(k);
  Slots plain(k);
  const auto choose = [](const char* judge) {
    return [judge] { require(qx::force_judge(judge), "a judge has that name"); };
  };
  choose("estimates")();
  plain.search_full(index.get(), queries.first());
  choose(nullptr)();
  coded.search_full(index.get(), queries.first());
  require(coded.ids == plain.ids && coded.scores == plain.scores, "codes change no result");
  Contestants contestants = {
      {"qx_runtime", Role::kEngine, [&] { return coded.search_full(index.get(), queries.next()); },
       choose(nullptr)},
      {"without codes", Role::kBaseline,
       [&] { return plain.search_full(index.get(), queries.next()); }, choose("estimates")}};
  const std::int64_t bytes = values.count() * std::int64_t{sizeof(float)};
  add_read_limits(contestants, base_vectors(index), bytes);
  run.compare({{"set", set}, {"rows", data.name}, {"dim", data.dim}, {"k", k}}, bytes, rows,
              contestants);
  choose(nullptr)();
}

void run_set(Run& run, const char* set, std::int64_t megabytes, const std::vector<Data>& all) {
  for (const Data& data : all) {
    Random random(7);
    const std::int64_t rows = (megabytes << 20) / (4 * data.dim);
    Floats values(rows * data.dim);
    data.fill(values, data.dim, random);
    const Index index = built_index(values.data(), ascending_ids(rows), data.dim);
    for (const std::int64_t k : data.ks) run_case(run, set, data, index, values, k);
  }
}

void run_codes(Run& run) {
  run_set(run, "L3", 12,
          {{"normal", fill_bell, 128, {10, 100, 1000}}, {"normal", fill_bell, 768, {10, 100}}});
  run_set(run, "DRAM", run.pick(400, 128),
          {{"normal", fill_bell, 128, {1, 10, 100, 1000}},
           {"clustered", fill_clustered, 768, {10, 100}},
           {"all equal", fill_equal, 128, {10}},
           {"one huge component", fill_huge, 128, {10}},
           {"100 added", fill_offset, 128, {10}},
           {"a NaN in every 32nd", fill_with_nans, 128, {10}},
           {"best last", fill_best_last, 128, {10}}});
}

}  // namespace

const Section kCodes = {"codes", "exact search with codes and without", run_codes};

}  // namespace bench
