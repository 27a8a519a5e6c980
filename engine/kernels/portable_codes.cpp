// Codes of rows in plain C++, second part of the portable kernel: coding, and the sums of codes and
// levels in registers of 16-bit numbers, by way of the vector extension that g++ and clang share.
#include "kernels/code_rows.h"
#include "kernels/tables.h"

namespace qx::portable {
namespace {

#if defined(__AVX2__)
constexpr std::int64_t kBytes = 32;
#else
constexpr std::int64_t kBytes = 16;
#endif
typedef std::uint16_t Codes __attribute__((vector_size(kBytes)));
typedef std::int16_t Products __attribute__((vector_size(kBytes)));
typedef std::int32_t Sums __attribute__((vector_size(kBytes)));
constexpr std::int64_t kSumLanes = kBytes / 4;

// The levels that kBytes bytes of a plane are multiplied with, for each quarter of a 16-bit number.
struct Levels {
  Products quarter[4];
};

Levels load_levels(const CodedQuery& query, std::int64_t at) {
  Products low;
  Products high;
  __builtin_memcpy(&low, query.levels + at, kBytes);
  __builtin_memcpy(&high, query.levels + query.half_bytes + at, kBytes);
  const auto doubled = [](const Products& p) { return reinterpret_cast<const Codes&>(p) << 8; };
  const Codes low_doubled = doubled(low);
  const Codes high_doubled = doubled(high);
  return {{reinterpret_cast<const Products&>(low_doubled) >> 8,
           reinterpret_cast<const Products&>(high_doubled) >> 8, low >> 8, high >> 8}};
}

// The sums of products of kBytes bytes of a plane: 4 * 15 * 127 at most.
Products multiply(const std::uint8_t* row, const Levels& levels) {
  Codes codes;
  __builtin_memcpy(&codes, row, kBytes);
  const Codes quarters[4] = {codes & 15, codes >> 4 & 15, codes >> 8 & 15, codes >> 12};
  Products sum = {};
  for (int i = 0; i < 4; ++i) {
    sum += reinterpret_cast<const Products&>(quarters[i]) * levels.quarter[i];
  }
  return sum;
}

Sums widen(const Products& products) {
  const auto& pairs = reinterpret_cast<const Sums&>(products);
  typedef std::uint32_t Words __attribute__((vector_size(kBytes)));
  const Words doubled = reinterpret_cast<const Words&>(products) << 16;
  return (reinterpret_cast<const Sums&>(doubled) >> 16) + (pairs >> 16);
}

// The sums of the rows of one plane. Rows are taken four at a time, which share the levels. Four
// steps stay below 2^15.
template <typename RowOf>
void sum_plane(RowOf row, std::int64_t row_bytes, const CodedQuery& query, std::int32_t* sums) {
  constexpr int kRows = 4;
  constexpr std::int64_t kTogether = 4 * kBytes;
  for (std::int64_t first = 0; first < kSummedRows; first += kRows) {
    Sums all[kRows] = {};
    for (std::int64_t begin = 0; begin < row_bytes; begin += kTogether) {
      const std::int64_t rest = row_bytes - begin;
      const std::int64_t end = begin + (rest < kTogether ? rest : kTogether);
      Products products[kRows] = {};
      for (std::int64_t at = begin; at < end; at += kBytes) {
        const Levels levels = load_levels(query, at);
        for (int i = 0; i < kRows; ++i) products[i] += multiply(row(first + i) + at, levels);
      }
      for (int i = 0; i < kRows; ++i) all[i] += widen(products[i]);
    }
    for (int i = 0; i < kRows; ++i) {
      std::int32_t sum = 0;
      for (std::int64_t l = 0; l < kSumLanes; ++l) sum += all[i][l];
      sums[first + i] = sum;
    }
  }
}

// 16 times the sums of the high plane, and those of the low one if all bits are read.
template <typename HighRow, typename LowRow>
void sum_rows(HighRow high, LowRow low, std::int64_t row_bytes, const CodedQuery& query,
              CodeBits bits, std::int32_t* sums) {
  std::int32_t low_sums[kSummedRows] = {};
  sum_plane(high, row_bytes, query, sums);
  if (bits == CodeBits::kEight) sum_plane(low, row_bytes, query, low_sums);
  for (std::int64_t i = 0; i < kSummedRows; ++i) sums[i] = sums[i] * 16 + low_sums[i];
}

void sum_contiguous(const std::uint8_t* high, const std::uint8_t* low, std::int64_t row_bytes,
                    const CodedQuery& query, CodeBits bits, std::int32_t* sums) {
  sum_rows([=](std::int64_t i) { return high + i * row_bytes; },
           [=](std::int64_t i) { return low + i * row_bytes; }, row_bytes, query, bits, sums);
}

void sum_scattered(const std::uint8_t* const* high, const std::uint8_t* const* low,
                   std::int64_t row_bytes, const CodedQuery& query, CodeBits bits,
                   std::int32_t* sums) {
  sum_rows([=](std::int64_t i) { return high[i]; }, [=](std::int64_t i) { return low[i]; },
           row_bytes, query, bits, sums);
}

}  // namespace

void code_rows(const float* rows, std::int64_t count, std::int64_t dim, std::uint8_t* high,
               std::uint8_t* low, std::uint32_t* constants, CodeNorms* norms) {
  qx::code_rows(rows, count, dim, high, low, constants, norms);
}

void bound_contiguous(const CodeView& codes, std::int64_t first, std::int64_t count,
                      const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_contiguous<sum_contiguous, sum_scattered>(codes, first, count, query, bits, bounds);
}

void bound_scattered(const CodeView& codes, const std::int64_t* rows, std::int64_t count,
                     const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_scattered<sum_scattered>(codes, rows, count, query, bits, bounds);
}

}  // namespace qx::portable
