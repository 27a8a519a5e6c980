// Tiles by AMX: 16 rows of 64 bytes with 64 levels of 16 queries in one instruction.
#include "batch/batch.h"
#include "support/bits.h"

#if defined(__x86_64__) && defined(__linux__)
#include <cpuid.h>
#include <immintrin.h>
#include <sys/syscall.h>
#include <unistd.h>

// A false alarm of g++ 12 about _mm512_undefined_ps.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// clang-format off
#define QX_TILES __attribute__((target("amx-tile,amx-int8,avx512f,avx512bw,avx512vl")))
// clang-format on

namespace qx::collection {
namespace {

constexpr std::int64_t kTileRows = 16;
constexpr std::int64_t kTileBytes = 64;

// The layout is the CPU's.
struct alignas(64) Configuration {
  std::uint8_t palette = 1;
  std::uint8_t start_row = 0;
  std::uint8_t reserved[14] = {};
  std::uint16_t row_bytes[16] = {64, 64, 64, 64, 64, 64, 64, 64};
  std::uint8_t rows[16] = {16, 16, 16, 16, 16, 16, 16, 16};
};

// The codes of a group of rows, a byte each, as their levels are ordered. Rows from `count` on are
// copies of the last one.
QX_TILES void unpack_group(const CodeView& codes, std::int64_t first, std::int64_t count,
                           std::int64_t row_levels, std::uint8_t* unpacked) {
  constexpr int kSelect = 0xCA;  // of b where a is set, of c elsewhere
  const __m512i low_halves = _mm512_set1_epi8(0x0F);
  const std::int64_t half = row_levels / 2;
  for (std::int64_t i = 0; i < kCodeGroupRows; ++i, unpacked += row_levels) {
    const std::int64_t offset = (first + (i < count ? i : count - 1)) * codes.row_bytes;
    for (std::int64_t j = 0; j < half; j += kTileBytes) {
      const __m512i high = _mm512_loadu_si512(codes.high + offset + j);
      const __m512i low = _mm512_loadu_si512(codes.low + offset + j);
      const __m512i raised = _mm512_slli_epi16(high, 4);
      const __m512i lowered = _mm512_srli_epi16(low, 4);
      _mm512_storeu_si512(unpacked + j,
                          _mm512_ternarylogic_epi32(low_halves, low, raised, kSelect));
      _mm512_storeu_si512(unpacked + half + j,
                          _mm512_ternarylogic_epi32(low_halves, lowered, high, kSelect));
    }
  }
}

// The sums of 32 rows with 32 queries, row after row.
QX_TILES void multiply(const std::uint8_t* rows, const std::int8_t* levels, std::int64_t row_levels,
                       std::int32_t* sums) {
  const std::uint8_t* const other_rows = rows + kTileRows * row_levels;
  const std::int8_t* const other_levels = levels + kTileQueries * row_levels;
  _tile_zero(4);
  _tile_zero(5);
  _tile_zero(6);
  _tile_zero(7);
  for (std::int64_t j = 0; j < row_levels; j += kTileBytes) {
    _tile_loadd(0, rows + j, row_levels);
    _tile_loadd(1, other_rows + j, row_levels);
    _tile_loadd(2, levels + j * kTileQueries, kTileBytes);
    _tile_loadd(3, other_levels + j * kTileQueries, kTileBytes);
    _tile_dpbusd(4, 0, 2);
    _tile_dpbusd(5, 0, 3);
    _tile_dpbusd(6, 1, 2);
    _tile_dpbusd(7, 1, 3);
  }
  constexpr std::int64_t kStride = kQueriesTogether * std::int64_t{sizeof(std::int32_t)};
  _tile_stored(4, sums, kStride);
  _tile_stored(5, sums + kTileQueries, kStride);
  _tile_stored(6, sums + kTileRows * kQueriesTogether, kStride);
  _tile_stored(7, sums + kTileRows * kQueriesTogether + kTileQueries, kStride);
}

// What 16 queries need for the bounds of a group of rows.
struct Lanes {
  __m512 factor;
  __m512 query_sum;
  __m512 allowance;
  __m512 limit;
};

// One bit for each of 16 queries that a row may be a hit of. The bound is that of kernels/codes.h;
// a NaN is not below.
QX_TILES inline __mmask16 keep(const std::int32_t* sums, std::uint32_t constants,
                               const Lanes& lanes) {
  const __m512 lo = _mm512_castsi512_ps(_mm512_set1_epi32(static_cast<int>(constants & ~0xFFFFu)));
  const __m512 step = _mm512_castsi512_ps(_mm512_set1_epi32(static_cast<int>(constants << 16)));
  const __m512 sum = _mm512_cvtepi32_ps(_mm512_loadu_si512(sums));
  const __m512 in_steps = _mm512_add_ps(_mm512_mul_ps(lanes.factor, sum), lanes.allowance);
  const __m512 bound =
      _mm512_add_ps(_mm512_mul_ps(step, in_steps), _mm512_mul_ps(lo, lanes.query_sum));
  return _mm512_cmp_ps_mask(bound, lanes.limit, _CMP_NLT_UQ);
}

}  // namespace

// The system saves tiles only for processes that have asked it to.
bool TileKernel::has_tiles() {
  constexpr unsigned kTile = 1u << 24;
  constexpr unsigned kInt8 = 1u << 25;
  constexpr long kRequestPermission = 0x1023;
  constexpr long kTileData = 18;
  unsigned a = 0;
  unsigned b = 0;
  unsigned c = 0;
  unsigned d = 0;
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
         __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (d & kTile) != 0 && (d & kInt8) != 0 &&
         syscall(SYS_arch_prctl, kRequestPermission, kTileData) == 0;
}

QX_TILES std::int64_t TileKernel::judge(const CodeView& codes, std::int64_t first,
                                        std::int64_t count, const CodedBatch& batch,
                                        const float* limits, std::vector<std::uint8_t>& space,
                                        Pair* out) const {
  const Configuration configuration;
  alignas(64) std::int32_t sums[kCodeGroupRows * kQueriesTogether];
  const auto& numbers = batch.numbers_;
  space.resize(static_cast<std::size_t>(kCodeGroupRows * batch.row_levels_));
  Pair* next = out;
  _tile_loadconfig(&configuration);
  for (std::int64_t group = 0; group < count; group += kCodeGroupRows) {
    const std::int64_t rows = count - group < kCodeGroupRows ? count - group : kCodeGroupRows;
    const std::uint32_t* const constants = codes.constants + first + group;
    const CodeNorms& norms = codes.norms[(first + group) / kCodeGroupRows];
    const __m512 residual = _mm512_set1_ps(norms.residual[static_cast<int>(CodeBits::kEight)]);
    const __m512 spread = _mm512_set1_ps(norms.spread);
    unpack_group(codes, first + group, rows, batch.row_levels_, space.data());
    for (std::int64_t query = 0; query < batch.size_; query += kTileQueries) {
      if (query % kQueriesTogether == 0) {
        multiply(space.data(), batch.tiles_.data() + query * batch.row_levels_, batch.row_levels_,
                 sums);
      }
      const auto load = [&](const std::vector<float>& all)
                            QX_TILES { return _mm512_loadu_ps(all.data() + query); };
      const __m512 allowance =
          _mm512_add_ps(_mm512_add_ps(load(numbers.fixed),
                                      _mm512_mul_ps(residual, load(numbers.residual_weight))),
                        _mm512_mul_ps(spread, load(numbers.spread_weight)));
      const std::int64_t queries = batch.size_ - query;
      const auto all = static_cast<__mmask16>(first_bits(queries < 16 ? queries : 16));
      const Lanes lanes = {load(numbers.factor), load(numbers.query_sum), allowance,
                           _mm512_maskz_loadu_ps(all, limits + query)};
      for (std::int64_t i = 0; i < rows; ++i) {
        const std::int32_t* const row_sums = sums + i * kQueriesTogether + query % kQueriesTogether;
        for (unsigned kept = keep(row_sums, constants[i], lanes) & all; kept != 0;
             kept &= kept - 1) {
          *next++ = {static_cast<std::int32_t>(query + __builtin_ctz(kept)),
                     static_cast<std::int32_t>(group + i)};
        }
      }
    }
  }
  _tile_release();
  return next - out;
}

}  // namespace qx::collection
#else

namespace qx::collection {

bool TileKernel::has_tiles() { return false; }

std::int64_t TileKernel::judge(const CodeView&, std::int64_t, std::int64_t, const CodedBatch&,
                               const float*, std::vector<std::uint8_t>&, Pair*) const {
  return 0;
}

}  // namespace qx::collection
#endif
