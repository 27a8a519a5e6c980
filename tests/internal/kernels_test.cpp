// Every kernel on guarded memory, for every dimension and block size: its scores against the
// numeric contract, written out as a plain loop, its estimates against the exact sum, from which
// they are never further away than kernels.h states, and its comparison and compression against
// plain ones.
#include "kernels/kernels.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <vector>

#include "internal/every_kernel.h"
#include "internal/sums.h"
#include "support/guarded.h"
#include "support/random.h"

namespace qx_test {
namespace {

using Floats = std::vector<float>;
using Counts = std::vector<std::int64_t>;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kMax = std::numeric_limits<float>::max();

// A query, and rows for it.
struct Drawn {
  std::int64_t dim;
  std::int64_t count;
  Floats query;
  Floats rows;

  float* row(std::int64_t i) { return rows.data() + i * dim; }
};

// Row counts around every multiple of a group of rows that a kernel may use.
const Counts kCounts = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  11, 12, 13, 15,
                        16, 17, 23, 24, 25, 31, 32, 33, 47, 48, 49, 63, 64, 65};

// Values of every kind, in dimensions up to 300.
Drawn draw_any(Random& random, std::int64_t dim) {
  const auto kind = static_cast<Values>(dim % 5);
  Drawn drawn{dim, kCounts.back(), draw_floats(random, kind, dim), {}};
  drawn.rows = draw_floats(random, kind, kCounts.back() * dim);
  return drawn;
}

const Counts kHardCounts = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                            12, 13, 14, 15, 16, 17, 18, 19, 20, 43, 192};

// Every dimension up to `last`, and those around which a kernel may choose another function.
Counts dims_up_to(std::int64_t last, const Counts& more = {}) {
  Counts dims;
  for (std::int64_t dim = 0; dim <= last; ++dim) dims.push_back(dim);
  dims.insert(dims.end(), more.begin(), more.end());
  return dims;
}
const Counts kHardDims = dims_up_to(
    300, {510, 511, 512, 513, 639, 640, 641, 768, 1000, 1024, 1536, 2047, 2048, 2049, 4096});

// A number of either sign with a random mantissa and an exponent from low to high.
float scaled(Random& random, int low, int high) {
  const float mantissa = 1.0f + static_cast<float>(random.between(0, (1 << 23) - 1)) * 0x1p-23f;
  const float value = std::ldexp(mantissa, static_cast<int>(random.between(low, high)));
  return random.percent(50) ? value : -value;
}

float either_zero(Random& random) { return random.percent(50) ? 0.0f : -0.0f; }

constexpr int kQueryKinds = 6;
float draw_query_float(Random& random, int kind) {
  if (kind == 0) return 1.0f;
  if (kind == 1) return scaled(random, -100, 50);
  if (kind == 2) return scaled(random, -149, -127);
  if (kind == 3) return scaled(random, 0, 0);
  if (kind == 4) return random.percent(30) ? either_zero(random) : scaled(random, -3, 3);
  return std::abs(scaled(random, -1, 0));
}

// Rows that are hard on sums; twice the sum of their products' magnitudes is finite.
constexpr int kRowKinds = 7;
void draw_hard_row(Random& random, int kind, const Floats& query, float* row) {
  const std::int64_t dim = std::ssize(query);
  float large = 0;
  for (std::int64_t j = 0; j < dim; ++j) {
    const float q = query.data()[j];
    if (kind == 0) row[j] = scaled(random, -140, 60);
    if (kind == 1) row[j] = scaled(random, -149, -120);
    if (kind == 2) row[j] = std::copysign(scaled(random, 0, 0), q);  // no product is below 0
    if (kind == 3) {  // products in pairs that nearly cancel
      if (j % 2 == 0) large = scaled(random, 0, 20);
      row[j] = (j % 2 == 0 ? large : -large) / (std::abs(q) < 0x1p-40f ? 1.0f : q);
    }
    // A large product, to which half a unit in the last place is added again and again.
    if (kind == 4) row[j] = j == 0 ? 0x1p+24f : 1.0f;
    // Two large products that cancel, beside which small ones are rounded away.
    if (kind == 5) row[j] = j == 0 ? 0x1p+30f : j == dim - 1 ? -0x1p+30f : scaled(random, -2, 6);
    if (kind == 6) row[j] = random.percent(70) ? either_zero(random) : scaled(random, -149, 0);
  }
}

Drawn draw_hard(Random& random, std::int64_t dim) {
  Drawn drawn{
      dim, kHardCounts.back(), {}, Floats(static_cast<std::size_t>(kHardCounts.back() * dim))};
  for (std::int64_t j = 0; j < dim; ++j) {
    drawn.query.push_back(draw_query_float(random, static_cast<int>(dim % kQueryKinds)));
  }
  for (std::int64_t i = 0; i < kHardCounts.back(); ++i) {
    draw_hard_row(random, static_cast<int>(i % kRowKinds), drawn.query, drawn.row(i));
  }
  return drawn;
}

