// Refuses compilers and options under which a float is not what the numeric contract needs: IEEE
// 754 single precision, every operation rounded by itself, but for the fused ones that are written.
#pragma once

#include <cfloat>

#if defined(__FAST_MATH__) || (defined(__FINITE_MATH_ONLY__) && __FINITE_MATH_ONLY__ != 0) || \
    (defined(__GCC_IEC_559) && __GCC_IEC_559 == 0)
#error "qx_runtime cannot be compiled with -ffast-math or a part of it: results would change"
#endif

// No compiler has a macro that tells whether it fuses a multiplication with an addition by itself.
#if !defined(QX_FP_CONTRACT_OFF)
#error "compile qx_runtime with -ffp-contract=off, and tell it so with -DQX_FP_CONTRACT_OFF"
#endif

#if !defined(FLT_EVAL_METHOD) || FLT_EVAL_METHOD != 0
#error "qx_runtime needs floats that are not computed in a wider format (i386: -msse2 -mfpmath=sse)"
#endif

static_assert(FLT_RADIX == 2 && FLT_MANT_DIG == 24 && FLT_MAX_EXP == 128 && DBL_MANT_DIG == 53);
