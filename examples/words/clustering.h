// Spherical k-means: the host's way to the centroids and lists of an IVF structure. It assigns rows
// to centroids with the engine itself, by exact search with k = 1 over an index of the centroids.
#ifndef WORDS_CLUSTERING_H
#define WORDS_CLUSTERING_H

#include <cstdint>
#include <span>

#include "call_log.h"
#include "index.h"

// Groups vectors of length 1 (row i has id i) into lists around centroids of length 1.
//
// vectors    at least count rows of dimension floats.
// lists      the number of lists, 1 to count. A list may be empty.
// log        receives the engine calls.
//
// The same input always gives the same lists.
IvfLists cluster(std::span<const float> vectors, std::int32_t dimension, std::int64_t count,
                 std::int32_t lists, CallLog& log);

// Returns the number of lists that suits a number of rows: about its square root, so that ranking
// the centroids costs about as much as scanning one list.
std::int32_t suitable_list_count(std::int64_t rows);

#endif
