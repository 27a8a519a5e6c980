// Rows for scans, made so that a wrong pruning threshold or estimate prunes a row of the results.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>
#include <vector>

#include "read/scan.h"
#include "support/random.h"

namespace qx_test {

enum class Family {
  kSmooth,
  kIntegers,      // many exact ties
  kTwoValued,     // components 0 and 1
  kAllEqual,      // one row again and again
  kDuplicates,    // few different rows, the best ones everywhere
  kAscending,     // every row enters
  kDescending,    // none after the first does
  kClustered,     // scores a few units in the last place apart
  kCancelling,    // large products that cancel, so that rounding decides the rest
  kOutlier,       // one row of large components among rows of tiny ones
  kMixed,         // magnitudes from 2^-140 to 2^60
  kHuge,          // products overflow
  kInfinities,    // infinite components
  kNaNs,          // NaNs among finite components
  kSubnormals,    // nothing else
  kLow,           // scores around the one of an empty slot
  kAllNegative,   // every component below 0; scores too, or large products cancel
  kZeroQuery,     // every score is 0
  kNaNQuery,      // every score is a NaN
  kInfiniteQuery  // infinite scores, and NaNs
};
inline constexpr int kFamilies = static_cast<int>(Family::kInfiniteQuery) + 1;

struct ScanRows {
  std::int64_t width;
  std::int64_t count;
  std::vector<float> query;
  std::vector<float> vectors;

