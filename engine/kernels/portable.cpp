// The truth: the numeric contract in plain C++. Read this kernel first; every other one returns
// the same bits.
#include "kernels/kernels.h"
#include "support/compiler.h"

namespace qx {
namespace {

// Rows in flight. A row's chain cannot be shortened, so several are walked side by side.
constexpr std::int64_t kGroup = 8;

// Scores kGroup rows.
void score_group(const float* const* rows, std::int64_t dim, const float* query, float* scores) {
  float sums[kGroup] = {};
  for (std::int64_t j = 0; j < dim; ++j) {
    for (std::int64_t i = 0; i < kGroup; ++i) {
      sums[i] = __builtin_fmaf(rows[i][j], query[j], sums[i]);
    }
  }
  for (std::int64_t i = 0; i < kGroup; ++i) scores[i] = sums[i];
}

// The widest registers that the compiler was told of, by way of the vector extension that g++ and
// clang share. On a CPU without FMA this is what makes the library fast.
#if defined(__AVX__)
constexpr std::int64_t kLanes = 8;
#else
constexpr std::int64_t kLanes = 4;
#endif
typedef float Lanes __attribute__((vector_size(kLanes * sizeof(float))));
typedef float Four __attribute__((vector_size(4 * sizeof(float))));

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

// Rows that are estimated side by side.
constexpr std::int64_t kAbreast = 4;

// Estimates kAbreast rows.
void estimate_abreast(const float* const* rows, std::int64_t dim, const float* query,
                      float* estimates) {
  Lanes sums[kAbreast] = {};
  std::int64_t j = 0;
  for (; j + kLanes <= dim; j += kLanes) {
    const auto factors = load<Lanes>(query + j);
    for (std::int64_t i = 0; i < kAbreast; ++i) sums[i] += load<Lanes>(rows[i] + j) * factors;
  }
  const Four first = add_pairs(halve(sums[0]), halve(sums[1]));
  const Four last = add_pairs(halve(sums[2]), halve(sums[3]));
  const Four all =
      Four{first[0], first[1], last[0], last[1]} + Four{first[2], first[3], last[2], last[3]};
  __builtin_memcpy(estimates, &all, sizeof(all));
  for (; j < dim; ++j) {
    for (std::int64_t i = 0; i < kAbreast; ++i) estimates[i] += rows[i][j] * query[j];
  }
}

bool supported() { return true; }

void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  std::int64_t i = 0;
  for (; i + kGroup <= count; i += kGroup) score_group(rows + i, dim, query, scores + i);
  if (i == count) return;
  // Fewer rows: the last of them fills the group.
  const float* filled[kGroup];
  float group_scores[kGroup];
  for (std::int64_t r = 0; r < kGroup; ++r) filled[r] = rows[i + r < count ? i + r : count - 1];
  score_group(filled, dim, query, group_scores);
  for (std::int64_t r = 0; i + r < count; ++r) scores[i + r] = group_scores[r];
}

// Hands rows that lie one after the other, by their addresses, to a function for scattered rows.
template <std::int64_t Rows, typename Scattered>
void by_address(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                float* values, Scattered scattered) {
  for (std::int64_t first = 0; first < count; first += Rows) {
    const float* group[Rows];
    const std::int64_t size = count - first < Rows ? count - first : Rows;
    for (std::int64_t i = 0; i < size; ++i) group[i] = rows + (first + i) * dim;
    scattered(group, size, dim, query, values + first);
  }
}

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      Reach /*reach*/, float* scores) {
  by_address<kGroup>(rows, count, dim, query, scores, score_scattered);
}

void estimate_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                        const float* query, float* estimates) {
  std::int64_t i = 0;
  for (; i + kAbreast <= count; i += kAbreast) {
    estimate_abreast(rows + i, dim, query, estimates + i);
  }
  score_scattered(rows + i, count - i, dim, query, estimates + i);
}

void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                         const float* query, Reach /*reach*/, float* estimates) {
  by_address<kAbreast>(rows, count, dim, query, estimates, estimate_scattered);
}

std::uint64_t not_below(const float* numbers, std::int64_t count, float limit) {
  // Mostly all are below, which runs without branches find out, as SIMD.
  constexpr std::int64_t kRun = 32;
  std::uint64_t bits = 0;
  for (std::int64_t first = 0; first < count; first += kRun) {
    const std::int64_t size = count - first < kRun ? count - first : kRun;
    std::int32_t any = 0;
    for (std::int64_t i = 0; i < kRun && size == kRun; ++i) {
      any |= numbers[first + i] < limit ? 0 : -1;
    }
    if (any == 0 && size == kRun) continue;
    for (std::int64_t i = first; i < first + size; ++i) {
      bits |= static_cast<std::uint64_t>(numbers[i] < limit ? 0 : 1) << i;
    }
  }
  return bits;
}

// Without a branch on the bits: a number that is not selected is overwritten by the next. The last
// one is selected, so no place behind it is touched.
void copy_selected(const std::int64_t* numbers, std::uint64_t mask, std::int64_t selected,
                   std::int64_t* out) {
  const std::int64_t* const end = out + selected;
  for (; out != end; ++numbers, mask >>= 1) {
    *out = *numbers;
    out += mask & 1;
  }
}

}  // namespace

extern constinit const Kernels kPortableKernels = {
    "portable",          supported,          score_contiguous, score_scattered,
    estimate_contiguous, estimate_scattered, not_below,        copy_selected};

}  // namespace qx
