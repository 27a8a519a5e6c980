// Room for values that are written before they are read. It has none to begin with: clearing it
// would cost time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qx {

template <typename T, std::size_t kCount>
class Room {
 public:
  T* data() { return values_.data(); }
  const T* data() const { return values_.data(); }

  // Elements of an array member: through a pointer, each write could change other members.
  T& operator[](std::int64_t i) { return values_[static_cast<std::size_t>(i)]; }
  const T& operator[](std::int64_t i) const { return values_[static_cast<std::size_t>(i)]; }

 private:
  std::array<T, kCount> values_;
};

}  // namespace qx
