// The kernel for x86-64 with AVX2 and FMA: eight rows per register, one row per lane.
//
// Only plain types and the intrinsics are included: an inline function of the standard library,
// compiled here for a wide instruction set, could be merged into code that runs on any CPU.
#include "kernels/kernels.h"

#if defined(__x86_64__)
#include <immintrin.h>

#define QX_AVX2 __attribute__((target("avx2,fma")))

namespace qx {
namespace {

constexpr std::int64_t kLanes = 8;
constexpr std::int64_t kGroup = 2 * kLanes;  // Two chains hide half of each other's latency.
constexpr std::int64_t kStep = 4;            // Columns that one transposition turns.

// Four columns of eight rows, turned so that columns[c] holds component c of rows 0 to 7.
struct Columns {
  __m256 columns[kStep];
};

// Rows i and i + 4 share a register, so that transposing 4 x 4 inside each 128-bit half puts the
// rows into natural order without crossing the halves.
QX_AVX2 inline Columns load_columns(const float* const* rows, std::int64_t at) {
  __m256 pair[4];
  for (int i = 0; i < 4; ++i) {
    const __m256 low = _mm256_castps128_ps256(_mm_loadu_ps(rows[i] + at));
    pair[i] = _mm256_insertf128_ps(low, _mm_loadu_ps(rows[i + 4] + at), 1);
  }
  const __m256 low01 = _mm256_unpacklo_ps(pair[0], pair[1]);
  const __m256 high01 = _mm256_unpackhi_ps(pair[0], pair[1]);
  const __m256 low23 = _mm256_unpacklo_ps(pair[2], pair[3]);
  const __m256 high23 = _mm256_unpackhi_ps(pair[2], pair[3]);
  return {{_mm256_shuffle_ps(low01, low23, 0x44), _mm256_shuffle_ps(low01, low23, 0xEE),
           _mm256_shuffle_ps(high01, high23, 0x44), _mm256_shuffle_ps(high01, high23, 0xEE)}};
}

// One column of eight rows, element by element: for rows shorter than a step.
QX_AVX2 inline __m256 load_column(const float* const* rows, std::int64_t at) {
  return _mm256_setr_ps(rows[0][at], rows[1][at], rows[2][at], rows[3][at], rows[4][at],
                        rows[5][at], rows[6][at], rows[7][at]);
}

// Scores kGroup rows. The columns that do not fill a step are taken from the row's last four, of
// which the first have been used already: nothing is read past a row.
QX_AVX2 void score_group(const float* const* rows, std::int64_t dim, const float* query,
                         float* scores) {
  __m256 sum0 = _mm256_setzero_ps();
  __m256 sum1 = _mm256_setzero_ps();
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
    const Columns block0 = load_columns(rows, j);
    const Columns block1 = load_columns(rows + kLanes, j);
    for (int c = 0; c < kStep; ++c) {
      const __m256 factor = _mm256_broadcast_ss(query + j + c);
      sum0 = _mm256_fmadd_ps(block0.columns[c], factor, sum0);
      sum1 = _mm256_fmadd_ps(block1.columns[c], factor, sum1);
    }
  }
  if (j < dim && dim >= kStep) {
    const Columns block0 = load_columns(rows, dim - kStep);
    const Columns block1 = load_columns(rows + kLanes, dim - kStep);
    for (std::int64_t c = j - (dim - kStep); c < kStep; ++c) {
      const __m256 factor = _mm256_broadcast_ss(query + dim - kStep + c);
      sum0 = _mm256_fmadd_ps(block0.columns[c], factor, sum0);
      sum1 = _mm256_fmadd_ps(block1.columns[c], factor, sum1);
    }
  } else {
    for (; j < dim; ++j) {
      const __m256 factor = _mm256_broadcast_ss(query + j);
      sum0 = _mm256_fmadd_ps(load_column(rows, j), factor, sum0);
      sum1 = _mm256_fmadd_ps(load_column(rows + kLanes, j), factor, sum1);
    }
  }
  _mm256_storeu_ps(scores, sum0);
  _mm256_storeu_ps(scores + kLanes, sum1);
}

// Scores fewer than kGroup rows, the last of which fills the lanes that are left over.
void score_last_rows(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  const float* group[kGroup];
  float group_scores[kGroup];
  for (std::int64_t i = 0; i < kGroup; ++i) group[i] = rows[i < count ? i : count - 1];
  score_group(group, dim, query, group_scores);
  for (std::int64_t i = 0; i < count; ++i) scores[i] = group_scores[i];
}

bool supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
}

void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  const std::int64_t whole = count - count % kGroup;
  for (std::int64_t i = 0; i < whole; i += kGroup) score_group(rows + i, dim, query, scores + i);
  if (whole < count) score_last_rows(rows + whole, count - whole, dim, query, scores + whole);
}

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      float* scores) {
  for (std::int64_t first = 0; first < count; first += kGroup) {
    const float* group[kGroup];
    const std::int64_t size = count - first < kGroup ? count - first : kGroup;
    for (std::int64_t i = 0; i < size; ++i) group[i] = rows + (first + i) * dim;
    score_scattered(group, size, dim, query, scores + first);
  }
}

}  // namespace

extern constinit const Kernels kAvx2Kernels = {"avx2", supported, score_contiguous,
                                               score_scattered};

}  // namespace qx

#undef QX_AVX2
#endif