Edge any_edge(Random& random) { return random.percent(50) ? Edge::kEnd : Edge::kStart; }

class EveryKernel : public OfAKernel {
 protected:
  using Draw = Drawn (*)(Random&, std::int64_t);

  // How near to the bound the sums came.
  double widest_estimate_ = 0;
  double widest_score_ = 0;
  bool all_bounded_ = true;

  // Draws rows of each dimension, and calls check(drawn, query) for them.
  template <typename Check>
  void for_each_dim(const Counts& dims, Draw draw, Check check) {
    for (const std::int64_t dim : dims) {
      Drawn drawn = draw(random_, dim);
      query_.assign(drawn.query, any_edge(random_));
      answers_.clear();
      for (std::int64_t i = 0; i < drawn.count; ++i) {
        answers_.emplace_back(drawn.row(i), drawn.query.data(), dim);
        all_bounded_ &= answers_.back().bounded();
        note_width(answers_.back().score(), answers_.back(), &widest_score_);
      }
      ASSERT_NO_FATAL_FAILURE(check(drawn));
    }
  }

  void expect_contiguous(const Counts& dims, Draw draw, const Counts& counts) {
    for_each_dim(dims, draw, [&](Drawn& drawn) {
      for (const std::int64_t count : counts) {
        rows_.assign(Floats(drawn.row(0), drawn.row(count)), any_edge(random_));
        for (const qx::CacheLevel level : kLevels) {
          clear(count);
          GetParam()->score_contiguous(rows_.data(), count, drawn.dim, query_.data(), level,
                                       scores_.data());
          GetParam()->estimate_contiguous(rows_.data(), count, drawn.dim, query_.data(), level,
                                          estimates_.data());
          ASSERT_NO_FATAL_FAILURE(expect_answers(drawn.dim, [](std::size_t i) { return i; }));
        }
      }
    });
  }

  // Rows that each end, or start, at an unmapped page.
  void expect_scattered(const Counts& dims, Draw draw, const Counts& counts) {
    constexpr std::int64_t kPlaces = std::int64_t{2} * kRowKinds;
    Guarded<float> places[kPlaces];
    Guarded<const float*> addresses;
    for_each_dim(dims, draw, [&](Drawn& drawn) {
      for (std::int64_t i = 0; i < kPlaces; ++i) {
        places[i].assign(Floats(drawn.row(i), drawn.row(i + 1)),
                         i < kRowKinds ? Edge::kEnd : Edge::kStart);
      }
      for (const std::int64_t count : counts) {
        std::vector<const float*> rows;
        std::vector<std::size_t> placed;
        for (std::int64_t i = 0; i < count; ++i) {
          placed.push_back(static_cast<std::size_t>(random_.between(0, kPlaces - 1)));
          rows.push_back(places[placed.back()].data());
        }
        addresses.assign(rows, any_edge(random_));
        clear(count);
        GetParam()->score_scattered(addresses.data(), count, drawn.dim, query_.data(),
                                    scores_.data());
        GetParam()->estimate_scattered(addresses.data(), count, drawn.dim, query_.data(),
                                       estimates_.data());
        ASSERT_NO_FATAL_FAILURE(
            expect_answers(drawn.dim, [&](std::size_t i) { return placed[i]; }));
      }
    });
  }

  void clear(std::int64_t count) {
    scores_.assign(Floats(static_cast<std::size_t>(count), 7.0f));
    estimates_.assign(scores_.values());
  }

  template <typename RowOf>
  void expect_answers(std::int64_t dim, RowOf row_of) {
    for (std::size_t i = 0; i < scores_.size(); ++i) {
      const RowAnswers& row = answers_[row_of(i)];
      ASSERT_TRUE(row.is_score(scores_[i]))
          << "dim " << dim << ", row " << i << " of " << scores_.size() << ": " << scores_[i]
          << " instead of " << row.score();
      ASSERT_TRUE(row.is_estimate(estimates_[i]))
          << "dim " << dim << ", row " << i << " of " << scores_.size() << ": " << estimates_[i];
      note_width(estimates_[i], row, &widest_estimate_);
    }
    ASSERT_TRUE(scores_.margins_intact() && estimates_.margins_intact());
  }

  static void note_width(float value, const RowAnswers& row, double* widest) {
    if (!row.bounded() || !(row.exact().magnitudes() > 0x1p-80)) return;
    *widest = std::max(*widest, row.exact().distance(value) / row.exact().bound());
  }

  Random random_{11};
  Guarded<float> rows_;
  Guarded<float> query_;
  Guarded<float> scores_;
  Guarded<float> estimates_;
  std::vector<RowAnswers> answers_;
};

