// Result lists of fixed length, and their merge: the k best of two lists are the k best of all rows
// that either has seen, so ranks may be merged in any order, two at a time.
//
// The order is the engine's own: the better score first, then the row that a single index would
// have offered earlier, by `arrival`; no two rows of a search have the same, so that the order is
// total and the merge gives the same list whichever ranks are merged first.
#pragma once

#include <mpi.h>

#include <cstdint>
#include <limits>
#include <qx_runtime.hpp>
#include <span>

namespace qx {

// The score of every row that is found is above that of an empty slot.
inline bool is_filled(float score) { return score > QX_EMPTY_SCORE; }

// Without padding, since ranks send lists byte by byte.
#pragma pack(push, 4)
struct Entry {
  std::int64_t arrival = std::numeric_limits<std::int64_t>::max();
  std::int64_t id = QX_EMPTY_ID;
  float score = QX_EMPTY_SCORE;
};
#pragma pack(pop)
static_assert(sizeof(Entry) == 20);

// Allocates the buffer for merges of lists of up to k entries: what follows allocates nothing of
// ours, since a rank where that failed would leave the others waiting.
void reserve_merge_buffer(std::int64_t k);

// Makes the second of two sorted lists the first k entries of both.
void merge_into(const Entry* from, Entry* into, std::int64_t k);

// Merges the lists of all ranks into those of rank 0: `lists` has any number of lists of k entries
// each, one after the other.
void reduce_to_root(std::span<Entry> lists, std::int64_t k, MPI_Comm ranks);

// Adds the entries that are not empty.
void append_hits(std::span<const Entry> list, Hits& hits);

}  // namespace qx
