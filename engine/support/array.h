// The growable array. It owns its elements and can be moved, not copied.
#pragma once

#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "support/abort.h"
#include "support/memory.h"

namespace qx {

// Invariants: 0 <= length <= capacity. `data` is a block of `capacity` elements, null if and only
// if capacity is 0. Elements from `length` on are not initialised.
//
// Growth moves elements as bytes: a type that owns something must not point into itself.
template <typename T>
struct Array {
  T* data = nullptr;
  std::int64_t length = 0;
  std::int64_t capacity = 0;

  Array() = default;
  Array(Array&& other) noexcept { swap(other); }
  Array& operator=(Array other) noexcept {
    swap(other);
    return *this;
  }
  // Destroys the elements in order.
  ~Array() {
    std::destroy_n(data, length);
    qx::release(data);
  }

  // A new array of exactly `count` copied elements. Empty, without reading, if count < 1.
  static Array copy_of(const T* values, std::int64_t count) {
    Array copy = of_length(count < 1 ? 0 : count);
    copy_bytes(copy.data, values, copy.length);
    return copy;
  }

  // A new array of exactly `count` elements, which are not initialised.
  static Array of_length(std::int64_t count) {
    Array array;
    array.data = static_cast<T*>(allocate(count, sizeof(T)));
    array.length = array.capacity = count;
    return array;
  }

  // Element `index`. Ends the process if it does not exist.
  T& at(std::int64_t index, SourceLocation location = SourceLocation::current()) {
    return *range(index, 1, location);
  }
  const T& at(std::int64_t index, SourceLocation location = SourceLocation::current()) const {
    return *range(index, 1, location);
  }

  // Elements `first` to `first + count - 1`. Ends the process if one does not exist, and names the
  // first such. Requires: count >= 1.
  T* range(std::int64_t first, std::int64_t count,
           SourceLocation location = SourceLocation::current()) {
    check(first, count, location);
    return data + first;
  }
  const T* range(std::int64_t first, std::int64_t count,
                 SourceLocation location = SourceLocation::current()) const {
    check(first, count, location);
    return data + first;
  }

  void append(T value) {
    reserve(length + 1);
    std::construct_at(data + length++, std::move(value));
  }

  // Appends `count` copies; nothing, without reading, if count < 1.
  void append(const T* values, std::int64_t count) {
    if (count < 1) return;
    reserve(length + count);
    copy_bytes(data + length, values, count);
    length += count;
  }

  // Destroys the elements and releases the storage. The array is empty afterwards.
  void release() { *this = Array(); }

 private:
  void swap(Array& other) {
    std::swap(data, other.data);
    std::swap(length, other.length);
    std::swap(capacity, other.capacity);
  }

  static void copy_bytes(T* to, const T* from, std::int64_t count) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (count > 0) std::memcpy(to, from, static_cast<std::size_t>(count) * sizeof(T));
  }

  void check(std::int64_t first, std::int64_t count, SourceLocation location) const {
    QX_ASSERT(count >= 1);
    if (first >= 0 && count <= length - first) return;
    abort_index(first < 0 || first > length ? first : length, length, location);
  }

  // Doubling from 1 makes an append constant time on average.
  void reserve(std::int64_t wanted) {
    QX_ASSERT(length >= 0 && length <= capacity && (data == nullptr) == (capacity == 0));
    if (wanted <= capacity) return;
    std::int64_t grown = capacity == 0 ? 1 : capacity;
    while (grown < wanted) grown *= 2;
    data = static_cast<T*>(reallocate(data, grown, sizeof(T)));
    capacity = grown;
  }
};

}  // namespace qx
