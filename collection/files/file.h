// A collection in a file: docs/FORMAT.md describes it. It knows states and bytes.
#pragma once

#include "state/collection.h"

namespace qx::collection {

// Writes the visible rows of a state, in ascending order of their ids: the same rows give the same
// bytes. The file at `path` is replaced when the new one is complete and synced; otherwise it stays
// as it was.
void save(const Shape& shape, const State& state, const char* path, const Progress& progress);

// What a file holds.
struct Loaded {
  Shape shape;
  Sealed sealed;  // of no rows, without a segment
  std::shared_ptr<const Lists> lists;
};

// Reads a file. Refuses one that is not whole, or not of this format, by Error(QX_CORRUPT).
Loaded load(const char* path, std::int64_t memory_limit, int threads, const Progress& progress);

}  // namespace qx::collection
