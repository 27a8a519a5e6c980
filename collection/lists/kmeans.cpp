#include "lists/kmeans.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace qx::collection {
namespace {

constexpr std::int64_t kTurns = 10;
constexpr std::int64_t kRowsOfTurn = 64;  // of each list
constexpr std::int64_t kPartsOfSample = 8;
constexpr std::int64_t kRowsTogether = 256;

// The vectors of a sample that a turn takes: every `step`-th one. The first turns take a part each,
// so that together they see all of it for the price of one; the last ones, twice as much. More
// vectors give better lists than more turns over the same ones.
class Turn {
 public:
  Turn(std::int64_t turn, std::int64_t sample, std::int64_t lists) {
    const std::int64_t parts =
        std::clamp<std::int64_t>(sample / (kRowsOfTurn * lists), 1, kPartsOfSample);
    step_ = turn < kPartsOfSample ? parts : (parts + 1) / 2;
    first_ = turn % step_;
    size_ = (sample - first_ + step_ - 1) / step_;
  }
  std::int64_t size() const { return size_; }
  std::int64_t at(std::int64_t i) const { return first_ + i * step_; }

 private:
  std::int64_t step_;
  std::int64_t first_;
  std::int64_t size_;
};

// A sequence that is the same everywhere.
class Numbers {
 public:
  std::size_t below(std::size_t count) {
    state_ = state_ * 6364136223846793005u + 1442695040888963407u;
    return static_cast<std::size_t>((state_ >> 33) % count);
  }

 private:
  std::uint64_t state_ = 1;
};

// Writes the mean of the vectors of a list, or its direction; a list without either keeps its
// centroid. The sums are in the order of the sample, whatever thread makes them.
template <typename Vector>
void move_centroid(Vector vector, std::span<const std::uint32_t> rows, std::int64_t dim,
                   Nearness nearness, float* centroid) {
  const auto width = static_cast<std::size_t>(dim);
  std::vector<double> sums(width);
  for (const std::uint32_t row : rows) {
    const float* const components = vector(row);
    for (std::size_t j = 0; j < width; ++j) sums[j] += components[j];
  }
  auto divisor = static_cast<double>(rows.size());
  if (nearness == Nearness::kInnerProduct) {
    divisor = 0;
    for (const double sum : sums) divisor += sum * sum;
    divisor = std::sqrt(divisor);
  }
  if (!(divisor > 0)) return;
  for (std::size_t j = 0; j < width; ++j) centroid[j] = static_cast<float>(sums[j] / divisor);
}

// Different vectors of the sample, or their directions.
std::vector<float> draw_centroids(const std::vector<const float*>& sample, std::int64_t count,
                                  std::int64_t dim, Nearness nearness) {
  std::vector<float> centroids(static_cast<std::size_t>(count * dim));
  const auto vector = [&](std::uint32_t row) { return sample[row]; };
  std::vector<std::uint32_t> drawn(sample.size());
  std::iota(drawn.begin(), drawn.end(), 0u);
  Numbers numbers;
  for (std::size_t list = 0; list < static_cast<std::size_t>(count); ++list) {
    std::swap(drawn[list], drawn[list + numbers.below(drawn.size() - list)]);
    float* const centroid = centroids.data() + list * static_cast<std::size_t>(dim);
    std::copy_n(sample[drawn[list]], dim, centroid);
    move_centroid(vector, {&drawn[list], 1}, dim, nearness, centroid);
  }
  return centroids;
}

}  // namespace

std::int64_t tasks_of_lists(std::int64_t count) {
  return (count + kRowsTogether - 1) / kRowsTogether;
}

std::int64_t rows_of_sample(std::int64_t lists) { return kPartsOfSample * kRowsOfTurn * lists; }

std::int64_t tasks_of_training(std::int64_t sample, std::int64_t lists) {
  std::int64_t tasks = 0;
  for (std::int64_t turn = 0; turn < kTurns; ++turn) {
    tasks += tasks_of_lists(Turn(turn, sample, lists).size());
  }
  return tasks;
}

std::vector<ListNumber> lists_of(const Lists& lists, std::int64_t count, const VectorOf& vector,
                                 int threads, const Progress& progress) {
  std::vector<ListNumber> found(static_cast<std::size_t>(count));
  parallel_for(tasks_of_lists(count), threads, progress, [&](std::int64_t task, int) {
    const std::int64_t end = std::min((task + 1) * kRowsTogether, count);
    std::vector<float> space;
    for (std::int64_t row = task * kRowsTogether; row < end; ++row) {
      found[static_cast<std::size_t>(row)] = lists.list_of(vector(row), space);
    }
  });
  return found;
}

std::shared_ptr<const Lists> find_lists(const std::vector<const float*>& sample, std::int64_t count,
                                        std::int64_t dim, Nearness nearness,
                                        const std::shared_ptr<Budget>& budget, int threads,
                                        const Progress& progress, std::int64_t whole) {
  std::vector<float> centroids = draw_centroids(sample, count, dim, nearness);
  std::int64_t tasks = 0;
  for (std::int64_t number = 0; number < kTurns; ++number) {
    const Turn turn(number, std::ssize(sample), count);
    const auto vector = [&](std::int64_t i) {
      return sample[static_cast<std::size_t>(turn.at(i))];
    };
    const Lists lists(centroids.data(), count, dim, nearness, budget);
    const Members members(
        lists_of(lists, turn.size(), vector, threads, progress.part(tasks, whole)), count, budget);
    tasks += tasks_of_lists(turn.size());
    parallel_for(count, threads, {nullptr, nullptr}, [&](std::int64_t list, int) {
      move_centroid(vector, members.rows_of(static_cast<ListNumber>(list)), dim, nearness,
                    centroids.data() + list * dim);
    });
  }
  return std::make_shared<const Lists>(centroids.data(), count, dim, nearness, budget);
}

}  // namespace qx::collection
