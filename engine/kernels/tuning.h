// Every number of the kernels that was chosen by measurement. None changes a result: each decides
// which function, or how much prefetching, gives the same scores or an equally good estimate.
//
// "Zen 4" is one core of an AMD EPYC with 32 KiB of first-level, 1 MiB of second-level and 32 MiB
// of last-level cache, on which the numbers were chosen, by g++ 12; docs/DEAD_ENDS.md has the
// figures. "Sapphire Rapids" is one core of an Intel Xeon with 48 KiB, 2 MiB and a shared
// last-level cache, on which they were compared again, by g++ 12: the fastest of 41 interleaved
// runs over 0.5 MB (L2) or 12 MB (L3), as time against the first line of the table.
#pragma once

#include "kernels/kernels.h"

namespace qx::tuning {

// ---- Cache levels ----

// Up to how many bytes a scan finds its rows in a cache. The first is the second-level cache of
// Zen 4. The second is less than its last-level cache, which a host shares; the exact number was
// not measured by itself.
inline constexpr std::int64_t kL2Bytes = std::int64_t{1} << 20;
inline constexpr std::int64_t kL3Bytes = std::int64_t{20} << 20;

// Tuning: where the rows are cached changes the speed and nothing else.
constexpr CacheLevel cache_level(std::int64_t bytes) {
  if (bytes <= kL2Bytes) return CacheLevel::kL2;
  return bytes <= kL3Bytes ? CacheLevel::kL3 : CacheLevel::kMemory;
}

// ---- Estimates of contiguous rows, AVX2 ----

// Four neighbours, one row of each quarter of the block (four streams), or one row at a time.
// Zen 4, share of a linear read:
//   level and dim    L2, 128  L2, 768  L3, 128  L3, 768  memory, 128  memory, 768
//   four neighbours     0.98     0.74     0.86     1.00         0.49         0.74
//   four streams        0.95     1.01     0.94     1.01         1.06         1.24
//   one row             0.78     0.91     1.05     1.10         1.14         1.13
// Sapphire Rapids, time:
//   level and dim     L2, 64  L2, 128  L2, 200  L2, 768  L3, 64 to 768
//   four neighbours     1.00     1.00     1.00     1.00           1.00
//   four streams        1.03     1.04     1.06     1.03   1.00 to 1.01
//   one row             1.35     1.30     1.34     1.28   1.00 to 1.01
// The dimensions in between, at which one takes over from another, have no figures of their own.
inline constexpr std::int64_t kMinFourStreamsDim = 200;

// Tuning: chooses among ways that estimate the same rows; any order of the sum is an estimate.
constexpr std::int64_t max_four_rows_dim(CacheLevel level) {
  if (level == CacheLevel::kL2) return kMinFourStreamsDim - 1;
  return level == CacheLevel::kL3 ? 64 : 48;
}

// ---- Estimates of contiguous rows, AVX-512 ----

// From this dimension on, rows in the second-level cache are estimated in wide registers; for
// shorter ones, adding the lanes costs more than it saves. From further away AVX2 is as fast as the
// rows arrive.
// Zen 4, share of a linear read:
//   level and dim                L2, 128  L2, 768  L3, 128  L3, 768
//   AVX-512, four neighbours        0.97     0.99     0.91     0.92
//   AVX2, the best of the three     0.98     1.01     1.05     1.10
// Sapphire Rapids, L2, time:
//   dim         16    32    48    64    96   128   384   768
//   AVX2      1.00  1.00  1.00  1.00  1.00  1.00  1.00  1.00
//   AVX-512   1.18  0.93  0.88  0.85  0.82  0.81  0.76  0.78
inline constexpr std::int64_t kMinAvx512Dim = 64;

// ---- Scores of contiguous rows, AVX2 ----

// Up to which dimension a scan prefetches while it scores: 24 such rows, and the lines ahead of
// them, share the first-level cache of Zen 4. Rows shorter than a cache line are followed well by
// the hardware while they are in the caches.
// Sapphire Rapids, time with prefetching, against without:
//   dim      4     8    12    16    64   128   192   256   384   768
//   L2    1.00  0.99  0.98  0.88  0.78  0.77  0.78  0.87  1.04  1.09
//   L3    0.99  0.99  1.00  0.90  0.71  0.72  0.75  0.76  0.81  0.90
inline constexpr std::int64_t kMinAheadDim = 16;
inline constexpr std::int64_t kMaxAheadDim = 192;

// Tuning: chooses between scoring with prefetches, which read nothing, and without.
constexpr bool prefetches_ahead(std::int64_t dim, CacheLevel level) {
  return dim <= kMaxAheadDim && (dim >= kMinAheadDim || level == CacheLevel::kMemory);
}

// How far ahead it prefetches at least; larger groups prefetch the next one.
// Sapphire Rapids: 1 KiB, 4 KiB and 16 KiB are within 0.03 of each other for dims 4 to 768, in L2
// and in L3.
inline constexpr std::int64_t kMinAheadBytes = 4096;

// Groups of eight rows that are scored side by side. A fused multiply-add waits four cycles for the
// one before, so three groups fill each other's waits. Rows at a distance of a multiple of 2 KiB or
// 4 KiB fall into few sets of the first-level cache: with more groups they would evict each other.
// Zen 4, second-level cache, share of a linear read: three groups 0.58 at dim 128 and 0.63 at 768,
// but 0.25 at dim 1024.
// Sapphire Rapids, L2, time:
//   dim              64   128   512   768  1024  1536  2048
//   three groups   1.00  1.00  1.00  1.00  1.00  1.00  1.00
//   two groups     1.13  1.16  1.01  1.07  0.89  0.93  0.99
//   one group      1.53  1.83  1.92  1.90  1.68  1.68  1.85
constexpr std::int64_t groups_side_by_side(std::int64_t dim) {
  if (dim == 0 || dim % 512 != 0) return 3;
  return dim % 1024 == 0 ? 1 : 2;
}

// ---- Codes ----

// From which dimension, number of rows and number of floats on rows are coded.
inline constexpr std::int64_t kMinCodedDim = 8;
#if defined(QX_SMALL_SPANS)
// In builds for tests: the bases of random call sequences are then coded, and judged by codes.
inline constexpr std::int64_t kMinCodedRows = 16;
inline constexpr std::int64_t kMinCodedFloats = 0;
inline constexpr std::int64_t kMinBoundedFloatsVnni = 1;
inline constexpr std::int64_t kMinBoundedFloats = 1;
inline constexpr std::int64_t kMinBoundedFloatsPortable = 1;
inline constexpr std::int64_t kMinBoundedDimPortable = kMinCodedDim;
inline constexpr std::int64_t kMinBoundedWork = 0;
inline constexpr std::int64_t kMinCachedBoundedDim = kMinCodedDim;
inline constexpr std::int64_t kMinBoundedRowsPerResult = 4;
#else
inline constexpr std::int64_t kMinCodedRows = 512;
inline constexpr std::int64_t kMinCodedFloats = 32768;

// From how many floats of a scan on its rows are judged by codes. Sapphire Rapids, search of the
// ten best at dim 128, in read limits, by bounds / by estimates:
//              1 MB           2 MB           4 MB
//   AVX2       0.87 / 1.14    1.43 / 1.04    2.7 / 0.98
//   portable   0.32 / 0.53    0.52 / 0.52    1.1 / 0.85
inline constexpr std::int64_t kMinBoundedFloatsVnni = 65536;
inline constexpr std::int64_t kMinBoundedFloats = 393216;
inline constexpr std::int64_t kMinBoundedFloatsPortable = 786432;

// At dim 8 and 12 MB, the portable kernel: 0.45 / 0.52.
inline constexpr std::int64_t kMinBoundedDimPortable = 16;

// In the caches, short rows are scored as fast, so floats count times the square of the dimension.
// The same by VNNI, speed against estimates:
//   dim 8     2 MB 0.84    4 MB 1.23   12 MB 1.4
//   dim 16    1 MB 0.87    2 MB 1.28    4 MB 2.0
//   dim 32  0.5 MB 0.92    1 MB 1.08    2 MB 1.7
//   dim 64  0.5 MB 1.12    2 MB 2.6
//   dim 128 0.5 MB 1.15    1 MB 1.35    2 MB 2.6
// Zen 4:
//   dim 8    12 MB 0.80
//   dim 16     2 MB 0.97   12 MB 1.0   17 MB 1.3   34 MB 2.1
//   dim 32    12 MB 1.7
//   dim 64  0.5 MB 1.17     2 MB 1.6
inline constexpr std::int64_t kMinBoundedWork = 400000000;

// Shorter rows are judged by codes only where they are in memory. In the last-level cache codes
// gain nothing at dim 16, and where they prune late they lose: of 12 MB whose best row is the last
// one 0.59, whose components have 100 added 0.65.
inline constexpr std::int64_t kMinCachedBoundedDim = 24;

// A search whose results are more than one row in so many gains nothing by codes: choosing the best
// is most of it. Zen 4, speed of the search, against one without codes:
//   rows, dim      4096, 64  4096, 128  24576, 64  24576, 128  200000, 128
//   1 result in 8      0.88       0.94       1.11        1.03         0.95
//   1 in 16            1.12       1.27       1.05        1.15         1.14
inline constexpr std::int64_t kMinBoundedRowsPerResult = 12;
#endif

// From which dimension on rows that are listed one by one are judged by codes. A shorter row is two
// lines of floats, and three of a code, its constants and its norms. Zen 4, 100,000 listed ids,
// speed against estimates: dim 32 0.82, dim 128 1.54, dim 768 1.98.
#if defined(QX_SMALL_SPANS)
inline constexpr std::int64_t kMinListedCodedDim = kMinCodedDim;
#else
inline constexpr std::int64_t kMinListedCodedDim = 48;
#endif

// Up to how many rows of the base are judged by their codes for one that is selected; otherwise the
// selected ones are listed, which takes longest from memory where lists are not judged by codes.
// Zen 4, the ten best of rows that a label selects at random, speed against listing:
//   rows, dim      3000, 128  20000, 128  400000, 128  100000, 768  1000000, 32
//   1 in 10             0.62        0.71         0.79         0.41         1.24
//   1 in 5              0.74        0.75         1.13         0.74         1.60
//   3 in 10             0.83        0.91         1.33         1.01         2.11
//   2 in 5              0.97        1.13         1.65         1.21         2.71
//   9 in 10             1.95        2.06         2.30         1.49         3.88
constexpr std::int64_t most_judged_per_selected(std::int64_t dim, CacheLevel level) {
  if (level != CacheLevel::kMemory || dim > 256) return 3;
  return dim < kMinListedCodedDim ? 12 : 5;
}

// How far ahead a plane of four bits is prefetched into the second-level cache, and the longest
// rows of a plane for which it is. Zen 4, 500 MB of floats, search of the ten best, speed, against
// none:
//   dim                          32    64   100   128   256   384
//   4 KiB ahead, first level   1.09  1.10  1.02  0.79     -  0.88
//   4 KiB ahead                1.05  1.14  1.06  0.93     -  0.98
//   16 KiB ahead               1.09  1.32  1.19  1.07  0.96  1.02
//   32 KiB ahead               1.12  1.35  1.23  1.06  0.98  1.01
//   64 KiB ahead               1.15  1.42  1.15  1.08  0.95  1.01
//   128 KiB ahead              1.06  1.41  1.05  1.10  0.96  0.99
inline constexpr std::int64_t kCodesAheadBytes = std::int64_t{32} << 10;
inline constexpr std::int64_t kMaxAheadCodeBytes = 64;

// ---- Comparing, portable ----

// Numbers that are compared without a branch. g++ 12 unrolls the loop over 16 instead of
// vectorising it: for the same loop in the top-k buffer, 0.42 ns a number against 0.11 ns on Zen 4.
// Sapphire Rapids, time: 32 numbers 1.00, 16 numbers 4.0, 64 numbers 0.95, but a block may end
// before.
inline constexpr std::int64_t kComparedAtOnce = 32;

}  // namespace qx::tuning