  float* row(std::int64_t i) { return vectors.data() + i * width; }
};

// The largest magnitude of floats, NaNs aside.
inline float magnitude_of(const std::vector<float>& floats) {
  float largest = 0;
  for (const float value : floats) {
    if (std::abs(value) > largest) largest = std::abs(value);
  }
  return largest;
}

inline float unit(Random& random) { return draw_float(random, Values::kSmooth); }

inline float power(Random& random, int low, int high) {
  return std::ldexp(1 + std::abs(unit(random)), static_cast<int>(random.between(low, high))) *
         (random.percent(50) ? 1.0f : -1.0f);
}

inline float integer(Random& random) { return static_cast<float>(random.between(-2, 2)); }
inline float positive(Random& random) { return std::abs(unit(random)) + 0x1p-30f; }

// A query of ones and twos, and rows with two large products that cancel: what is left of the small
// ones depends on the order in which they are added.
inline void draw_cancelling(Random& random, ScanRows& rows) {
  for (float& q : rows.query) q = random.percent(50) ? 1.0f : 2.0f;
  for (std::int64_t i = 0; i < rows.count; ++i) {
    float* const row = rows.row(i);
    for (std::int64_t j = 0; j < rows.width; ++j) row[j] = unit(random);
    const std::int64_t at = random.between(0, rows.width - 1);
    const std::int64_t opposite = (at + random.between(1, rows.width - 1)) % rows.width;
    const float large = 0x1p+20f * static_cast<float>(random.between(4, 8));
    row[at] = large / rows.query[static_cast<std::size_t>(at)];
    row[opposite] = -large / rows.query[static_cast<std::size_t>(opposite)];
  }
}

// The same of negative components alone, by factors of alternating sign.
inline void draw_negative_cancelling(Random& random, ScanRows& rows) {
  for (std::int64_t j = 0; j < rows.width; ++j) {
    rows.query[static_cast<std::size_t>(j)] = j % 2 == 0 ? 1.0f : -1.0f;
  }
  for (std::int64_t i = 0; i < rows.count; ++i) {
    float* const row = rows.row(i);
    for (std::int64_t j = 0; j < rows.width; ++j) row[j] = -positive(random);
    const float large = -0x1p+20f * static_cast<float>(random.between(4, 8));
    row[2 * random.between(0, rows.width / 2 - 1)] = large;
    row[2 * random.between(0, rows.width / 2 - 1) + 1] = large;
  }
}

// Rows that differ from one row in the last bits of some components.
inline void draw_clustered(Random& random, ScanRows& rows) {
  for (float& q : rows.query) q = unit(random);
  for (std::int64_t j = 0; j < rows.width; ++j) rows.row(0)[j] = unit(random);
  for (std::int64_t i = 1; i < rows.count; ++i) {
    for (std::int64_t j = 0; j < rows.width; ++j) {
      const float direction = random.percent(50) ? 2.0f : -2.0f;
      const float same = rows.row(0)[j];
      rows.row(i)[j] = random.percent(30) ? std::nextafter(same, direction) : same;
    }
  }
}

// Rows whose scores rise, or fall, from one to the next.
inline void draw_steps(Random& random, ScanRows& rows, bool rising) {
  for (float& q : rows.query) q = 1 + std::abs(unit(random));
  for (std::int64_t i = 0; i < rows.count; ++i) {
    const auto step = static_cast<float>(rising ? i : rows.count - i);
    for (std::int64_t j = 0; j < rows.width; ++j) rows.row(i)[j] = step;
  }
}

inline void draw_duplicates(Random& random, ScanRows& rows) {
  constexpr std::int64_t kDifferent = 7;
  for (float& q : rows.query) q = unit(random);
  for (std::int64_t i = 0; i < rows.count; ++i) {
    if (i < kDifferent) {
      for (std::int64_t j = 0; j < rows.width; ++j) rows.row(i)[j] = unit(random);
    } else {
      std::copy_n(rows.row(random.between(0, kDifferent - 1)), rows.width, rows.row(i));
    }
  }
}

// Replaces some components, the last ones more often.
inline void sprinkle(Random& random, ScanRows& rows, const std::vector<float>& values) {
  for (std::int64_t i = 0; i < rows.count; ++i) {
    if (!random.percent(10)) continue;
    const std::int64_t from = random.percent(50) ? 0 : std::max<std::int64_t>(0, rows.width - 8);
    rows.row(i)[random.between(from, rows.width - 1)] = random.any_of(values);
  }
}

// How a component of a row and a factor of the query are drawn.
struct Recipe {
  float (*component)(Random&) = unit;
  float (*factor)(Random&) = unit;
};

inline Recipe recipe_of(Family family) {
  const auto near_one = [](Random& random) { return power(random, -3, 3); };
  switch (family) {
    case Family::kIntegers:
      return {integer, integer};
    case Family::kTwoValued:
      return {[](Random& r) { return static_cast<float>(r.between(0, 1)); }, integer};
    case Family::kOutlier:
      return {[](Random& r) { return unit(r) * 1e-10f; }, near_one};
    case Family::kMixed:
      return {[](Random& r) { return power(r, -140, 60); }, near_one};
    case Family::kHuge:
      return {[](Random& r) { return power(r, 90, 120); },
              [](Random& r) { return power(r, 5, 10); }};
    case Family::kSubnormals:
      return {[](Random& r) { return power(r, -149, -130); },
              [](Random& r) { return r.percent(50) ? power(r, -149, -120) : unit(r); }};
    case Family::kLow:
      return {[](Random& r) { return power(r, 88, 102); }, unit};
    case Family::kAllNegative:
      return {[](Random& r) { return -positive(r); }, positive};
    case Family::kZeroQuery:
      return {unit, [](Random& r) { return r.percent(50) ? 0.0f : -0.0f; }};
    default:
      return {};
  }
}

// `count` rows of `width` components, both above 1, and a query for them.
inline ScanRows draw_scan_rows(Random& random, Family family, std::int64_t width,
                               std::int64_t count) {
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  ScanRows rows{width, count, std::vector<float>(static_cast<std::size_t>(width)),
                std::vector<float>(static_cast<std::size_t>(width * count))};
  const bool all_negative = family == Family::kAllNegative;
  const bool steps = family == Family::kAscending || family == Family::kDescending;
  if (all_negative && random.percent(50)) return draw_negative_cancelling(random, rows), rows;
  if (family == Family::kCancelling) return draw_cancelling(random, rows), rows;
  if (family == Family::kClustered) return draw_clustered(random, rows), rows;
  if (steps) return draw_steps(random, rows, family == Family::kAscending), rows;
  if (family == Family::kDuplicates) return draw_duplicates(random, rows), rows;
  const Recipe recipe = recipe_of(family);
  for (float& factor : rows.query) factor = recipe.factor(random);
  for (float& component : rows.vectors) component = recipe.component(random);
  const auto any_place = static_cast<std::size_t>(random.between(0, width - 1));
  if (family == Family::kAllEqual) {
    for (std::int64_t i = 1; i < count; ++i) std::copy_n(rows.row(0), width, rows.row(i));
  } else if (family == Family::kOutlier) {
    for (std::int64_t j = 0; j < width; ++j) rows.row(count / 2)[j] = unit(random) * 1e18f;
  } else if (family == Family::kInfinities) {
    sprinkle(random, rows, {kInfinity, -kInfinity, kNaN});
  } else if (family == Family::kNaNs) {
    sprinkle(random, rows, {kNaN, -kNaN});
  } else if (family == Family::kNaNQuery) {
    rows.query[any_place] = kNaN;
  } else if (family == Family::kInfiniteQuery) {
    rows.query[any_place] = random.percent(50) ? kInfinity : -kInfinity;
  }
  return rows;
}

struct Result {
  std::vector<std::int64_t> ids;
  std::vector<float> scores;

  // Compares bits.
  bool operator==(const Result& other) const {
    return ids == other.ids && scores.size() == other.scores.size() &&
           std::memcmp(scores.data(), other.scores.data(), scores.size() * sizeof(float)) == 0;
  }
};

// The k best rows of a base, whose ids are their numbers.
inline Result scan_base(const std::vector<float>& vectors, const std::vector<float>& query,
                        std::int64_t k, bool contiguous) {
  const std::int64_t count = std::ssize(vectors) / std::ssize(query);
  std::vector<std::int64_t> ids(static_cast<std::size_t>(count));
  std::iota(ids.begin(), ids.end(), 0);
  Result found{std::vector<std::int64_t>(static_cast<std::size_t>(k)),
               std::vector<float>(static_cast<std::size_t>(k))};
  QxIndex index;
  index.dim = static_cast<std::uint32_t>(query.size());
  index.base_vectors = const_cast<float*>(vectors.data());
  index.base_magnitude = magnitude_of(vectors);
  qx::Scan scan(index, query.data(), {k, found.ids.data(), found.scores.data()}, count);
  if (contiguous) {
    scan.add_base_rows(0, count, ids.data());
  } else {
    for (const std::int64_t id : ids) scan.add({false, id}, id);
  }
  scan.finish();
  return found;
}

}  // namespace qx_test
