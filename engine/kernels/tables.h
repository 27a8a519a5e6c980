// What each instruction set offers, side by side. The functions have the same names, types and
// order everywhere; kernels.h says what they do.
//
// An entry that is left empty is inherited from the next table: AVX-512 with byte products from
// AVX-512, that from AVX2, NEON with dot products from NEON, AVX2 and NEON from the portable
// kernel, which is complete; dispatch.cpp says so. Requires: where a kernel is supported, so is the
// one that it inherits from.
#pragma once

#include "kernels/kernels.h"
#include "kernels/target.h"
#include "kernels/tuning.h"

namespace qx::portable {

SupportedFunction supported;
ContiguousFunction score_contiguous, estimate_contiguous;
ScatteredFunction score_scattered, estimate_scattered;
MaskFunction mask_not_less;
CompressFunction compress;
CodeFunction code_rows;
BoundContiguousFunction bound_contiguous;
BoundScatteredFunction bound_scattered;

inline constexpr Kernels kEntries = {"portable",
                                     supported,
                                     score_contiguous,
                                     score_scattered,
                                     estimate_contiguous,
                                     estimate_scattered,
                                     mask_not_less,
                                     compress,
                                     code_rows,
                                     bound_contiguous,
                                     bound_scattered,
                                     tuning::kMinBoundedFloatsPortable,
                                     tuning::kMinBoundedDimPortable};

}  // namespace qx::portable

#if defined(__x86_64__)
namespace qx::avx2 {

inline constexpr std::int64_t kLanes = 8;  // floats of a register

SupportedFunction supported;
QX_AVX2 ContiguousFunction score_contiguous, estimate_contiguous;
QX_AVX2 ScatteredFunction score_scattered, estimate_scattered;
QX_AVX2 MaskFunction mask_not_less;
QX_AVX2 CompressFunction compress;
QX_AVX2 CodeFunction code_rows;
QX_AVX2 BoundContiguousFunction bound_contiguous;
QX_AVX2 BoundScatteredFunction bound_scattered;

inline constexpr Kernels kEntries = {"avx2",
                                     supported,
                                     score_contiguous,
                                     score_scattered,
                                     estimate_contiguous,
                                     estimate_scattered,
                                     mask_not_less,
                                     compress,
                                     code_rows,
                                     bound_contiguous,
                                     bound_scattered,
                                     tuning::kMinBoundedFloats,
                                     tuning::kMinCodedDim};

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

namespace qx::avx512vnni {

SupportedFunction supported;
QX_VNNI BoundContiguousFunction bound_contiguous;
QX_VNNI BoundScatteredFunction bound_scattered;

inline constexpr Kernels kEntries = {.name = "avx512vnni",
                                     .supported = supported,
                                     .bound_contiguous = bound_contiguous,
                                     .bound_scattered = bound_scattered,
                                     .min_bounded_floats = tuning::kMinBoundedFloatsVnni};

}  // namespace qx::avx512vnni
#endif

#if defined(__aarch64__)
namespace qx::neon {

SupportedFunction supported;
ContiguousFunction score_contiguous, estimate_contiguous;
ScatteredFunction score_scattered, estimate_scattered;
CodeFunction code_rows;
BoundContiguousFunction bound_contiguous;
BoundScatteredFunction bound_scattered;

inline constexpr Kernels kEntries = {.name = "neon",
                                     .supported = supported,
                                     .score_contiguous = score_contiguous,
                                     .score_scattered = score_scattered,
                                     .estimate_contiguous = estimate_contiguous,
                                     .estimate_scattered = estimate_scattered,
                                     .code_rows = code_rows,
                                     .bound_contiguous = bound_contiguous,
                                     .bound_scattered = bound_scattered,
                                     .min_bounded_floats = tuning::kMinBoundedFloats,
                                     .min_bounded_dim = tuning::kMinCodedDim};

}  // namespace qx::neon

namespace qx::neondot {

SupportedFunction supported;
BoundContiguousFunction bound_contiguous;
BoundScatteredFunction bound_scattered;

inline constexpr Kernels kEntries = {.name = "neondot",
                                     .supported = supported,
                                     .bound_contiguous = bound_contiguous,
                                     .bound_scattered = bound_scattered};

}  // namespace qx::neondot
#endif

namespace qx {

// The entries of `own`, completed by those of `next`. Requires: `next` is complete.
constexpr Kernels inherit(Kernels own, const Kernels& next) {
  if (own.score_contiguous == nullptr) own.score_contiguous = next.score_contiguous;
  if (own.score_scattered == nullptr) own.score_scattered = next.score_scattered;
  if (own.estimate_contiguous == nullptr) own.estimate_contiguous = next.estimate_contiguous;
  if (own.estimate_scattered == nullptr) own.estimate_scattered = next.estimate_scattered;
  if (own.mask_not_less == nullptr) own.mask_not_less = next.mask_not_less;
  if (own.compress == nullptr) own.compress = next.compress;
  if (own.code_rows == nullptr) own.code_rows = next.code_rows;
  if (own.bound_contiguous == nullptr) own.bound_contiguous = next.bound_contiguous;
  if (own.bound_scattered == nullptr) own.bound_scattered = next.bound_scattered;
  if (own.min_bounded_floats == 0) own.min_bounded_floats = next.min_bounded_floats;
  if (own.min_bounded_dim == 0) own.min_bounded_dim = next.min_bounded_dim;
  return own;
}

}  // namespace qx
