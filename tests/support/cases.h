// What named tests share: extreme values, and an index of given rows in one line.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <numeric>

#include "support/host.h"

namespace qx_test {

inline constexpr std::int64_t kLowestId = std::numeric_limits<std::int64_t>::min();
inline constexpr std::int64_t kHighestId = std::numeric_limits<std::int64_t>::max();
inline constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
inline constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();
inline constexpr float kInfinity = std::numeric_limits<float>::infinity();
inline constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
inline constexpr float kDenormal = std::numeric_limits<float>::denorm_min();

// Counts below 1; and as unsigned numbers, where 2^31 and above stand for a number below 0.
inline constexpr std::int32_t kNoCounts[] = {0, -1, kLowest};
inline constexpr std::uint32_t kUnsignedNoCounts[] = {0u, 0xFFFFFFFFu, 0x80000000u};

// With dimension 1 and this query a row's score is its only component.
inline const Floats kOne{1};

// Floats that a copy keeps only if it copies bits: signalling NaNs among them.
inline const Floats kOddBits{-0.0f, std::bit_cast<float>(0x7F800001u),
                             std::bit_cast<float>(0xFFC12345u), kDenormal};

inline Ids ids_from(std::int64_t first, std::int64_t count) {
  Ids ids(static_cast<std::size_t>(count));
  std::iota(ids.begin(), ids.end(), first);
  return ids;
}

inline Found empty_slots(std::size_t k) { return found(std::vector<Hit>(k, kEmptySlot)); }

// An index with a sealed base.
class Sealed : public Index {
 public:
  Sealed(std::int32_t dim, const Ids& ids, const Floats& vectors, const Partitions& parts = {})
      : Index(1) {
    seal(*this, dim, ids, vectors, parts);
  }
};

// A structure of one list, which searches scan, with these members.
inline Ivf one_list(const Ids& members) {
  return {1, 1, {1}, members, {0, static_cast<std::int32_t>(members.size())}};
}

}  // namespace qx_test
