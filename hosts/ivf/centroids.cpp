#include "centroids.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>

namespace qx {
namespace {

constexpr std::int64_t kRounds = 10;
constexpr std::int64_t kProgressRows = 4096;
constexpr std::int64_t kRowsPerList = 64;
constexpr std::int64_t kMostRows = 262'144;

// Makes a vector one of length 1. Whether it has a direction.
bool normalize(std::span<float> vector) {
  double square = 0;
  for (const float number : vector) square += static_cast<double>(number) * number;
  if (!(square > 0) || !std::isfinite(square)) return false;
  const double scale = 1 / std::sqrt(square);
  for (float& number : vector) number = static_cast<float>(number * scale);
  return true;
}

template <typename Number>
std::span<Number> row_of(std::span<Number> rows, std::size_t row, std::size_t width) {
  return rows.subspan(row * width, width);
}

// Evenly spread rows, to begin with.
std::vector<float> first_centroids(std::span<const float> vectors, std::size_t width,
                                   std::size_t lists) {
  const std::size_t count = vectors.size() / width;
  std::vector<float> centroids(lists * width);
  for (std::size_t i = 0; i < lists; ++i) {
    const std::span<const float> from = row_of(vectors, i * count / lists, width);
    const std::span<float> to = row_of(std::span(centroids), i, width);
    std::copy(from.begin(), from.end(), to.begin());
    if (!normalize(to)) to[i % width] = 1;
  }
  return centroids;
}

}  // namespace

std::int64_t rows_to_learn(std::int64_t lists) { return std::min(lists * kRowsPerList, kMostRows); }

std::vector<float> learn_centroids(
    std::span<const float> vectors, std::int64_t dim, std::int64_t lists,
    const std::function<void(std::int64_t, std::int64_t)>& progress) {
  const auto width = static_cast<std::size_t>(dim);
  const auto count = static_cast<std::int64_t>(vectors.size() / width);
  const auto wanted = static_cast<std::size_t>(std::min(lists, count));
  std::vector<float> centroids = first_centroids(vectors, width, wanted);
  for (std::int64_t round = 0; round < kRounds; ++round) {
    const ListChooser chooser(centroids, dim);
    std::vector<double> sums(centroids.size());
    for (std::int64_t row = 0; row < count; ++row) {
      if (row % kProgressRows == 0) progress(round * count + row, kRounds * count);
      const std::span<const float> vector = row_of(vectors, static_cast<std::size_t>(row), width);
      const std::int32_t list = chooser.list_of(vector);
      if (list < 0) continue;
      const std::span<double> sum = row_of(std::span(sums), static_cast<std::size_t>(list), width);
      for (std::size_t j = 0; j < width; ++j) sum[j] += static_cast<double>(vector[j]);
    }
    for (std::size_t i = 0; i < wanted; ++i) {
      const std::span<double> sum = row_of(std::span(sums), i, width);
      std::vector<float> middle(sum.begin(), sum.end());
      // A group without rows keeps its centroid.
      if (!normalize(middle)) continue;
      std::copy(middle.begin(), middle.end(), row_of(std::span(centroids), i, width).begin());
    }
  }
  return centroids;
}

ListChooser::ListChooser(std::span<const float> centroids, std::int64_t dim)
    : nearest_(static_cast<std::int32_t>(dim)) {
  std::vector<std::int64_t> numbers(centroids.size() / static_cast<std::size_t>(dim));
  std::iota(numbers.begin(), numbers.end(), std::int64_t{0});
  nearest_.build(centroids, numbers);
}

std::int32_t ListChooser::list_of(std::span<const float> vector) const {
  std::int64_t list = -1;
  float score = 0;
  nearest_.search_full(vector, {&list, 1}, {&score, 1});
  return static_cast<std::int32_t>(list);
}

}  // namespace qx
