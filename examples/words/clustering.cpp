#include "clustering.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <utility>
#include <vector>

#include "progress.h"
#include "word_vectors.h"

namespace {

constexpr int kRounds = 8;
// Rows that train one centroid: more change the centroids little, and the time in proportion.
constexpr std::int64_t kTrainingRowsPerList = 64;
constexpr std::uint64_t kSeed = 20240229;

class Clustering {
 public:
  Clustering(std::span<const float> vectors, std::int32_t dimension, std::int64_t count,
             std::int32_t lists, CallLog& log)
      : vectors_(vectors),
        dimension_(static_cast<std::size_t>(dimension)),
        count_(count),
        list_count_(static_cast<std::size_t>(lists)),
        log_(log),
        progress_("Clustering the words",
                  kRounds * std::min(count, lists * kTrainingRowsPerList) + count) {}

  IvfLists run() {
    choose_training_rows();
    for (std::size_t list = 0; list < list_count_; ++list) append_row(centroids_, training_[list]);
    for (int round = 0; round < kRounds; ++round) improve();
    std::vector<std::int64_t> every_row(static_cast<std::size_t>(count_));
    for (std::size_t i = 0; i < every_row.size(); ++i) every_row[i] = static_cast<std::int64_t>(i);
    return collect(every_row, assign(every_row));
  }

 private:
  std::span<const float> row(std::int64_t id) const {
    return vectors_.subspan(static_cast<std::size_t>(id) * dimension_, dimension_);
  }

  void append_row(std::vector<float>& target, std::int64_t id) const {
    const std::span<const float> source = row(id);
    target.insert(target.end(), source.begin(), source.end());
  }

  // Chooses the training rows at random. The first of them become the first centroids.
  void choose_training_rows() {
    training_.resize(static_cast<std::size_t>(count_));
    for (std::size_t i = 0; i < training_.size(); ++i) training_[i] = static_cast<std::int64_t>(i);
    const std::size_t wanted =
        std::min(training_.size(), list_count_ * static_cast<std::size_t>(kTrainingRowsPerList));
    // Not std::shuffle, whose outcome differs between standard libraries.
    for (std::size_t i = 0; i < wanted; ++i) {
      const std::size_t rest = training_.size() - i;
      std::swap(training_[i], training_[i + static_cast<std::size_t>(random_() % rest)]);
    }
    training_.resize(wanted);
  }

  // Returns the nearest centroid of each row. An index that is built again keeps its earlier base
  // for the life of the process, so every round has an index of its own.
  std::vector<std::size_t> assign(const std::vector<std::int64_t>& ids) {
    Rows rows{centroids_, std::vector<std::int64_t>(list_count_)};
    for (std::size_t list = 0; list < list_count_; ++list) {
      rows.ids[list] = static_cast<std::int64_t>(list);
    }
    Index index(static_cast<std::int32_t>(dimension_), 0, log_);
    index.build(rows, {});
    std::vector<std::size_t> nearest;
    nearest.reserve(ids.size());
    for (const std::int64_t id : ids) {
      const Hits hits = index.search_full(row(id), 1);
      nearest.push_back(hits.empty() ? 0 : static_cast<std::size_t>(hits.front().id));
      if (++done_ % 256 == 0) progress_.update(done_);
    }
    return nearest;
  }

  // Moves every centroid to the direction of the sum of its rows. One that has no rows, or whose
  // rows cancel out, starts anew at a random training row.
  void improve() {
    const std::vector<std::size_t> nearest = assign(training_);
    std::fill(centroids_.begin(), centroids_.end(), 0.0f);
    for (std::size_t i = 0; i < training_.size(); ++i) {
      const std::span<const float> source = row(training_[i]);
      float* sum = centroids_.data() + nearest[i] * dimension_;
      for (std::size_t j = 0; j < dimension_; ++j) sum[j] += source[j];
    }
    for (std::size_t list = 0; list < list_count_; ++list) {
      float* centroid = centroids_.data() + list * dimension_;
      if (normalise(centroid, dimension_)) continue;
      const std::size_t pick = static_cast<std::size_t>(random_() % training_.size());
      std::copy_n(row(training_[pick]).begin(), dimension_, centroid);
    }
  }

  // Lays the lists one after the other, the ids of each ascending.
  IvfLists collect(const std::vector<std::int64_t>& ids, const std::vector<std::size_t>& nearest) {
    IvfLists lists;
    lists.offsets.assign(list_count_ + 1, 0);
    for (const std::size_t list : nearest) ++lists.offsets[list + 1];
    for (std::size_t i = 0; i < list_count_; ++i) lists.offsets[i + 1] += lists.offsets[i];
    std::vector<std::int32_t> next(lists.offsets.begin(), lists.offsets.end() - 1);
    lists.ids.resize(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
      lists.ids[static_cast<std::size_t>(next[nearest[i]]++)] = ids[i];
    }
    lists.centroids = std::move(centroids_);
    return lists;
  }

  std::span<const float> vectors_;
  std::size_t dimension_;
  std::int64_t count_;
  std::size_t list_count_;
  CallLog& log_;
  Progress progress_;
  std::int64_t done_ = 0;
  std::mt19937_64 random_{kSeed};
  std::vector<std::int64_t> training_;
  std::vector<float> centroids_;
};

}  // namespace

IvfLists cluster(std::span<const float> vectors, std::int32_t dimension, std::int64_t count,
                 std::int32_t lists, CallLog& log) {
  return Clustering(vectors, dimension, count, lists, log).run();
}

std::int32_t suitable_list_count(std::int64_t rows) {
  const double root = std::sqrt(static_cast<double>(rows));
  return static_cast<std::int32_t>(std::max(1.0, std::round(root)));
}
