// The truth: the numeric contract in plain C++. Read this kernel first; every other one returns
// the same bits.
#include "kernels/fused.h"
#include "kernels/row_views.h"
#include "kernels/tables.h"
#include "kernels/tuning.h"

namespace qx::portable {
namespace {

// ---- Scores ----

// Rows that are scored side by side: the chain of one cannot be shortened.
constexpr std::int64_t kGroupRows = 8;

void score_rows(const float* const* rows, std::int64_t dim, const float* query, float* scores) {
#if QX_HAS_FMA
  float sums[kGroupRows] = {};
  for (std::int64_t j = 0; j < dim; ++j) {
    for (std::int64_t i = 0; i < kGroupRows; ++i) {
      sums[i] = __builtin_fmaf(rows[i][j], query[j], sums[i]);
    }
  }
  for (std::int64_t i = 0; i < kGroupRows; ++i) scores[i] = sums[i];
#else
  TwoDoubles sums[kGroupRows / 2] = {};
  for (std::int64_t j = 0; j < dim; ++j) {
    const TwoDoubles factor = {query[j], query[j]};
    for (std::int64_t i = 0; i < kGroupRows / 2; ++i) {
      sums[i] = fused(TwoDoubles{rows[2 * i][j], rows[2 * i + 1][j]}, factor, sums[i]);
    }
  }
  for (std::int64_t i = 0; i < kGroupRows; ++i) scores[i] = static_cast<float>(sums[i / 2][i % 2]);
#endif
}

// ---- Estimates ----

// The widest registers that the compiler was told of, by way of the vector extension that g++ and
// clang share. On a CPU without FMA this is what makes the library fast.
#if defined(__AVX__)
constexpr std::int64_t kLanes = 8;
#else
constexpr std::int64_t kLanes = 4;
#endif
typedef float Lanes __attribute__((vector_size(kLanes * sizeof(float))));
typedef float Four __attribute__((vector_size(4 * sizeof(float))));

// Rows that are estimated side by side.
constexpr std::int64_t kRowsInFlight = 4;

template <typename Vector>
Vector load(const float* from) {
  Vector loaded;
  __builtin_memcpy(&loaded, from, sizeof(Vector));
  return loaded;
}

Four halve(const Lanes& lanes) {
  float parts[kLanes];
  __builtin_memcpy(parts, &lanes, sizeof(parts));
  Four four = load<Four>(parts);
  for (std::int64_t i = 4; i < kLanes; i += 4) four += load<Four>(parts + i);
  return four;
}

// The sums of a's and b's even and odd elements: a0 + a2, b0 + b2, a1 + a3, b1 + b3.
Four add_pairs(Four a, Four b) {
  return Four{a[0], b[0], a[1], b[1]} + Four{a[2], b[2], a[3], b[3]};
}

void add_lanes(const Lanes (&sums)[kRowsInFlight], float* estimates) {
  const Four first = add_pairs(halve(sums[0]), halve(sums[1]));
  const Four last = add_pairs(halve(sums[2]), halve(sums[3]));
  const Four all =
      Four{first[0], first[1], last[0], last[1]} + Four{first[2], first[3], last[2], last[3]};
  __builtin_memcpy(estimates, &all, sizeof(all));
}

void estimate_rows(const float* const* rows, std::int64_t dim, const float* query,
                   float* estimates) {
  Lanes sums[kRowsInFlight] = {};
  std::int64_t j = 0;
  for (; j + kLanes <= dim; j += kLanes) {
    const auto factors = load<Lanes>(query + j);
    for (std::int64_t i = 0; i < kRowsInFlight; ++i) sums[i] += load<Lanes>(rows[i] + j) * factors;
  }
  add_lanes(sums, estimates);
  for (; j < dim; ++j) {
    for (std::int64_t i = 0; i < kRowsInFlight; ++i) estimates[i] += rows[i][j] * query[j];
  }
}

// ---- Comparing ----

// Without a branch, which compilers turn into SIMD.
bool all_less(const float* numbers, float limit) {
  std::int32_t any = 0;
  for (std::int64_t i = 0; i < tuning::kComparedAtOnce; ++i) any |= numbers[i] < limit ? 0 : -1;
  return any == 0;
}

}  // namespace

bool supported() { return true; }

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      CacheLevel /*level*/, float* scores) {
  score_in_groups<kGroupRows, score_rows>(ContiguousRows{rows, dim}, count, dim, query, scores);
}

void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  score_in_groups<kGroupRows, score_rows>(ScatteredRows{rows}, count, dim, query, scores);
}

void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                         const float* query, CacheLevel /*level*/, float* estimates) {
  score_in_groups<kRowsInFlight, estimate_rows>(ContiguousRows{rows, dim}, count, dim, query,
                                                estimates);
}

void estimate_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                        const float* query, float* estimates) {
  score_in_groups<kRowsInFlight, estimate_rows>(ScatteredRows{rows}, count, dim, query, estimates);
}

// Mostly all numbers of a chunk are less.
std::uint64_t mask_not_less(const float* numbers, std::int64_t count, float limit) {
  constexpr std::int64_t kChunk = tuning::kComparedAtOnce;
  std::uint64_t bits = 0;
  for (std::int64_t first = 0; first < count; first += kChunk) {
    const std::int64_t size = count - first < kChunk ? count - first : kChunk;
    if (size == kChunk && all_less(numbers + first, limit)) continue;
    for (std::int64_t i = first; i < first + size; ++i) {
      // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): i < count <= 64
      bits |= static_cast<std::uint64_t>(numbers[i] < limit ? 0 : 1) << i;
    }
  }
  return bits;
}

// Without a branch on the bits: a number that is not selected is overwritten by the next. The last
// one is selected, so nothing after its place is touched.
void compress(const std::int64_t* numbers, std::uint64_t mask, std::int64_t selected,
              std::int64_t* out) {
  const std::int64_t* const end = out + selected;
  for (; out != end; ++numbers, mask >>= 1) {
    *out = *numbers;
    out += mask & 1;
  }
}

}  // namespace qx::portable
