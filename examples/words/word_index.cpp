// How an index of words is made. The IVF lists come from spherical k-means, which assigns words to
// centroids by the engine: the nearest of few rows.
#include "word_index.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <utility>

namespace {

constexpr int kRounds = 8;
constexpr std::int64_t kTrainingWordsPerList = 64;  // more change the centroids little

using Ids = std::vector<std::int64_t>;

// The number of the nearest centroid of each word.
Ids nearest(const Words& words, const Ids& ids, const std::vector<float>& centroids) {
  qx::Index index(words.dim());
  index.build(centroids, first_ids(std::ssize(centroids) / words.dim()));
  Ids lists;
  for (const std::int64_t id : ids) {
    lists.push_back(index.search_full(words.vector(id), 1).ids.at(0));
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

// As many lists as rows in a list: ranking the centroids then costs as much as scanning a list. The
// same words always give the same lists.
Lists make_lists(const Words& words) {
  const std::int64_t count = std::lround(std::sqrt(static_cast<double>(words.size())));
  const Ids training = words.spread(count * kTrainingWordsPerList);
  Lists made{words.vectors(words.spread(count)), first_ids(words.size()), {}};
  for (int round = 0; round < kRounds; ++round) {
    const Ids lists = nearest(words, training, made.centroids);
    move_centroids(words, training, lists, made.centroids);
  }
  const Ids list = nearest(words, made.ids, made.centroids);
  const auto list_of = [&](auto id) { return list[static_cast<std::size_t>(id)]; };
  std::ranges::stable_sort(made.ids, {}, list_of);
  made.offsets.resize(static_cast<std::size_t>(count) + 1);
  for (const std::int64_t at : list) ++made.offsets[static_cast<std::size_t>(at) + 1];
  std::partial_sum(made.offsets.begin(), made.offsets.end(), made.offsets.begin());
  return made;
}

}  // namespace

WordIndex::WordIndex(Words&& given)
    : words(std::move(given)),
      lists(make_lists(words)),
      nprobe(std::max(1, lists.count() / 10)),
      index(words.dim()) {
  Ids ids = first_ids(words.size());
  std::ranges::stable_sort(ids, {}, [this](auto id) { return words.letter(id); });
  std::int32_t row = 0;
  for (const std::int64_t id : ids) {
    const std::int64_t letter = words.letter(id);
    if (partitions.empty() || partitions.back().key != letter)
      partitions.push_back({letter, row, 0});
    ++partitions.back().size;
    ++row;
  }
  index.build(words.vectors(ids), ids, partitions);
  describe(ids);
  index.set_ivf(kIvfKey, nprobe, lists.centroids, lists.ids, lists.offsets);
}

void WordIndex::set_nprobe(std::int32_t lists_scanned) {
  nprobe = std::min(lists_scanned, lists.count());
  index.set_ivf_nprobe(kIvfKey, nprobe);
}

std::int64_t WordIndex::add(const std::string& word, std::span<const float> vector) {
  const std::int64_t id = words.add(word, vector);
  describe({id});
  return id;
}

void WordIndex::describe(const Ids& ids) {
  Ids letters;
  Ids lengths;
  for (const std::int64_t id : ids) {
    letters.push_back(words.letter(id));
    lengths.push_back(words.length(id));
  }
  index.set_rowmeta(ids, letters, lengths, 1);
}
