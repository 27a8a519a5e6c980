// Small things that every part of the index uses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
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

// The engine counts the ids of a call in 32 bits.
inline void require_countable(std::size_t ids, const std::string& what) {
  require(ids <= std::numeric_limits<std::int32_t>::max(),
          std::to_string(ids) + " " + what + "; a call takes 2^31 - 1 at most");
}

// Where the part of each rank begins, one part after the other.
inline std::vector<int> begins_of(const std::vector<int>& counts) {
  std::vector<int> begins(counts.size());
  std::exclusive_scan(counts.begin(), counts.end(), begins.begin(), 0);
  return begins;
}

}  // namespace qx
