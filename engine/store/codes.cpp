#include "store/codes.h"

#include <algorithm>
#include <bit>

#include "kernels/kernels.h"
#include "kernels/tuning.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace qx {
namespace {

constexpr std::int64_t kPartAlignment = 64;

constexpr std::int64_t whole_lines(std::int64_t bytes) {
  return (bytes + kPartAlignment - 1) / kPartAlignment * kPartAlignment;
}

constexpr std::int64_t groups_of(std::int64_t rows) {
  return (rows + kCodeGroupRows - 1) / kCodeGroupRows;
}

// Where the parts of a block for `capacity` rows are: high plane, low plane, constants, norms.
struct Layout {
  Layout(std::int64_t capacity, std::int64_t dim)
      : low(whole_lines(capacity * code_row_bytes(dim) + kCodePadding)),
        constants(2 * low),
        norms(constants + whole_lines(capacity * std::int64_t{sizeof(std::uint32_t)})),
        bytes(norms + groups_of(capacity) * std::int64_t{sizeof(CodeNorms)}) {}
  std::int64_t low;
  std::int64_t constants;
  std::int64_t norms;
  std::int64_t bytes;
};

struct Parts {
  Parts(const QxCodes& codes)
      : layout(codes.capacity, codes.dim),
        high(codes.block),
        low(codes.block + layout.low),
        constants(reinterpret_cast<std::uint32_t*>(codes.block + layout.constants)),
        norms(reinterpret_cast<CodeNorms*>(codes.block + layout.norms)) {}
  Layout layout;
  std::uint8_t* high;
  std::uint8_t* low;
  std::uint32_t* constants;
  CodeNorms* norms;
};

void copy_parts(const Parts& from, const Parts& to, std::int64_t rows, std::int64_t row_bytes) {
  std::copy_n(from.high, rows * row_bytes, to.high);
  std::copy_n(from.low, rows * row_bytes, to.low);
  std::copy_n(from.constants, rows, to.constants);
  std::copy_n(from.norms, groups_of(rows), to.norms);
}

// Moves the codes to a block for `capacity` rows. Without memory for it, releases them.
void move_to_capacity(QxCodes& codes, std::int64_t capacity, std::int64_t dim) {
  QxCodes moved;
  moved.dim = dim;
  moved.capacity = capacity;
  moved.block = static_cast<std::uint8_t*>(try_allocate(Layout(capacity, dim).bytes));
  if (moved.block != nullptr && codes.rows > 0) {
    copy_parts(codes, moved, codes.rows, code_row_bytes(dim));
    moved.rows = codes.rows;
  }
  release(codes.block);
  codes = moved.block == nullptr ? QxCodes{} : moved;
}

// The norms of a group are the largest of its rows'.
void merge(CodeNorms& norms, const CodeNorms& row) {
  for (int bits = 0; bits < 2; ++bits) {
    norms.residual[bits] = std::max(norms.residual[bits], row.residual[bits]);
  }
  norms.spread = std::max(norms.spread, row.spread);
}

// Codes `count` rows of one group, from `first` on: of a new group, or of one that has others.
void code_group(const QxCodes& codes, const Parts& parts, const float* vectors, std::int64_t first,
                std::int64_t count, bool is_new) {
  CodeNorms norms[kCodeGroupRows];
  const std::int64_t offset = first * code_row_bytes(codes.dim);
  in_default_fp_environment([&] {
    kernels().code_rows(vectors, count, codes.dim, parts.high + offset, parts.low + offset,
                        parts.constants + first, norms);
    CodeNorms& group = parts.norms[first / kCodeGroupRows];
    if (is_new) group = norms[0];
    for (std::int64_t i = 0; i < count; ++i) merge(group, norms[i]);
  });
}

// Codes the rows up to `rows`, if there is a block.
void code_to(QxCodes& codes, const float* vectors, std::int64_t rows) {
  if (codes.block == nullptr) return;
  code_range(codes, vectors, codes.rows, rows);
  codes.rows = rows;
}

}  // namespace

