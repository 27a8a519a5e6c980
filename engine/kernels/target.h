// What functions that are compiled for more than the baseline of x86-64 need: their attributes.
//
// Such a function is never a template or inline function of the standard library, and a file that
// has one includes only plain types, the intrinsics and the headers of this folder: the linker
// could merge an inline function that was compiled for a wide instruction set into code that runs
// on any CPU. For the same reason all inline functions with these attributes are in the namespace
// of their instruction set, in an unnamed one, or depend on a type of one.
#pragma once

#if defined(__x86_64__)
#define QX_AVX2 __attribute__((target("avx2,fma,popcnt")))
#define QX_AVX2_LAMBDA __attribute__((target("avx2,fma,popcnt"), always_inline))
#define QX_AVX2_INLINE QX_AVX2_LAMBDA inline

#define QX_AVX512 __attribute__((target("avx512f,avx512dq,avx2,fma,popcnt")))
#define QX_AVX512_INLINE QX_AVX512 __attribute__((always_inline)) inline

#define QX_VNNI_LAMBDA                                                                    \
  __attribute__((target("avx512f,avx512dq,avx512bw,avx512vl,avx512vnni,avx2,fma,popcnt"), \
                 always_inline))
#define QX_VNNI \
  __attribute__((target("avx512f,avx512dq,avx512bw,avx512vl,avx512vnni,avx2,fma,popcnt")))
#define QX_VNNI_INLINE QX_VNNI_LAMBDA inline
#endif

#if defined(__aarch64__) && defined(__clang__)
#define QX_NEON_DOT __attribute__((target("dotprod")))
#elif defined(__aarch64__)
#define QX_NEON_DOT __attribute__((target("arch=armv8.2-a+dotprod")))
#endif
