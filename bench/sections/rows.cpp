#include "sections/rows.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <numeric>
#include <utility>

#include "read/pruner.h"

namespace bench {
namespace {

// About normal: the sum of four numbers of 16 bits each, less its mean.
float bell(Random& random) {
  std::uint64_t bits = random.bits();
  std::int64_t sum = 0;
  for (int i = 0; i < 4; ++i, bits >>= 16) sum += static_cast<std::int64_t>(bits & 0xFFFF);
  return static_cast<float>(sum - std::int64_t{2} * 65535) * 0x1p-15f;
}

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
  const std::int64_t rows = values.count() / dim;
  for (std::int64_t i = 0; i < values.count(); ++i) {
    const std::int64_t row = i / dim;
    values.data()[i] =
        values.data()[i] * 0x1p-6f + static_cast<float>(row) / static_cast<float>(rows);
  }
}

constexpr RowKind kHostile[] = {{"all equal", fill_equal},
                                {"one huge component", fill_huge},
                                {"100 added", fill_offset},
                                {"a NaN in every 32nd", fill_with_nans},
                                {"best last", fill_best_last}};

// A contestant's own slots, and its own turn of the queries: all meet the same ones.
struct Host {
  Slots slots;
  Queries queries;
  std::int64_t turn = 0;
};

bool same_bits(const Slots& one, const Slots& other) {
  return one.ids == other.ids && std::memcmp(one.scores.data(), other.scores.data(),
                                             one.scores.size() * sizeof(float)) == 0;
}

}  // namespace

const RowKind kNormal = {"normal", fill_bell};
const RowKind kClustered = {"clustered", fill_clustered};
std::span<const RowKind> hostile_kinds() { return kHostile; }

Floats rows_of(const RowKind& kind, std::int64_t bytes, std::int64_t dim) {
  Random random(7);
  Floats values(bytes / std::int64_t{sizeof(float)} / dim * dim);
  kind.fill(values, dim, random);
  return values;
}

std::string megabytes(std::int64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%g MB", static_cast<double>(bytes) / (1 << 20));
  return text;
}

Queries rising_queries(std::int64_t dim, std::int64_t k) {
  constexpr std::int64_t kAsked = 8;
  Random random(static_cast<std::uint64_t>(k));
  Floats values = random_floats(kAsked * dim, random);
  for (float* query = values.data(); query < values.data() + values.count(); query += dim) {
    if (std::accumulate(query, query + dim, 0.0f) >= 0) continue;
    std::transform(query, query + dim, query, std::negate<>());
  }
  return {dim, std::move(values)};
}

Contestants with_and_without_codes(const HostSearch& search, const Queries& queries,
                                   std::int64_t k) {
  const auto contestant = [&](const char* name, Role role, const char* judge) {
    const auto host = std::make_shared<Host>(Host{Slots(k), queries});
    const auto choose = [judge] { require(qx::force_judge(judge), "a judge has that name"); };
    const auto ask = [search, host] {
      search(host->slots, host->queries.next(), host->turn++);
      return host->slots.scores.front();
    };
    choose();
    ask();
    return std::pair(host, Contestant(name, role, ask, choose));
  };
  const auto [plain, without] = contestant("without codes", Role::kBaseline, "estimates");
  const auto [coded, with] = contestant("qx_runtime", Role::kEngine, nullptr);
  require(same_bits(coded->slots, plain->slots), "codes change no result");
  return {with, without};
}

Contestants with_and_without_codes(const Index& index, const Queries& queries, std::int64_t k) {
  return with_and_without_codes(
      [&index](Slots& slots, const float* query, std::int64_t /*turn*/) {
        slots.search_full(index.get(), query);
      },
      queries, k);
}

}  // namespace bench
