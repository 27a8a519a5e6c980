// What each instruction set offers, side by side. The functions have the same names, types and
// order everywhere; kernels.h says what they do.
//
// An entry that is left empty is inherited from the next table: AVX-512 from AVX2, AVX2 and NEON
// from the portable kernel, which is complete; dispatch.cpp says so. Requires: where a kernel is
// supported, so is the one that it inherits from.
#pragma once

#include "kernels/kernels.h"
#include "kernels/target.h"

namespace qx::portable {

SupportedFunction supported;
ContiguousFunction score_contiguous;
ScatteredFunction score_scattered;
ContiguousFunction estimate_contiguous;
ScatteredFunction estimate_scattered;
MaskFunction mask_not_less;
CompressFunction compress;

inline constexpr Kernels kEntries = {.name = "portable",
                                     .supported = supported,
                                     .score_contiguous = score_contiguous,
                                     .score_scattered = score_scattered,
                                     .estimate_contiguous = estimate_contiguous,
                                     .estimate_scattered = estimate_scattered,
                                     .mask_not_less = mask_not_less,
                                     .compress = compress};

}  // namespace qx::portable

#if defined(__x86_64__)
namespace qx::avx2 {

SupportedFunction supported;
QX_AVX2 ContiguousFunction score_contiguous;
QX_AVX2 ScatteredFunction score_scattered;
QX_AVX2 ContiguousFunction estimate_contiguous;
QX_AVX2 ScatteredFunction estimate_scattered;
QX_AVX2 MaskFunction mask_not_less;
QX_AVX2 CompressFunction compress;

inline constexpr Kernels kEntries = {.name = "avx2",
                                     .supported = supported,
                                     .score_contiguous = score_contiguous,
                                     .score_scattered = score_scattered,
                                     .estimate_contiguous = estimate_contiguous,
                                     .estimate_scattered = estimate_scattered,
                                     .mask_not_less = mask_not_less,
                                     .compress = compress};

}  // namespace qx::avx2

namespace qx::avx512 {

SupportedFunction supported;
QX_AVX512 ContiguousFunction estimate_contiguous;
QX_AVX512 CompressFunction compress;

inline constexpr Kernels kEntries = {.name = "avx512",
                                     .supported = supported,
                                     .estimate_contiguous = estimate_contiguous,
                                     .compress = compress};

}  // namespace qx::avx512
#endif

#if defined(__aarch64__)
namespace qx::neon {

SupportedFunction supported;
ContiguousFunction score_contiguous;
ScatteredFunction score_scattered;
ContiguousFunction estimate_contiguous;
ScatteredFunction estimate_scattered;

inline constexpr Kernels kEntries = {.name = "neon",
                                     .supported = supported,
                                     .score_contiguous = score_contiguous,
                                     .score_scattered = score_scattered,
                                     .estimate_contiguous = estimate_contiguous,
                                     .estimate_scattered = estimate_scattered};

}  // namespace qx::neon
#endif

namespace qx {

template <typename Function>
constexpr Function* own_or_inherited(Function* own, Function* inherited) {
  return own != nullptr ? own : inherited;
}

// The entries of `own`, completed by those of `next`. Requires: `next` is complete.
constexpr Kernels inherit(const Kernels& own, const Kernels& next) {
  return {own.name,
          own.supported,
          own_or_inherited(own.score_contiguous, next.score_contiguous),
          own_or_inherited(own.score_scattered, next.score_scattered),
          own_or_inherited(own.estimate_contiguous, next.estimate_contiguous),
          own_or_inherited(own.estimate_scattered, next.estimate_scattered),
          own_or_inherited(own.mask_not_less, next.mask_not_less),
          own_or_inherited(own.compress, next.compress)};
}

}  // namespace qx
