// Centroids of lists, from a sample of vectors.
#pragma once

#include "lists/lists.h"
#include "threads/pool.h"

namespace qx::collection {

// A vector that is asked for by its number.
using VectorOf = std::function<const float*(std::int64_t)>;

// The lists of `count` vectors.
std::vector<ListNumber> lists_of(const Lists& lists, std::int64_t count, const VectorOf& vector,
                                 int threads, const Progress& progress);

// How many vectors find_lists() has use for.
std::int64_t rows_of_sample(std::int64_t lists);

// How many tasks lists_of() and find_lists() report.
std::int64_t tasks_of_lists(std::int64_t count);
std::int64_t tasks_of_training(std::int64_t sample, std::int64_t lists);

// Finds `count` centroids by k-means: of directions, all of length 1, or of points. Any number of
// threads finds the same. The progress is of a part. Requires: the sample has at least `count`
// vectors.
std::shared_ptr<const Lists> find_lists(const std::vector<const float*>& sample, std::int64_t count,
                                        std::int64_t dim, Nearness nearness,
                                        const std::shared_ptr<Budget>& budget, int threads,
                                        const Progress& progress, std::int64_t whole);

}  // namespace qx::collection
