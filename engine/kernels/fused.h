// The step of a score's chain, fma(a, b, c) of floats, for CPUs without an instruction for it:
// two at once, in doubles.
//
// The product of two floats has at most 48 bits and is exact in a double, subnormal factors
// included. The sum of the product and c may be inexact; rounded to a double and then to a float
// it would be rounded twice, and wrongly where the first rounding hits the middle between two
// floats. So the sum is rounded to odd: it stays if it is exact, and is otherwise the one of the
// two doubles around it whose last bit is 1. That bit is 29 or more places below the last one of
// a float, where floats and the middles between them have a 0: so the odd double is none of
// these, and lies on the same side of each as the exact sum. Rounding it to a float gives what
// one rounding of the exact sum gives, for subnormal floats, which end at higher places, and at
// overflow too.
//
// TwoSum gives the error of the rounded sum exactly: no exponent comes near the ends of a
// double's range, -298 to 256. If the error is not 0 and the sum is even, the odd one is its
// neighbour in the direction of the error. An infinity or a NaN among the operands makes the
// error a NaN: the sum stays.
#pragma once

#include <cstdint>

// Where the compiler has the instruction, __builtin_fmaf is one.
#if defined(__FMA__) || defined(__FP_FAST_FMAF) || defined(__aarch64__) || defined(__s390x__) || \
    defined(__powerpc64__) || defined(__riscv_flen)
#define QX_HAS_FMA 1
#else
#define QX_HAS_FMA 0
#endif

namespace qx {

typedef double TwoDoubles __attribute__((vector_size(16)));
typedef float TwoFloats __attribute__((vector_size(8)));
typedef std::int64_t TwoWords __attribute__((vector_size(16)));

inline TwoDoubles round_to_float(TwoDoubles numbers) {
  return __builtin_convertvector(__builtin_convertvector(numbers, TwoFloats), TwoDoubles);
}

// Requires: every number is one of a float. So are the results.
inline TwoDoubles fused(TwoDoubles a, TwoDoubles b, TwoDoubles c) {
  const TwoDoubles product = a * b;
  const TwoDoubles sum = product + c;
  const TwoDoubles added = sum - product;
  const TwoDoubles error = (product - (sum - added)) + (c - added);
  const TwoDoubles zero = {};
  const auto above = TwoWords(error > zero);
  const auto inexact = above | TwoWords(error < zero);
  auto bits = TwoWords(sum);
  const auto even = (bits & 1) - 1;                       // all ones, or none
  const auto outwards = ~(above ^ TwoWords(sum > zero));  // away from zero
  bits += ((outwards & 2) - 1) & inexact & even;
  return round_to_float(TwoDoubles(bits));
}

}  // namespace qx
