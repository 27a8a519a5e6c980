// Views of the engine's arrays and maps that tests can compare.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "store/qx_index.h"

namespace qx_test {

template <typename T>
std::vector<T> values_of(const T* data, std::int64_t count) {
  return count == 0 ? std::vector<T>() : std::vector<T>(data, data + count);
}

template <typename T>
std::vector<T> values_of(const qx::Array<T>& array) {
  return values_of(array.data, array.length);
}

inline std::vector<std::int64_t> id_to_row(const QxIndex* index) {
  return values_of(index->id_to_row, index->max_base_id + 1);
}

// The value of a key, or none: a key with the value 0 is not an absent key.
inline std::optional<std::int64_t> value_of(const qx::Int64Map& map, std::int64_t key) {
  const std::int64_t* const value = map.find(key);
  return value == nullptr ? std::nullopt : std::optional<std::int64_t>(*value);
}

}  // namespace qx_test
