// What storing vectors costs at least: plain copies into blocks of the C library.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "harness/data.h"
#include "harness/measure.h"

namespace bench {

struct FreeBlock {
  void operator()(void* block) const { std::free(block); }
};

// Some values in a block of their own, which may grow in place or by moving pages where the C
// library can.
template <typename T>
struct Block {
  void resize(std::size_t count) {
    values.reset(static_cast<T*>(std::realloc(values.release(), count * sizeof(T))));
    require(values != nullptr, "there is memory for the copies");
  }
  void copy(const T* source, std::size_t count) {
    resize(count);
    std::memcpy(values.get(), source, count * sizeof(T));
  }

  std::unique_ptr<T, FreeBlock> values;
};

// Floats that grow by doubling.
class GrowingFloats {
 public:
  void append(const float* values, std::size_t count) {
    if (count_ + count > capacity_) {
      capacity_ = std::max(2 * capacity_, count_ + count);
      block_.resize(capacity_);
    }
    std::memcpy(block_.values.get() + count_, values, count * sizeof(float));
    count_ += count;
  }

 private:
  Block<float> block_;
  std::size_t count_ = 0;
  std::size_t capacity_ = 0;
};

// A base without an engine: copies of vectors and ids, and the table from ids to rows.
struct PlainBase {
  void build(const float* source, const Ids& source_ids, std::size_t dim) {
    vectors.copy(source, source_ids.size() * dim);
    ids.copy(source_ids.data(), source_ids.size());
    const std::int64_t largest = *std::max_element(source_ids.begin(), source_ids.end());
    const auto slots = static_cast<std::size_t>(largest) + 1;
    id_to_row.resize(slots);
    std::memset(id_to_row.values.get(), 0xFF, slots * sizeof(std::int64_t));
    std::int64_t row = 0;
    for (const std::int64_t id : source_ids) id_to_row.values.get()[id] = row++;
  }

  Block<float> vectors;
  Block<std::int64_t> ids;
  Block<std::int64_t> id_to_row;
};

}  // namespace bench
