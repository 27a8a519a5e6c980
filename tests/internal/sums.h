// Sums for the tests of kernels and scans: the score as the numeric contract defines it, the exact
// sum of a row's products, without rounding, and what a kernel may answer for a row.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace qx_test {

inline float contract_score(const float* row, const float* query, std::int64_t dim) {
  float sum = 0.0f;
  for (std::int64_t j = 0; j < dim; ++j) sum = std::fma(row[j], query[j], sum);
  return sum;
}

// A sum of doubles without any rounding, as parts that do not overlap, the smallest first. The
// product of two floats is exact in double, even if it is far below the smallest float.
class ExactSum {
 public:
  ExactSum() = default;
  ExactSum(const float* row, const float* query, std::int64_t dim) {
    for (std::int64_t j = 0; j < dim; ++j) {
      const double product = double{row[j]} * double{query[j]};
      add(product);
      magnitudes_ += std::abs(product);
    }
    dim_ = static_cast<double>(dim);
  }

  // The distance of a float from the exact sum.
  double distance(float value) const {
    ExactSum difference = *this;
    difference.add(-double{value});
    double sum = 0;
    for (const double part : difference.parts_) sum += part;
    return std::abs(sum);
  }

  // The largest allowed distance of a score or an estimate from the exact sum, as kernels.h states
  // it.
  double bound() const {
    constexpr double kUnit = 0x1p-24;
    return magnitudes_ * dim_ * kUnit / (1 - dim_ * kUnit) + dim_ * 0x1p-126;
  }

  // The sum of the products' magnitudes.
  double magnitudes() const { return magnitudes_; }

 private:
  void add(double value) {
    std::size_t kept = 0;
    for (const double part : parts_) {
      const double sum = value + part;
      const double added = sum - value;
      const double lost = (value - (sum - added)) + (part - added);
      if (lost != 0) parts_[kept++] = lost;
      value = sum;
    }
    parts_.resize(kept);
    parts_.push_back(value);
  }

  std::vector<double> parts_;
  double magnitudes_ = 0;
  double dim_ = 0;
};

// What a kernel may answer for a row.
class RowAnswers {
 public:
  RowAnswers(const float* row, const float* query, std::int64_t dim)
      : score_(contract_score(row, query, dim)), exact_(row, query, dim) {
    const auto is_finite = [](float value) { return std::isfinite(value); };
    has_nan_ = std::any_of(row, row + dim, [](float value) { return std::isnan(value); });
    bounded_ = std::all_of(row, row + dim, is_finite) &&
               std::all_of(query, query + dim, is_finite) &&
               2 * exact_.magnitudes() < double{std::numeric_limits<float>::max()};
  }

  float score() const { return score_; }
  const ExactSum& exact() const { return exact_; }
  bool bounded() const { return bounded_; }

  // The same bits, or two NaNs, whose payload is the only thing that a kernel may choose.
  bool is_score(float answer) const {
    return std::bit_cast<std::uint32_t>(answer) == std::bit_cast<std::uint32_t>(score_) ||
           (std::isnan(answer) && std::isnan(score_));
  }

  // A NaN for a row with a NaN; within the bound where nothing overflows.
  bool is_estimate(float answer) const {
    if (has_nan_) return std::isnan(answer);
    return !bounded_ || exact_.distance(answer) <= exact_.bound();
  }

 private:
  float score_;
  ExactSum exact_;
  bool has_nan_;
  bool bounded_;
};

}  // namespace qx_test
