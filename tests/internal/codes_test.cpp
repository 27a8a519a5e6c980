// Codes: every kernel's on guarded memory and in the same bits, each term of the bound where it is
// as large as it can be, and bounds against scores for rows and queries of every kind.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "internal/coded_rows.h"
#include "internal/every_kernel.h"
#include "internal/scan_rows.h"
#include "internal/sums.h"
#include "read/coded_query.h"
#include "support/guarded.h"

namespace qx_test {
namespace {

using qx::CodeBits;
using qx::CodedQuery;
using qx::CodeNorms;
using Floats = std::vector<float>;
using Ids = std::vector<std::int64_t>;
using Bytes = std::vector<std::uint8_t>;

constexpr CodeBits kBits[] = {CodeBits::kFour, CodeBits::kEight};
constexpr std::int64_t kGroup = qx::kCodeGroupRows;
constexpr double kUnit = 0x1p-24;

// Dimensions around those at which a kernel changes its loads.
const Ids kDims = {1,  2,   3,   7,   8,   9,   15,  16,  17,  31,  32,  33,  48,  63,  64,   65,
                   96, 100, 127, 128, 129, 130, 191, 192, 255, 256, 257, 300, 511, 513, 1025, 8192};

// The levels of a query, component by component.
std::int32_t level(const CodedQuery& query, std::int64_t row_bytes, std::int64_t j) {
  return j < row_bytes ? query.levels[j] : query.levels[query.half_bytes + j - row_bytes];
}

// The bound, operation by operation as kernels/codes.h has it.
float written_out_bound(const Coded& coded, std::int64_t i, const CodedQuery& query,
                        CodeBits bits) {
  const auto stage = static_cast<std::size_t>(bits);
  std::int32_t sum = 0;
  for (std::int64_t j = 0; j < coded.dim; ++j) {
    sum += coded.code(i, j, bits) * level(query, coded.row_bytes, j);
  }
  const CodeNorms& norms = coded.norms.data()[i / kGroup];
  const float residual = norms.residual[stage] * query.residual_weight;
  const float spread = norms.spread * query.spread_weight;
  const float allowance = query.fixed[stage] + residual + spread;
  const float scaled = query.factor * static_cast<float>(sum);
  const float product = static_cast<float>(coded.step(i)) * (scaled + allowance);
  return product + static_cast<float>(coded.lo(i)) * query.query_sum;
}

bool same_bits(float a, float b) {
  const bool equal = std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
  return equal || (std::isnan(a) && std::isnan(b));
}

class EveryCode : public OfAKernel {};

TEST_P(EveryCode, HasTheSameBitsAsThePortableOne) {
  Random random(5000);
  for (const std::int64_t dim : kDims) {
    for (const Values kind : {Values::kSmooth, Values::kTies, Values::kSpecial, Values::kBits}) {
      const Floats rows = draw_floats(random, kind, 9 * dim);
      const Coded coded(*GetParam(), rows, dim);
      const Coded plain(*listed_kernels().back(), rows, dim);
      ASSERT_TRUE(coded.margins_intact());
      ASSERT_EQ(coded.high.values(), plain.high.values()) << "dim " << dim;
      ASSERT_EQ(coded.low.values(), plain.low.values()) << "dim " << dim;
      ASSERT_EQ(coded.constants.values(), plain.constants.values()) << "dim " << dim;
      for (std::size_t row = 0; row < 9; ++row) {
        using Bits = std::array<std::uint32_t, 3>;
        ASSERT_EQ(std::bit_cast<Bits>(coded.row_norms.data()[row]),
                  std::bit_cast<Bits>(plain.row_norms.data()[row]))
            << "dim " << dim;
      }
    }
  }
}

TEST_P(EveryCode, GivesTheBoundThatIsWrittenOut) {
  Random random(5001);
  for (const std::int64_t dim : kDims) {
    const std::int64_t count = dim > 1000 ? 40 : 109;
    Floats rows = draw_floats(random, Values::kSmooth, count * dim);
    rows[static_cast<std::size_t>(3 * dim)] = std::numeric_limits<float>::quiet_NaN();
    const Coded coded(*GetParam(), rows, dim);
    const Guarded<float> factors(draw_floats(random, Values::kSmooth, dim));
    CodedQuery query;
    ASSERT_TRUE(qx::code_query(factors.data(), dim, query));
    for (const CodeBits bits : kBits) {
      for (int draw = 0; draw < 12; ++draw) {
        const std::int64_t first = draw == 0 ? 0 : random.between(0, count - 1);
        const std::int64_t size = draw == 0 ? count : random.between(0, count - first);
        Guarded<float> bounds(Floats(static_cast<std::size_t>(size)));
        GetParam()->bound_contiguous(coded.view(), first, size, query, bits, bounds.data());
        Ids listed;
        for (std::int64_t i = 0; i < size; ++i) listed.push_back(random.between(0, count - 1));
        Guarded<float> scattered(Floats(static_cast<std::size_t>(size)));
        const Guarded<std::int64_t> numbers(listed);
        GetParam()->bound_scattered(coded.view(), numbers.data(), size, query, bits,
                                    scattered.data());
        ASSERT_TRUE(bounds.margins_intact() && scattered.margins_intact());
        for (std::int64_t i = 0; i < size; ++i) {
          ASSERT_TRUE(same_bits(bounds.data()[i], written_out_bound(coded, first + i, query, bits)))
              << "dim " << dim << ", row " << first + i;
          ASSERT_TRUE(
              same_bits(scattered.data()[i],
                        written_out_bound(coded, listed[static_cast<std::size_t>(i)], query, bits)))
              << "dim " << dim;
        }
      }
    }
  }
}

// The largest sums: no register of a kernel may overflow.
TEST_P(EveryCode, SumsTheLargestCodesAndLevels) {
  for (const std::int64_t dim : {std::int64_t{130}, std::int64_t{1026}, qx::kMaxCodedDim}) {
    Floats rows(static_cast<std::size_t>(2 * dim), 255.0f);
    rows[0] = rows[static_cast<std::size_t>(dim)] = 0;
    const Coded coded(*GetParam(), rows, dim);
    for (const float sign : {1.0f, -1.0f}) {
      const Floats factors(static_cast<std::size_t>(dim), sign);
      CodedQuery query;
      ASSERT_TRUE(qx::code_query(factors.data(), dim, query));
      ASSERT_EQ(query.levels[1], sign > 0 ? 127 : -127);
      for (const CodeBits bits : kBits) {
        float bounds[2];
        GetParam()->bound_contiguous(coded.view(), 0, 2, query, bits, bounds);
        ASSERT_TRUE(same_bits(bounds[1], written_out_bound(coded, 1, query, bits)));
      }
    }
  }
}

// No score exceeds its bound.
void expect_bounds(const qx::Kernels& kernel, const ScanRows& rows) {
  CodedQuery query;
  if (!qx::code_query(rows.query.data(), rows.width, query)) return;
  const Coded coded(kernel, rows.vectors, rows.width);
  for (const CodeBits bits : kBits) {
    Floats bounds(static_cast<std::size_t>(rows.count));
    kernel.bound_contiguous(coded.view(), 0, rows.count, query, bits, bounds.data());
    for (std::int64_t i = 0; i < rows.count; ++i) {
      const float score = contract_score(coded.row(i), rows.query.data(), rows.width);
      ASSERT_FALSE(
          bounds[static_cast<std::size_t>(i)] + static_cast<float>(rows.width) * 0x1p-120f < score)
          << "width " << rows.width << ", row " << i << ", bits " << static_cast<int>(bits);
    }
  }
}

TEST_P(EveryCode, BoundsTheScoresOfRowsOfEveryKind) {
  for (int family = 0; family < kFamilies; ++family) {
    Random random(static_cast<std::uint64_t>(5100 + family));
    for (int draw = 0; draw < 40; ++draw) {
      const std::int64_t width = random.between(2, draw % 8 == 0 ? 800 : 140);
      const ScanRows rows =
          draw_scan_rows(random, static_cast<Family>(family), width, random.between(2, 90));
      ASSERT_NO_FATAL_FAILURE(expect_bounds(*GetParam(), rows)) << "family " << family;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, EveryCode, testing::ValuesIn(listed_kernels()), kernel_name);

// ---- Each term, where it is as large as it can be ----

const qx::Kernels& plain() { return *listed_kernels().back(); }

float bound_of_row(const Coded& coded, std::int64_t i, const Floats& factors, CodeBits bits) {
  CodedQuery query;
  EXPECT_TRUE(qx::code_query(factors.data(), coded.dim, query));
  return written_out_bound(coded, i, query, bits);
}

// Expects a bound not below the exact product and the rounding of a chain, and little above it.
void expect_tight(float bound, const float* row, const Floats& factors, double slack) {
  const ExactSum exact(row, factors.data(), std::ssize(factors));
  double sum = 0;
  for (std::size_t j = 0; j < factors.size(); ++j) sum += double{row[j]} * double{factors[j]};
  EXPECT_GE(double{bound}, sum);
  EXPECT_LE(double{bound}, sum + slack);
}

// A query in the direction of what the codes of a row leave out: Cauchy-Schwarz is an equality.
TEST(ABound, HoldsAgainstAQueryAlongTheResidual) {
  Random random(5200);
  for (const std::int64_t dim : {16, 100, 384}) {
    for (const CodeBits bits : kBits) {
      const Coded coded(plain(), draw_floats(random, Values::kSmooth, dim), dim);
      Floats factors;
      double residual = 0;
      double norm = 0;
      for (std::int64_t j = 0; j < dim; ++j) {
        const double middle = bits == CodeBits::kFour ? 7.5 : 0;
        const double near = coded.lo(0) + coded.step(0) * (coded.code(0, j, bits) + middle);
        factors.push_back(static_cast<float>((coded.row(0)[j] - near) / coded.step(0)));
        residual += std::pow(coded.row(0)[j] - near, 2);
        norm += std::pow(factors.back(), 2);
      }
      // What the query's own error adds is a small part of this.
      CodedQuery query;
      ASSERT_TRUE(qx::code_query(factors.data(), dim, query));
      const double product = std::sqrt(residual * norm);
      const auto& norms = coded.norms.data()[0];
      const double by_residual = coded.step(0) * double{norms.residual[static_cast<int>(bits)]} *
                                 double{query.residual_weight};
      EXPECT_GE(by_residual, product);
      EXPECT_LE(by_residual, 1.02 * product) << "dim " << dim;
      expect_tight(written_out_bound(coded, 0, query, bits), coded.row(0), factors,
                   0.02 * product + 2.1 * coded.step(0) * double{query.spread_weight} *
                                        (double{norms.spread} + 8 * std::sqrt(dim)));
    }
  }
}

// Components at both ends of a row's range, chosen by the sign of what the levels of the query
// leave out, half a level each.
TEST(ABound, HoldsAgainstCodesAlongTheErrorOfTheQuery) {
  constexpr std::int64_t kWidth = 256;
  Random random(5201);
  Floats factors(kWidth);
  Floats row(kWidth);
  for (std::size_t j = 0; j < kWidth; ++j) {
    const bool up = random.percent(50);
    factors[j] = static_cast<float>(random.between(-60, 60)) + (up ? 0.498f : -0.498f);
    row[j] = up ? 255.0f : 0.0f;
  }
  factors[0] = 127;
  row[0] = 0;
  row[1] = 255;
  const Coded coded(plain(), row, kWidth);
  CodedQuery query;
  ASSERT_TRUE(qx::code_query(factors.data(), kWidth, query));
  ASSERT_EQ(query.factor, 1.0f);
  const float bound = written_out_bound(coded, 0, query, CodeBits::kEight);
  const double error = 127.5 * 0.498 * kWidth;
  expect_tight(bound, row.data(), factors, 0.02 * error);
}

// The norms that a row has, without rounding, and not much more.
TEST(ANorm, CoversTheRowAndTheRoundingsOfItsScore) {
  Random random(5202);
  for (const std::int64_t dim : kDims) {
    for (const Values kind : {Values::kSmooth, Values::kTies, Values::kCancelling}) {
      const Coded coded(plain(), draw_floats(random, kind, 5 * dim), dim);
      for (std::int64_t i = 0; i < 5; ++i) {
        if (std::isnan(coded.lo(i))) continue;
        double squares[3] = {};
        double length = 0;
        for (std::int64_t j = 0; j < dim; ++j) {
          const double in_steps = (coded.row(i)[j] - coded.lo(i)) / coded.step(i);
          squares[0] += std::pow(in_steps - coded.code(i, j, CodeBits::kFour) - 7.5, 2);
          squares[1] += std::pow(in_steps - coded.code(i, j, CodeBits::kEight), 2);
          squares[2] += std::pow(coded.code(i, j, CodeBits::kEight) - 127.5, 2);
          length += std::pow(coded.row(i)[j] / coded.step(i), 2);
        }
        const double e = static_cast<double>(dim) * kUnit;
        const double rounded = std::sqrt(length) * e / (1 - e);
        const CodeNorms& norms = coded.row_norms.data()[i];
        for (int bits = 0; bits < 2; ++bits) {
          ASSERT_GE(double{norms.residual[bits]}, std::sqrt(squares[bits]) + rounded) << dim;
        }
        ASSERT_GE(double{norms.spread}, std::sqrt(squares[2]) * (1 - 0x1p-40)) << dim;
        ASSERT_LE(double{norms.spread}, std::sqrt(squares[2]) * 1.003) << dim;
        ASSERT_LE(std::abs(coded.lo(i)), 1040 * coded.step(i));
      }
    }
  }
}

// The bound in doubles, without the share that is kept for its own roundings: where a large lo and
// a large sum cancel, they count most.
TEST(ABound, CoversItsOwnRoundings) {
  Random random(5203);
  double worst = -1;
  for (int draw = 0; draw < 3000; ++draw) {
    const std::int64_t dim = random.between(8, 40);
    const float centre = static_cast<float>(random.between(-1000, 1000));
    Floats row;
    Floats factors;
    for (std::int64_t j = 0; j < dim; ++j) {
      row.push_back(centre + draw_float(random, Values::kSmooth) * 0x1p-6f);
      factors.push_back(1 + draw_float(random, Values::kSmooth) * 0x1p-10f);
    }
    const Coded coded(plain(), row, dim);
    CodedQuery query;
    ASSERT_TRUE(qx::code_query(factors.data(), dim, query));
    for (const CodeBits bits : kBits) {
      double sum = 0;
      double query_sum = 0;
      double magnitudes = 0;
      double errors = 0;
      double squares = 0;
      double error_squares = 0;
      for (std::int64_t j = 0; j < dim; ++j) {
        const double q = factors[static_cast<std::size_t>(j)];
        const std::int32_t v = level(query, coded.row_bytes, j);
        const double error = q - double{query.factor} * v;
        sum += coded.code(0, j, bits) * v;
        query_sum += q;
        magnitudes += std::abs(q);
        errors += error;
        squares += q * q;
        error_squares += error * error;
      }
      const bool four = bits == CodeBits::kFour;
      const CodeNorms& norms = coded.norms.data()[0];
      const double fixed = four ? 7.5 * (query_sum - errors) + 127.5 * errors +
                                      7.5 * std::sqrt(static_cast<double>(dim) * error_squares)
                                : 127.5 * errors;
      const double allowance = fixed +
                               double{norms.residual[static_cast<int>(bits)]} * std::sqrt(squares) +
                               double{norms.spread} * std::sqrt(error_squares);
      const double value =
          coded.step(0) * (double{query.factor} * sum + allowance) + coded.lo(0) * query_sum;
      const double bound = written_out_bound(coded, 0, query, bits);
      ASSERT_GE(bound, value) << "dim " << dim << ", centre " << centre;
      const double kept = coded.step(0) * magnitudes * 8500 * kUnit;
      worst = std::max(worst, (value + kept - bound) / kept);
    }
  }
  // The roundings do use it.
  EXPECT_GT(worst, 0.1);
}

TEST(AQuery, IsNotCodedWhereBoundsProveNothing) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const auto is_coded = [](float component) {
    Floats factors(20, 0.0f);
    factors[7] = component;
    CodedQuery query;
    return qx::code_query(factors.data(), 20, query);
  };
  for (const float none : {0.0f, 1e-45f, 0x1p-31f, 0x1.8p+40f, 1e38f, kInfinity, -kInfinity,
                           std::numeric_limits<float>::quiet_NaN()}) {
    EXPECT_FALSE(is_coded(none) || is_coded(-none)) << none;
  }
  EXPECT_TRUE(is_coded(0x1p-30f) && is_coded(-1.0f) && is_coded(0x1p+40f));
}

TEST(ARow, IsNotCodedWhereAComponentIsTooLargeOrNotFinite) {
  for (const float component : {0x1p+48f, 1e38f, std::numeric_limits<float>::infinity(),
                                std::numeric_limits<float>::quiet_NaN()}) {
    for (const std::size_t at : {0u, 5u, 31u, 32u, 36u}) {
      Floats row(37, 1.0f);
      row[at] = -component;
      EXPECT_TRUE(std::isnan(Coded(plain(), row, 37).lo(0))) << component;
      EXPECT_TRUE(
          std::isnan(bound_of_row(Coded(plain(), row, 37), 0, Floats(37, 1.0f), CodeBits::kFour)));
    }
  }
  EXPECT_FALSE(std::isnan(Coded(plain(), Floats(37, 0x1.fp+47f), 37).lo(0)));
}

}  // namespace
}  // namespace qx_test
