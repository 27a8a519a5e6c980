// Small things that every part of the index uses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <qx_runtime.hpp>
#include <string>
#include <vector>

namespace qx {

// A row or a count, where a container is asked.
inline std::size_t at(std::int64_t position) { return static_cast<std::size_t>(position); }

inline void require(bool condition, const std::string& message) {
  if (!condition) throw InvalidArgument(message);
}

// Where the part of each rank begins, one part after the other.
inline std::vector<int> begins_of(const std::vector<int>& counts) {
  std::vector<int> begins(counts.size());
  std::exclusive_scan(counts.begin(), counts.end(), begins.begin(), 0);
  return begins;
}

}  // namespace qx
