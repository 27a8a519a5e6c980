// An array whose elements start uninitialised: clearing what is written before it is read would
// cost time.
#pragma once

#include <array>
#include <cstdint>

namespace qx {

template <typename T, std::size_t kCount>
class UninitializedArray {
 public:
  T* data() { return values_.data(); }
  const T* data() const { return values_.data(); }

  // operator[] on a member array lets the compiler rule out aliasing with other members.
  T& operator[](std::int64_t i) { return values_[static_cast<std::size_t>(i)]; }
  const T& operator[](std::int64_t i) const { return values_[static_cast<std::size_t>(i)]; }

 private:
  std::array<T, kCount> values_;
};

}  // namespace qx