TEST_P(EveryKernel, ScoresContiguousRowsByTheContract) {
  expect_contiguous(dims_up_to(300), draw_any, kCounts);
}

TEST_P(EveryKernel, ScoresScatteredRowsByTheContract) {
  expect_scattered(dims_up_to(300), draw_any, kCounts);
}

// The rows are as hard as meant: a score loses nearly all that the bound grants, and an estimate,
// which has a share of the additions in each chain, a share of it.
TEST_P(EveryKernel, EstimatesContiguousRowsWithinTheBound) {
  expect_contiguous(kHardDims, draw_hard, kHardCounts);
  EXPECT_TRUE(all_bounded_);
  EXPECT_GT(widest_score_, 0.95);
  EXPECT_LE(widest_score_, 1);
  EXPECT_GT(widest_estimate_, 0.05);
}

TEST_P(EveryKernel, EstimatesScatteredRowsWithinTheBound) {
  expect_scattered(kHardDims, draw_hard, kHardCounts);
  EXPECT_TRUE(all_bounded_);
  EXPECT_GT(widest_estimate_, 0.05);
}

// Where a NaN may stand: everywhere in a short row, around the ends and multiples of a long one.
Counts nan_positions(std::int64_t dim) {
  Counts positions;
  for (std::int64_t at = 0; at < dim; ++at) {
    if (dim <= 80 || at < 3 || at >= dim - 18 || at % 61 == 0) positions.push_back(at);
  }
  return positions;
}

TEST_P(EveryKernel, EstimatesARowWithANaNAsANaNWhereverItStands) {
  constexpr std::int64_t kRows = 13;
  for (const std::int64_t dim : kHardDims) {
    if (dim > 80 && dim % 7 != 0 && dim % 64 > 1) continue;
    const Floats query = draw_floats(random_, Values::kTies, dim);  // many zeros
    Floats rows = draw_floats(random_, Values::kSmooth, kRows * dim);
    for (const std::int64_t at : nan_positions(dim)) {
      const std::int64_t spoiled = random_.between(0, kRows - 1);
      float& component = rows.data()[spoiled * dim + at];
      const float whole = component;
      component = random_.percent(50) ? kNaN : -kNaN;
      rows_.assign(rows);
      std::vector<const float*> scattered;
      for (std::int64_t i = 0; i < kRows; ++i) scattered.push_back(rows_.data() + i * dim);
      const auto expect_one_nan = [&](const char* way) {
        for (std::int64_t i = 0; i < kRows; ++i) {
          ASSERT_EQ(std::isnan(estimates_.data()[i]), i == spoiled)
              << way << ", dim " << dim << ", position " << at << ", row " << i;
        }
      };
      for (const qx::CacheLevel level : kLevels) {
        clear(kRows);
        GetParam()->estimate_contiguous(rows_.data(), kRows, dim, query.data(), level,
                                        estimates_.data());
        ASSERT_NO_FATAL_FAILURE(expect_one_nan("contiguous"));
      }
      clear(kRows);
      GetParam()->estimate_scattered(scattered.data(), kRows, dim, query.data(), estimates_.data());
      ASSERT_NO_FATAL_FAILURE(expect_one_nan("scattered"));
      component = whole;
    }
  }
}

// Few rows, and enough for every group of rows that a kernel scores side by side; a base of them
// has no storage. The undefined-behaviour sanitizer of clang sees arithmetic on the null pointer.
TEST_P(EveryKernel, ComputesNoAddressFromRowsOfNoElements) {
  for (const std::int64_t count : {5, 200}) {
    const std::vector<const float*> addresses(static_cast<std::size_t>(count), nullptr);
    const auto expect_zeros = [&](auto score, auto estimate) {
      clear(count);
      score(scores_.data());
      estimate(estimates_.data());
      EXPECT_TRUE(scores_.equals(Floats(scores_.size(), 0.0f)));  // positive zeros
      EXPECT_EQ(estimates_.values(), Floats(scores_.size(), 0.0f));
    };
    for (const qx::CacheLevel level : kLevels) {
      expect_zeros(
          [&](float* out) { GetParam()->score_contiguous(nullptr, count, 0, nullptr, level, out); },
          [&](float* out) {
            GetParam()->estimate_contiguous(nullptr, count, 0, nullptr, level, out);
          });
    }
    expect_zeros(
        [&](float* out) { GetParam()->score_scattered(addresses.data(), count, 0, nullptr, out); },
        [&](float* out) {
          GetParam()->estimate_scattered(addresses.data(), count, 0, nullptr, out);
        });
  }
}