bool is_worth_coding([[maybe_unused]] std::int64_t rows, [[maybe_unused]] std::int64_t dim) {
#if defined(QX_WITHOUT_CODES)
  return false;
#else
  return dim >= tuning::kMinCodedDim && dim <= kMaxCodedDim && rows >= tuning::kMinCodedRows &&
         rows * dim >= tuning::kMinCodedFloats;
#endif
}

void begin_codes(QxCodes& codes, std::int64_t rows, std::int64_t dim) {
  release_codes(codes);
  move_to_capacity(codes, rows, dim);
  if (codes.block != nullptr) codes.rows = rows;
}

void code_range(const QxCodes& codes, const float* vectors, std::int64_t first, std::int64_t end) {
  if (codes.block == nullptr) return;
  const Parts parts(codes);
  while (first < end) {
    const std::int64_t place = first % kCodeGroupRows;
    const std::int64_t count = std::min(kCodeGroupRows - place, end - first);
    code_group(codes, parts, vectors + first * codes.dim, first, count, place == 0);
    first += count;
  }
}

void code_listed(const QxCodes& codes, const float* vectors, const std::int64_t* rows) {
  const Parts parts(codes);
  const std::int64_t row_bytes = code_row_bytes(codes.dim);
  in_default_fp_environment([&] {
    for (std::int64_t i = 0; i < codes.rows; ++i) {
      CodeNorms norms;
      kernels().code_rows(vectors + rows[i] * codes.dim, 1, codes.dim, parts.high + i * row_bytes,
                          parts.low + i * row_bytes, parts.constants + i, &norms);
      CodeNorms& group = parts.norms[i / kCodeGroupRows];
      if (i % kCodeGroupRows == 0) group = norms;
      merge(group, norms);
    }
  });
}

void extend_codes(QxCodes& codes, const float* vectors, std::int64_t rows, std::int64_t dim) {
  if (rows > codes.capacity) {
    move_to_capacity(
        codes, static_cast<std::int64_t>(std::bit_ceil(static_cast<std::uint64_t>(rows))), dim);
  }
  code_to(codes, vectors, rows);
}

void replace_code(QxCodes& codes, std::int64_t row, const float* vector) {
  QX_ASSERT(row >= 0 && row < codes.rows);
  code_group(codes, codes, vector, row, 1, false);
}

void release_codes(QxCodes& codes) {
  release(codes.block);
  codes = {};
}

bool code_is_valid(const QxCodes& codes, std::int64_t row, const float* vector) {
  std::uint8_t high[kMaxCodedDim / 2];
  std::uint8_t low[kMaxCodedDim / 2];
  std::uint32_t constants;
  CodeNorms norms;
  in_default_fp_environment(
      [&] { kernels().code_rows(vector, 1, codes.dim, high, low, &constants, &norms); });
  const Parts parts(codes);
  const std::int64_t row_bytes = code_row_bytes(codes.dim);
  const CodeNorms& group = parts.norms[row / kCodeGroupRows];
  return std::equal(high, high + row_bytes, parts.high + row * row_bytes) &&
         std::equal(low, low + row_bytes, parts.low + row * row_bytes) &&
         constants == parts.constants[row] && norms.residual[0] <= group.residual[0] &&
         norms.residual[1] <= group.residual[1] && norms.spread <= group.spread;
}

bool codes_are_valid(const QxCodes& codes, const float* vectors) {
  if (codes.rows < 0 || codes.rows > codes.capacity) return false;
  if (codes.block == nullptr) return codes.capacity == 0 && codes.dim == 0;
  bool valid = true;
  for (std::int64_t r = 0; valid && r < codes.rows; ++r) {
    valid = code_is_valid(codes, r, vectors + r * codes.dim);
  }
  return valid;
}

CodeView view_of(const QxCodes& codes) {
  if (codes.block == nullptr) return {};
  const Parts parts(codes);
  return {parts.high, parts.low, parts.constants, parts.norms, code_row_bytes(codes.dim)};
}

}  // namespace qx
