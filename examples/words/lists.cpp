// Spherical k-means that assigns words to centroids by the engine: the nearest of few rows.
#include <algorithm>
#include <cstddef>
#include <functional>
#include <numeric>
#include <utility>

#include "progress.h"
#include "word_index.h"

namespace {

constexpr int kRounds = 8;
constexpr std::int64_t kTrainingWordsPerList = 64;  // more change the centroids little

using Ids = std::vector<std::int64_t>;

// The number of the nearest centroid of each word.
Ids nearest(const Words& words, const Ids& ids, const std::vector<float>& centroids,
            Progress& progress) {
  qx::Index index(words.dim());
  index.build(centroids, first_ids(std::ssize(centroids) / words.dim()));
  Ids lists;
  for (const std::int64_t id : ids) {
    lists.push_back(index.search_full(words.vector(id), 1).ids.at(0));
    progress.advance();
  }
  return lists;
}

// Moves each centroid to the direction of the sum of its words, if there is one.
void move_centroids(const Words& words, const Ids& ids, const Ids& lists,
                    std::vector<float>& centroids) {
  const auto dim = static_cast<std::size_t>(words.dim());
  std::vector<float> sums(centroids.size());
  for (std::size_t i = 0; i < ids.size(); ++i) {
    float* const sum = sums.data() + static_cast<std::size_t>(lists[i]) * dim;
    std::ranges::transform(words.vector(ids[i]), std::span(sum, dim), sum, std::plus<>());
  }
  for (std::size_t at = 0; at < sums.size(); at += dim) {
    const std::span<float> sum = std::span(sums).subspan(at, dim);
    if (normalise(sum)) std::ranges::copy(sum, centroids.data() + at);
  }
}

}  // namespace

Lists make_lists(const Words& words, std::int64_t count) {
  const Ids training = words.spread(count * kTrainingWordsPerList);
  const Ids every = first_ids(words.size());
  Progress progress("Clustering the words", training.size() * kRounds + every.size());
  Lists made{words.vectors(words.spread(count)), every, {}};
  for (int round = 0; round < kRounds; ++round) {
    const Ids lists = nearest(words, training, made.centroids, progress);
    move_centroids(words, training, lists, made.centroids);
  }
  const Ids list = nearest(words, every, made.centroids, progress);
  const auto place = [&](auto id) { return std::pair(list[static_cast<std::size_t>(id)], id); };
  std::ranges::sort(made.ids, {}, place);
  made.offsets.resize(static_cast<std::size_t>(count) + 1);
  for (const std::int64_t at : list) ++made.offsets[static_cast<std::size_t>(at) + 1];
  std::partial_sum(made.offsets.begin(), made.offsets.end(), made.offsets.begin());
  return made;
}
