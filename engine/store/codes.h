// The codes of rows, in one block: of the base, made by its build, and of the delta, kept up by
// inserts. They are derived from the vectors, and no host sees them. It knows vectors and codes
// (kernels/codes.h), not what a row is.
#pragma once

#include "store/qx_index.h"

namespace qx {

// True if codes of `rows` rows can save time: not of too few rows, nor of rows so short that the
// constants of a code weigh as much, nor of rows too long for the sums of a kernel.
bool is_worth_coding(std::int64_t rows, std::int64_t dim);

// Makes room for the codes of `rows` rows, in place of what was coded; code_range() is then called
// for all of them. Without memory for it, nothing is coded. Requires: 1 <= dim <= kMaxCodedDim.
void begin_codes(QxCodes& codes, std::int64_t rows, std::int64_t dim);

// Codes the rows from `first` to `end` - 1, for the first time, if there is room for codes. Threads
// may do so at the same time in different groups.
void code_range(const QxCodes& codes, const float* vectors, std::int64_t first, std::int64_t end);

// Codes all rows, for the first time: row i has the vector of row rows[i] of an array.
void code_listed(const QxCodes& codes, const float* vectors, const std::int64_t* rows);

// Codes the rows from codes.rows on up to `rows`, of an array that grows: the block has room for a
// power of two of them. The same holds and is required.
void extend_codes(QxCodes& codes, const float* vectors, std::int64_t rows, std::int64_t dim);

// Codes one row again. Requires: it is coded.
void replace_code(QxCodes& codes, std::int64_t row, const float* vector);

// Releases the codes of all rows.
void release_codes(QxCodes& codes);

// True if the codes are those of the vectors, and the norms cover them.
bool codes_are_valid(const QxCodes& codes, const float* vectors);

// True if the code of one row is that of its vector, and its group's norms cover it. Requires: it
// is coded.
bool code_is_valid(const QxCodes& codes, std::int64_t row, const float* vector);

// What kernels read; of no use without codes.
CodeView view_of(const QxCodes& codes);

// Prefetches a row of one plane, or its beginning.
inline void prefetch_plane(const std::uint8_t* plane, std::int64_t row_bytes, std::int64_t row) {
  constexpr std::int64_t kMostBytes = 256;
  const std::int64_t bytes = row_bytes < kMostBytes ? row_bytes : kMostBytes;
  for (std::int64_t i = 0; i < bytes; i += 64) __builtin_prefetch(plane + row * row_bytes + i);
}

// Prefetches what a bound from four bits reads.
inline void prefetch_code(const CodeView& codes, std::int64_t row) {
  __builtin_prefetch(codes.constants + row);
  prefetch_plane(codes.high, codes.row_bytes, row);
}

// Prefetches what a bound from all eight reads beside it.
inline void prefetch_rest_of_code(const CodeView& codes, std::int64_t row) {
  prefetch_plane(codes.low, codes.row_bytes, row);
}

}  // namespace qx
