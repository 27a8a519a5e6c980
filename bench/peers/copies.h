// What storing vectors costs at least: plain copies into blocks of the C library.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "harness/data.h"

namespace bench {

struct FreeBlock {
  void operator()(void* block) const { std::free(block); }
};
template <typename T>
using Block = std::unique_ptr<T, FreeBlock>;

// Floats that grow by doubling, in place or by moving pages where the C library can.
class GrowingFloats {
 public:
  void append(const float* values, std::int64_t count);

 private:
  Block<float> values_;
  std::int64_t count_ = 0;
  std::int64_t capacity_ = 0;
};

// A base without an engine: copies of vectors and ids, and the table from ids to rows.
class PlainBase {
 public:
  void build(const float* vectors, const Ids& ids, std::int64_t dim);

 private:
  Block<float> vectors_;
  Block<std::int64_t> ids_;
  Block<std::int64_t> id_to_row_;
};

}  // namespace bench
