// Lists: rows are divided by their nearest centroid. It knows vectors and lists, not what a row is.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "index/sealed_index.h"
#include "read/scan.h"
#include "support/budget.h"

namespace qx::collection {

using ListNumber = std::uint32_t;

// By what a centroid is near: by the inner product with a vector, or by the distance from it.
enum class Nearness { kInnerProduct, kDistance };

// The centroids. Which of them are nearest is decided here, by scores of the engine, so that every
// CPU gives the same lists; of equally near ones, those of the lowest numbers are.
class Lists {
 public:
  // `centroids` are `count` rows of `dim` floats.
  Lists(const float* centroids, std::int64_t count, std::int64_t dim, Nearness nearness,
        const std::shared_ptr<Budget>& budget);

  std::int64_t count() const { return count_; }
  std::int64_t dim() const { return dim_; }
  const float* centroid(std::int64_t list) const { return index_.vector(list); }

  // The list of a vector that is kept. `space` is any memory of the caller's.
  ListNumber list_of(const float* vector, std::vector<float>& space) const;

  // The lists nearest to a query, the nearest first. Requires: out has 1 to count() elements.
  void find_nearest(const float* query, std::span<ListNumber> out) const;

 private:
  void rank(const float* query, const ResultSlots& slots, std::vector<float>& space) const;
  static std::int64_t width_of(std::int64_t dim, Nearness nearness) {
    return nearness == Nearness::kDistance ? dim + 1 : dim;
  }

  std::int64_t count_;
  std::int64_t dim_;
  Nearness nearness_;
  Budget::Share share_;
  SealedIndex index_;
};

// Which of some rows, numbered from 0, are in each list.
class Members {
 public:
  // `lists` has the list of each row; all are below `count`.
  Members(std::span<const ListNumber> lists, std::int64_t count,
          const std::shared_ptr<Budget>& budget);

  // The rows of a list, ascending.
  std::span<const std::uint32_t> rows_of(ListNumber list) const {
    return std::span(rows_).subspan(starts_[list], starts_[list + 1] - starts_[list]);
  }

  // The list of each row.
  std::vector<ListNumber> lists() const;

  Budget::Share share;

 private:
  std::vector<std::uint32_t> starts_;
  std::vector<std::uint32_t> rows_;
};

}  // namespace qx::collection
