#include "peers/copies.h"

#include <algorithm>
#include <cstring>

#include "harness/measure.h"

namespace bench {
namespace {

template <typename T>
Block<T> new_block(std::size_t count) {
  Block<T> block(static_cast<T*>(std::malloc(count * sizeof(T))));
  require(block != nullptr, "there is memory for the copies");
  return block;
}

template <typename T>
Block<T> copy_of(const T* source, std::size_t count) {
  Block<T> block = new_block<T>(count);
  std::memcpy(block.get(), source, count * sizeof(T));
  return block;
}

}  // namespace

void GrowingFloats::append(const float* values, std::int64_t count) {
  if (count_ + count > capacity_) {
    capacity_ = std::max(2 * capacity_, count_ + count);
    const std::size_t bytes = static_cast<std::size_t>(capacity_) * sizeof(float);
    auto* const grown = static_cast<float*>(std::realloc(values_.release(), bytes));
    require(grown != nullptr, "there is memory for the copies");
    values_.reset(grown);
  }
  std::memcpy(values_.get() + count_, values, static_cast<std::size_t>(count) * sizeof(float));
  count_ += count;
}

void PlainBase::build(const float* vectors, const Ids& ids, std::int64_t dim) {
  vectors_ = copy_of(vectors, ids.size() * static_cast<std::size_t>(dim));
  ids_ = copy_of(ids.data(), ids.size());
  const std::int64_t slots = *std::max_element(ids.begin(), ids.end()) + 1;
  id_to_row_ = new_block<std::int64_t>(static_cast<std::size_t>(slots));
  std::memset(id_to_row_.get(), 0xFF, static_cast<std::size_t>(slots) * sizeof(std::int64_t));
  for (std::size_t r = 0; r < ids.size(); ++r) {
    id_to_row_.get()[ids[r]] = static_cast<std::int64_t>(r);
  }
}

}  // namespace bench
