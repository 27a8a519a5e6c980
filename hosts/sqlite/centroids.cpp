#include "centroids.h"

#include <algorithm>
#include <cmath>
#include <qx_runtime.hpp>

namespace qx_sqlite {
namespace {

constexpr int kRounds = 10;
constexpr std::size_t kProgressRows = 4096;

// Makes a vector one of length 1. Whether it has a direction.
bool normalize(std::span<float> vector) {
  double square = 0;
  for (const float number : vector) square += static_cast<double>(number) * number;
  if (!(square > 0) || !std::isfinite(square)) return false;
  const double scale = 1 / std::sqrt(square);
  for (float& number : vector) number = static_cast<float>(number * scale);
  return true;
}

}  // namespace

Floats learn_centroids(std::span<const float> vectors, std::int64_t dim, std::int64_t lists,
                       const std::function<void()>& progress) {
  const auto width = static_cast<std::size_t>(dim);
  const std::size_t count = vectors.size() / width;
  const std::size_t wanted = std::min(static_cast<std::size_t>(lists), count);
  Floats centroids(wanted * width);
  // Evenly spread rows to begin with.
  for (std::size_t i = 0; i < wanted; ++i) {
    const auto from = vectors.subspan(i * count / wanted * width, width);
    const auto to = std::span(centroids).subspan(i * width, width);
    std::copy(from.begin(), from.end(), to.begin());
    if (!normalize(to)) to[i % width] = 1;
  }
  std::vector<std::int64_t> numbers(wanted);
  for (std::size_t i = 0; i < wanted; ++i) numbers[i] = static_cast<std::int64_t>(i);

  for (int round = 0; round < kRounds; ++round) {
    qx::Index nearest(static_cast<std::int32_t>(dim));
    nearest.build(centroids, numbers);
    std::vector<double> sums(centroids.size());
    std::int64_t id = 0;
    float score = 0;
    for (std::size_t row = 0; row < count; ++row) {
      if (row % kProgressRows == 0) progress();
      const auto vector = vectors.subspan(row * width, width);
      if (nearest.search_full(vector, {&id, 1}, {&score, 1}) == 0) continue;
      double* const sum = sums.data() + static_cast<std::size_t>(id) * width;
      for (std::size_t j = 0; j < width; ++j) sum[j] += static_cast<double>(vector[j]);
    }
    for (std::size_t i = 0; i < wanted; ++i) {
      Floats middle(sums.begin() + static_cast<std::ptrdiff_t>(i * width),
                    sums.begin() + static_cast<std::ptrdiff_t>((i + 1) * width));
      // A group without rows keeps its centre.
      if (!normalize(middle)) continue;
      std::copy(middle.begin(), middle.end(),
                centroids.begin() + static_cast<std::ptrdiff_t>(i * width));
    }
  }
  return centroids;
}

}  // namespace qx_sqlite
