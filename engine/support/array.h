// The growable array. It knows its elements as bytes to move: they must be trivially copyable, and
// what they own is released by whoever knows them. Copying an Array copies the reference, not the
// elements; exactly one holder releases it.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "support/abort.h"
#include "support/memory.h"

namespace qx {

// Invariants: 0 <= length <= capacity. `data` is a block of `capacity` elements, null exactly when
// capacity is 0. Elements from `length` on have no value.
template <typename T>
struct Array {
  static_assert(std::is_trivially_copyable_v<T>);

  T* data = nullptr;
  std::int64_t length = 0;
  std::int64_t capacity = 0;

  // Element `index`, which must exist.
  T& at(std::int64_t index, SourcePlace place = SourcePlace::here()) {
    if (index < 0 || index >= length) abort_index(index, length, place);
    return data[index];
  }
  const T& at(std::int64_t index, SourcePlace place = SourcePlace::here()) const {
    return const_cast<Array*>(this)->at(index, place);
  }

  // Elements `first` to `first + count - 1`, which must all exist; the first that does not is the
  // one reported. `count` is above 0.
  T* range(std::int64_t first, std::int64_t count, SourcePlace place = SourcePlace::here()) {
    if (first < 0 || first >= length) abort_index(first, length, place);
    if (count > length - first) abort_index(length, length, place);
    return data + first;
  }
  const T* range(std::int64_t first, std::int64_t count,
                 SourcePlace place = SourcePlace::here()) const {
    return const_cast<Array*>(this)->range(first, count, place);
  }

  void append(const T& value) {
    reserve(length + 1);
    data[length++] = value;
  }

  // Appends `count` elements; nothing, without reading, when `count` is below 1.
  void append(const T* values, std::int64_t count) {
    if (count < 1) return;
    reserve(length + count);
    std::memcpy(data + length, values, static_cast<std::size_t>(count) * sizeof(T));
    length += count;
  }

  // A new array of exactly `count` copied elements; empty, without reading, when `count` is
  // below 1.
  static Array copy_of(const T* values, std::int64_t count) {
    Array copy;
    if (count < 1) return copy;
    copy.data = static_cast<T*>(allocate(count, sizeof(T)));
    copy.length = copy.capacity = count;
    std::memcpy(copy.data, values, static_cast<std::size_t>(count) * sizeof(T));
    return copy;
  }

  // Gives the storage back; the array is empty afterwards.
  void release() {
    qx::release(data);
    *this = Array();
  }

 private:
  // Doubling from 1 makes an append constant time on average.
  void reserve(std::int64_t wanted) {
    if (wanted <= capacity) return;
    std::int64_t grown = capacity == 0 ? 1 : capacity;
    while (grown < wanted) grown *= 2;
    data = static_cast<T*>(reallocate(data, grown, sizeof(T)));
    capacity = grown;
  }
};

}  // namespace qx