TEST_P(EveryKernel, RoundsOnceInEachStep) {
  // 1 + 2^-12, squared, minus its own rounding: only a fused step keeps the last bit.
  const float a = 1.0f + 0x1p-12f;
  const Floats row = {-(1.0f + 0x1p-11f), a};
  const Floats query = {1.0f, a};
  float score = 0.0f;
  GetParam()->score_contiguous(row.data(), 1, 2, query.data(), qx::CacheLevel::kL2, &score);
  EXPECT_EQ(score, 0x1p-24f);
}

TEST_P(EveryKernel, CompressesTheSelectedNumbersAndTouchesNoOther) {
  Guarded<std::int64_t> numbers;
  for (int round = 0; round < 3000; ++round) {
    const std::int64_t count = random_.between(0, 64);
    const int percent = random_.between32(0, 100);
    std::vector<std::int64_t> drawn;
    std::vector<std::int64_t> expected;
    std::uint64_t mask = 0;
    for (std::int64_t i = 0; i < count; ++i) {
      drawn.push_back(static_cast<std::int64_t>(random_.bits()));
      // The last one is selected: no number follows it.
      if (i + 1 < count && !random_.percent(percent)) continue;
      mask |= std::uint64_t{1} << i;
      expected.push_back(drawn.back());
    }
    numbers.assign(drawn, any_edge(random_));
    Guarded<std::int64_t> out(expected.size(), -7);
    GetParam()->compress(numbers.data(), mask, std::ssize(expected), out.data());
    ASSERT_TRUE(out.equals(expected) && out.margins_intact()) << "mask " << mask;
  }
}

void expect_mask(const qx::Kernels& kernels, const Floats& values, float limit) {
  std::uint64_t expected = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!(values[i] < limit)) expected |= std::uint64_t{1} << i;
  }
  const Guarded<float> numbers(values, values.size() % 2 == 0 ? Edge::kEnd : Edge::kStart);
  ASSERT_EQ(kernels.mask_not_less(numbers.data(), std::ssize(values), limit), expected)
      << values.size() << " numbers, limit " << limit;
}

TEST_P(EveryKernel, MarksTheNumbersThatAreNotLess) {
  const Floats limits = {
      0.0f,  -0.0f, 1.0f,       -1.0f,     kMax,
      -kMax, kNaN,  -kInfinity, kInfinity, std::numeric_limits<float>::denorm_min()};
  for (const float limit : limits) {
    const Floats choices = {limit,
                            std::nextafter(limit, kInfinity),
                            std::nextafter(limit, -kInfinity),
                            0.0f,
                            -0.0f,
                            kNaN,
                            -kNaN,
                            kInfinity,
                            -kInfinity,
                            -kMax,
                            static_cast<float>(random_.between(-3, 3))};
    for (std::size_t count = 0; count <= 64; ++count) {
      for (int draw = 0; draw < 8; ++draw) {
        Floats values(count);
        for (float& value : values) value = random_.any_of(choices);
        ASSERT_NO_FATAL_FAILURE(expect_mask(*GetParam(), values, limit));
      }
    }
  }
}

TEST_P(EveryKernel, MarksTheOneNumberThatIsNotLessAtEveryPosition) {
  for (std::size_t count = 1; count <= 64; ++count) {
    for (std::size_t at = 0; at < count; ++at) {
      for (const float found : {2.0f, kNaN, kInfinity}) {
        Floats values(count, std::nextafter(2.0f, 0.0f));
        values[at] = found;
        ASSERT_NO_FATAL_FAILURE(expect_mask(*GetParam(), values, 2.0f));
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, EveryKernel, testing::ValuesIn(listed_kernels()), kernel_name);

TEST(Dispatch, EndsItsListWithThePortableKernelWhichRunsEverywhere) {
  EXPECT_STREQ(listed_kernels().back()->name, "portable");
  EXPECT_TRUE(listed_kernels().back()->supported());
}

TEST(Dispatch, ChoosesTheFirstKernelOfTheListThatRunsHere) {
  ASSERT_TRUE(qx::force_kernels(nullptr));
  const std::vector<const qx::Kernels*> listed = listed_kernels();
  EXPECT_EQ(&qx::kernels(), *std::find_if(listed.begin(), listed.end(),
                                          [](const auto* kernel) { return kernel->supported(); }));
}

TEST(Dispatch, ForcesTheKernelsThatRunHereByNameAndNoOther) {
  for (const qx::Kernels* kernel : listed_kernels()) {
    EXPECT_EQ(qx::force_kernels(kernel->name), kernel->supported()) << kernel->name;
  }
  for (const char* unknown : {"abacus", ""}) {
    EXPECT_FALSE(qx::force_kernels(unknown));
    EXPECT_EQ(&qx::kernels(), listed_kernels().back());  // the one forced last
  }
  ASSERT_TRUE(qx::force_kernels(nullptr));
}

}  // namespace
}  // namespace qx_test
