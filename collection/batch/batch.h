// Many queries against the codes of many rows at once, by a unit of the CPU that multiplies tiles
// of bytes. A code is unpacked once for all queries, and most of them rule its row out. It knows
// codes and queries, not what a row is.
#pragma once

#include <cstdint>
#include <vector>

#include "kernels/codes.h"

namespace qx::collection {

// Queries of a side of a tile, and those that are judged together.
inline constexpr std::int64_t kTileQueries = 16;
inline constexpr std::int64_t kQueriesTogether = 2 * kTileQueries;

// Queries as tiles have them: what CodedQuery holds of each, side by side.
class CodedBatch {
 public:
  explicit CodedBatch(std::int64_t dim);

  // Adds a query. Returns false, and adds nothing, if it cannot be coded.
  bool add(const float* query);

  std::int64_t size() const { return size_; }

 private:
  friend struct TileKernel;  // reads it

  // One number for each query, zeros up to a multiple of kQueriesTogether.
  struct Numbers {
    std::vector<float> factor, query_sum, fixed, residual_weight, spread_weight;
  };
  void put_levels(const CodedQuery& query);

  std::int64_t dim_;
  std::int64_t row_levels_;  // a multiple of 128
  std::int64_t size_ = 0;
  Numbers numbers_;
  // A tile has 64 levels of each of 16 queries: four levels of one query after the other's.
  std::vector<std::int8_t> tiles_;
};

// A row that a query does not rule out, as distances from the first ones of a call.
struct Pair {
  std::int32_t query;
  std::int32_t row;
};

struct TileKernel {
  // Null where the CPU or the system lacks tiles.
  static const TileKernel* find();

  // Whether find() may find it, from now on. For tests and benchmarks. Requires: no other call of
  // the library at the same time.
  static void allow(bool allowed);

  static constexpr std::int64_t kMostRows = 256;

  // Judges up to kMostRows rows from `first` on, a multiple of kCodeGroupRows, by all eight bits,
  // and writes the pairs whose bounds are not below the query's limit; out has room for all.
  // Returns how many. `space` is any memory of the calling thread's.
  std::int64_t judge(const CodeView& codes, std::int64_t first, std::int64_t count,
                     const CodedBatch& batch, const float* limits, std::vector<std::uint8_t>& space,
                     Pair* out) const;

 private:
  static bool has_tiles();
};

}  // namespace qx::collection
