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

inline std::string text_of(const std::string& text) { return text; }
template <typename Number>
requires std::is_arithmetic_v<Number> std::string text_of(Number number) {
  return std::to_string(number);
}

// The parts make the message, only when it is needed.
template <typename... Parts>
void require(bool condition, const Parts&... parts) {
  if (!condition) throw InvalidArgument((std::string() + ... + text_of(parts)));
}

// The engine counts the ids of a call in 32 bits.
inline void require_countable(std::size_t ids, const char* what) {
  require(ids <= std::numeric_limits<std::int32_t>::max(), ids, " ", what,
          "; a call takes 2^31 - 1 at most");
}

// Where the part of each rank begins, one part after the other.
inline std::vector<int> begins_of(const std::vector<int>& counts) {
  std::vector<int> begins(counts.size());
  std::exclusive_scan(counts.begin(), counts.end(), begins.begin(), 0);
  return begins;
}

// The numbers 0 to count - 1.
inline std::vector<std::int64_t> numbered(std::int64_t count) {
  std::vector<std::int64_t> numbers(at(count));
  std::iota(numbers.begin(), numbers.end(), std::int64_t{0});
  return numbers;
}

}  // namespace qx
