// The lists of an IVF structure: their centroids, learned from a sample of the rows, and which list
// a row belongs to.
#pragma once

#include <cstdint>
#include <functional>
#include <qx_runtime.hpp>
#include <span>
#include <vector>

namespace qx {

// How many rows are enough of a sample to learn this many lists from.
std::int64_t rows_to_learn(std::int64_t lists);

// Groups vectors by direction and gives the middle direction of each group, a unit vector: `lists`
// of them, or as many as there are vectors. The same vectors give the same centroids. Calls
// progress(done, total) often; what that throws ends the work.
std::vector<float> learn_centroids(std::span<const float> vectors, std::int64_t dim,
                                   std::int64_t lists,
                                   const std::function<void(std::int64_t, std::int64_t)>& progress);

// Which list a vector belongs to: that whose centroid scores best, or -1 where none has a score.
class ListChooser {
 public:
  ListChooser(std::span<const float> centroids, std::int64_t dim);
  std::int32_t list_of(std::span<const float> vector) const;

 private:
  Index nearest_;
};

}  // namespace qx
