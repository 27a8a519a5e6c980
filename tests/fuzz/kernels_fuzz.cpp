// Bytes choose a kernel, rows and a query, on guarded memory. Scores must have the bits of the
// numeric contract, estimates must be within their bound, comparing and compressing must be exact.
#include <algorithm>
#include <bit>
#include <vector>

#include "fuzz/target.h"
#include "internal/sums.h"
#include "kernels/kernels.h"
#include "support/guarded.h"
#include "support/random.h"

namespace {

using qx::Kernels;
using qx_test::Edge;
using qx_test::Guarded;
using qx_test::Random;
using qx_test::require;
using qx_test::Values;
using Floats = std::vector<float>;

constexpr std::int64_t kMostFloats = 20000;

std::vector<const Kernels*> kernels_that_run() {
  std::vector<const Kernels*> run;
  for (const Kernels* const* next = qx::all_kernels(); *next != nullptr; ++next) {
    if ((*next)->supported()) run.push_back(*next);
  }
  return run;
}

Edge draw_edge(Random& random) { return random.percent(50) ? Edge::kEnd : Edge::kStart; }

Floats draw_array(Random& random, std::int64_t count) {
  const auto kind = static_cast<Values>(random.between(0, 5));
  return draw_floats(random.for_array(count), kind, count);
}

struct Rows {
  std::int64_t count;
  std::int64_t dim;
  qx::CacheLevel level;
};

void play_rows(Random& random, const Kernels& kernels, const Rows& shape, bool contiguous) {
  const Guarded<float> query(draw_array(random, shape.dim), draw_edge(random));
  // All rows in one place, or each at one of several that end or begin at an unmapped page.
  Guarded<float> places[4];
  for (Guarded<float>& place : places) {
    const Edge edge = draw_edge(random);
    place.assign(draw_array(random, contiguous ? shape.count * shape.dim : shape.dim), edge);
    if (contiguous) break;
  }
  std::vector<const float*> addresses;
  for (std::int64_t i = 0; i < shape.count; ++i) {
    addresses.push_back(contiguous ? places[0].data() + i * shape.dim
                                   : places[random.between(0, std::ssize(places) - 1)].data());
  }
  const Guarded<const float*> rows(addresses);
  Guarded<float> scores(addresses.size(), 7.0f, draw_edge(random));
  Guarded<float> estimates(addresses.size(), 7.0f, draw_edge(random));
  if (contiguous) {
    kernels.score_contiguous(places[0].data(), shape.count, shape.dim, query.data(), shape.level,
                             scores.data());
    kernels.estimate_contiguous(places[0].data(), shape.count, shape.dim, query.data(), shape.level,
                                estimates.data());
  } else {
    kernels.score_scattered(rows.data(), shape.count, shape.dim, query.data(), scores.data());
    kernels.estimate_scattered(rows.data(), shape.count, shape.dim, query.data(), estimates.data());
  }
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    const qx_test::RowAnswers answers(addresses[i], query.data(), shape.dim);
    require(answers.is_score(scores[i]), "a score");
    require(answers.is_estimate(estimates[i]), "an estimate outside its bound, or that is no NaN");
  }
  require(scores.margins_intact() && estimates.margins_intact(), "written outside of the outputs");
}

void play_comparison(Random& random, const Kernels& kernels) {
  const std::int64_t count = random.between(0, 64);
  const Guarded<float> numbers(draw_array(random, count), draw_edge(random));
  const float limit = random.percent(50) && count > 0
                          ? numbers[static_cast<std::size_t>(random.between(0, count - 1))]
                          : draw_array(random, 1)[0];
  std::uint64_t expected = 0;
  for (std::int64_t i = 0; i < count; ++i) {
    if (!(numbers[static_cast<std::size_t>(i)] < limit)) expected |= std::uint64_t{1} << i;
  }
  require(kernels.mask_not_less(numbers.data(), count, limit) == expected, "a comparison");
}

void play_compression(Random& random, const Kernels& kernels) {
  const std::uint64_t mask = random.bits();
  const auto numbers_needed = static_cast<std::int64_t>(std::bit_width(mask));
  std::vector<std::int64_t> drawn;
  std::vector<std::int64_t> expected;
  Random& source = random.for_array(numbers_needed);
  for (std::int64_t i = 0; i < numbers_needed; ++i) {
    drawn.push_back(static_cast<std::int64_t>(source.bits()));
    if ((mask >> i & 1) != 0) expected.push_back(drawn.back());
  }
  const Guarded<std::int64_t> numbers(drawn, draw_edge(random));
  Guarded<std::int64_t> out(expected.size(), -7, draw_edge(random));
  kernels.compress(numbers.data(), mask, std::ssize(expected), out.data());
  require(out.equals(expected) && out.margins_intact(), "the compressed numbers");
}

void play(Random& random) {
  static const std::vector<const Kernels*> run = kernels_that_run();
  const Kernels& kernels = *random.any_of(run);
  const std::int64_t way = random.between(0, 3);
  if (way == 2) return play_comparison(random, kernels);
  if (way == 3) return play_compression(random, kernels);
  const std::int64_t dim = random.percent(80) ? random.between(0, 70) : random.between(0, 2100);
  const std::int64_t most =
      std::min<std::int64_t>(200, kMostFloats / std::max<std::int64_t>(dim, 1));
  const Rows shape = {random.between(0, most), dim,
                      static_cast<qx::CacheLevel>(random.between(0, 2))};
  play_rows(random, kernels, shape, way == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  Random random{std::span(bytes, count)};
  for (int calls = 0; calls < 8 && !random.exhausted(); ++calls) play(random);
  return 0;
}
