// Why a bound from codes is one.
//
// Let x be a row, q the query, d the dimension, and e = 2^-24 the largest relative error of one
// operation in single precision. All sums here run over the components.
//
// 1. The score is a chain of fused multiply-adds. It exceeds the exact product sum(x q) by at most
//
//        sum(|x| |q|) d e / (1 - d e)  +  d 2^-126
//
//    and sum(|x| |q|) is at most |x| |q|, the product of their norms. The second term is subtracted
//    from the threshold (read/pruner.h).
// 2. With x = lo + step (u + r), r the rest that no code tells,
//
//        sum(x q) = lo sum(q) + step (sum(u q) + sum(r q)),      sum(r q) <= |r| |q|
//
//    A row's `residual` is at least |r| + |x| / step * d e / (1 - d e): the first term of 1 is part
//    of it. If four bits are read, u is the middle of the codes that share them: 7.5 above the
//    least, which is the one that kernels sum.
// 3. With q = factor v + f, v the levels and f their error,
//
//        sum(u q) = factor sum(u v) + sum(u f)
//                 = factor sum(u v) + 127.5 sum(f) + sum((u - 127.5) f)
//
//    and the last sum is at most |u - 127.5| |f|. `spread` is at least |u - 127.5|. The middle of
//    four bits' codes is up to 7.5 away from u in each component: then the sum is at most
//    (spread + 7.5 sqrt(d)) |f|.
// 4. So `fixed` is 127.5 sum(f), and with four bits, whose least code is summed,
//    7.5 factor sum(v) + 127.5 sum(f) + 7.5 sqrt(d) |f|, where factor sum(v) = sum(q) - sum(f).
// 5. Kernels round. With a = |factor sum(u v)|, t = the sum of the magnitudes in the allowance and
//    |lo| <= 1040 step, a bound misses its value by at most step e (5.3 a + 9.4 t) +
//    1040 step e 4.2 sum(|q|). Here a <= 255 factor sum(|v|) <= 510 sum(|q|), since a level that is
//    not 0 is at most twice its component. Of t, the parts with residual and spread are weighted
//    2^-20 too high, which is 16 e; the rest is at most (7.5 + 127.5 + 7.5) sum(|q|) and a part
//    that is weighted too high again. All in all 5.3 * 510 + 9.4 * 142.5 + 4.2 * 1040 = 8411 times
//    e sum(|q|), which is below kRoundings.
//
// Products neither overflow nor lose bits to subnormals: a step is 2^-90 to 2^41, a magnitude below
// 2^48, and a query of a component above 2^40 or of none above 2^-30 is not coded.
#include "read/coded_query.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "support/compiler.h"

namespace qx {
namespace {

constexpr std::int64_t kLanes = 8;
constexpr float kMostLevel = 127;
constexpr float kSmallestQuery = 0x1p-30f;
constexpr float kLargestQuery = 0x1p+40f;
constexpr double kRoundings = 8500 * 0x1p-24;
// Sums of doubles lose far less than this.
constexpr double kTooHigh = 1 + 0x1p-20;

float largest_component(const float* query, std::int64_t dim) {
  std::int32_t largest[2 * kLanes] = {};  // NaNs order last
  const auto take = [&](std::int64_t lane, float component) {
    const std::int32_t magnitude = std::bit_cast<std::int32_t>(component) & 0x7FFFFFFF;
    largest[lane] = std::max(largest[lane], magnitude);
  };
  std::int64_t j = 0;
  for (; j + 2 * kLanes <= dim; j += 2 * kLanes) {
    for (std::int64_t l = 0; l < 2 * kLanes; ++l) take(l, query[j + l]);
  }
  for (; j < dim; ++j) take(0, query[j]);
  return std::bit_cast<float>(*std::max_element(largest, largest + 2 * kLanes));
}

// A level times this is exact: it has 17 bits at most.
float factor_of(float magnitude) {
  constexpr std::uint32_t kCleared = 0x7F;
  const auto bits = std::bit_cast<std::uint32_t>(magnitude / kMostLevel);
  return std::bit_cast<float>((bits + kCleared) & ~kCleared);
}

struct Sums {
  double components[kLanes] = {};
  double magnitudes[kLanes] = {};
  double squares[kLanes] = {};
  double errors[kLanes] = {};
  double error_squares[kLanes] = {};

  static double total(const double* lanes) {
    double sum = 0;
    for (std::int64_t l = 0; l < kLanes; ++l) sum += lanes[l];
    return sum;
  }
};

// The levels of `count` components. `sums` grow by what the bound needs.
void code_components(const float* query, std::int64_t count, float factor, std::int8_t* levels,
                     Sums& sums) {
  const float levels_per_unit = 1 / factor;
  const auto code = [&](std::int64_t j, std::int64_t lane) {
    const float scaled = query[j] * levels_per_unit;
    const auto level = static_cast<std::int32_t>(scaled + (scaled < 0 ? -0.5f : 0.5f));
    const double component = query[j];
    const double error = component - double{factor * static_cast<float>(level)};
    levels[j] = static_cast<std::int8_t>(level);
    sums.components[lane] += component;
    sums.magnitudes[lane] += std::abs(component);
    sums.squares[lane] += component * component;
    sums.errors[lane] += error;
    sums.error_squares[lane] += error * error;
  };
  std::int64_t j = 0;
  for (; j + kLanes <= count; j += kLanes) {
    for (std::int64_t l = 0; l < kLanes; ++l) code(j + l, l);
  }
  for (; j < count; ++j) code(j, 0);
}

}  // namespace

bool code_query(const float* query, std::int64_t dim, CodedQuery& coded) {
  const float magnitude = largest_component(query, dim);
  if (!(magnitude >= kSmallestQuery && magnitude <= kLargestQuery)) return false;
  const std::int64_t row_bytes = code_row_bytes(dim);
  coded.half_bytes = (row_bytes + kCodePadding - 1) / kCodePadding * kCodePadding;
  coded.factor = factor_of(magnitude);
  Sums sums;
  std::int8_t* const others = coded.levels + coded.half_bytes;
  const std::int64_t other_count = dim - row_bytes;
  code_components(query, row_bytes, coded.factor, coded.levels, sums);
  code_components(query + row_bytes, other_count, coded.factor, others, sums);
  std::fill(coded.levels + row_bytes, others, std::int8_t{0});
  std::fill(others + other_count, others + coded.half_bytes, std::int8_t{0});

  const double sum = Sums::total(sums.components);
  const double errors = Sums::total(sums.errors);
  const double norm = std::sqrt(Sums::total(sums.squares)) * kTooHigh;
  const double error_norm = std::sqrt(Sums::total(sums.error_squares)) * kTooHigh;
  const double rounded = Sums::total(sums.magnitudes) * kRoundings;
  const double root = std::sqrt(static_cast<double>(dim));
  coded.query_sum = static_cast<float>(sum);
  coded.fixed[0] = static_cast<float>(7.5 * (sum - errors) + 127.5 * errors +
                                      7.5 * root * error_norm * kTooHigh + rounded);
  coded.fixed[1] = static_cast<float>(127.5 * errors + rounded);
  coded.residual_weight = static_cast<float>(norm * kTooHigh);
  coded.spread_weight = static_cast<float>(error_norm * kTooHigh);
  return true;
}

}  // namespace qx
