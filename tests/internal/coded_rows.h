// Rows with their codes, on guarded memory.
#pragma once

#include <algorithm>
#include <bit>
#include <vector>

#include "kernels/kernels.h"
#include "support/guarded.h"

namespace qx_test {

// Rows with their codes, in the arrays that a kernel reads: nothing may be read behind them but the
// padding of the planes.
struct Coded {
  Coded(const qx::Kernels& kernel, const std::vector<float>& rows, std::int64_t width)
      : dim(width),
        count(std::ssize(rows) / width),
        row_bytes(qx::code_row_bytes(width)),
        vectors(rows),
        high(std::vector<std::uint8_t>(
            static_cast<std::size_t>(count * row_bytes + qx::kCodePadding), 0xEE)),
        low(high.values()),
        constants(std::vector<std::uint32_t>(static_cast<std::size_t>(count))),
        row_norms(std::vector<qx::CodeNorms>(static_cast<std::size_t>(count))),
        norms(std::vector<qx::CodeNorms>(
            static_cast<std::size_t>((count + qx::kCodeGroupRows - 1) / qx::kCodeGroupRows))) {
    kernel.code_rows(vectors.data(), count, dim, high.data(), low.data(), constants.data(),
                     row_norms.data());
    for (std::int64_t i = 0; i < count; ++i) {
      qx::CodeNorms& group = norms.data()[i / qx::kCodeGroupRows];
      const qx::CodeNorms& row = row_norms.data()[i];
      for (int bits = 0; bits < 2; ++bits) {
        group.residual[bits] = std::max(group.residual[bits], row.residual[bits]);
      }
      group.spread = std::max(group.spread, row.spread);
    }
  }

  qx::CodeView view() const {
    return {high.data(), low.data(), constants.data(), norms.data(), row_bytes};
  }
  const float* row(std::int64_t i) const { return vectors.data() + i * dim; }
  double lo(std::int64_t i) const {
    return std::bit_cast<float>(constants.data()[i] & 0xFFFF0000u);
  }
  double step(std::int64_t i) const { return std::bit_cast<float>(constants.data()[i] << 16); }

  // The code of a component; with four bits, the least of those that share them.
  std::int32_t code(std::int64_t i, std::int64_t j, qx::CodeBits bits) const {
    const std::int64_t at = i * row_bytes + j % row_bytes;
    const int shift = j < row_bytes ? 0 : 4;
    const std::int32_t least = (high.data()[at] >> shift & 15) * 16;
    return bits == qx::CodeBits::kFour ? least : least + (low.data()[at] >> shift & 15);
  }

  bool margins_intact() const {
    return high.margins_intact() && low.margins_intact() && constants.margins_intact() &&
           row_norms.margins_intact();
  }

  std::int64_t dim;
  std::int64_t count;
  std::int64_t row_bytes;
  Guarded<float> vectors;
  Guarded<std::uint8_t> high;
  Guarded<std::uint8_t> low;
  Guarded<std::uint32_t> constants;
  Guarded<qx::CodeNorms> row_norms;
  Guarded<qx::CodeNorms> norms;
};
}  // namespace qx_test
