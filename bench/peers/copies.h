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

// Values in a block that grows by doubling, in place or by moving pages where the C library can.
template <typename T>
class Block {
 public:
  T* data() { return values_.get(); }

  // Room for `count` more; returns where they go.
  T* grow(std::size_t count) {
    count_ += count;
    if (count_ > capacity_) {
      capacity_ = std::max(2 * capacity_, count_);
      values_.reset(static_cast<T*>(std::realloc(values_.release(), capacity_ * sizeof(T))));
      require(values_ != nullptr, "there is memory for the copies");
    }
    return data() + count_ - count;
  }
  void append(const T* values, std::size_t count) {
    std::memcpy(grow(count), values, count * sizeof(T));
  }

 private:
  struct Free {
    void operator()(T* values) const { std::free(values); }
  };
  std::unique_ptr<T, Free> values_;
  std::size_t count_ = 0;
  std::size_t capacity_ = 0;
};

// A base without an engine: copies of vectors and ids, and the table from ids to rows.
struct PlainBase {
  void build(const float* source, const Ids& source_ids, std::size_t dim) {
    vectors.append(source, source_ids.size() * dim);
    ids.append(source_ids.data(), source_ids.size());
    const std::int64_t largest = *std::max_element(source_ids.begin(), source_ids.end());
    const auto slots = static_cast<std::size_t>(largest) + 1;
    std::memset(id_to_row.grow(slots), 0xFF, slots * sizeof(std::int64_t));
    std::int64_t row = 0;
    for (const std::int64_t id : source_ids) id_to_row.data()[id] = row++;
  }

  Block<float> vectors;
  Block<std::int64_t> ids;
  Block<std::int64_t> id_to_row;
};

}  // namespace bench
