// What Debian's emscripten does not have yet, of C++20 and of the directions of rounding, which
// WebAssembly has not either. Its programs have one thread.
#pragma once

#include <cfenv>

#define FE_DIVBYZERO 0
#define FE_DOWNWARD 0
#define FE_INEXACT 0
#define FE_INVALID 0
#define FE_OVERFLOW 0
#define FE_TOWARDZERO 0
#define FE_UNDERFLOW 0
#define FE_UPWARD 0

namespace std {

template <typename To, typename From>
constexpr To bit_cast(const From& from) {
  return __builtin_bit_cast(To, from);
}

template <typename T>
struct atomic_ref {
  explicit atomic_ref(T& of) : of_(of) {}
  T load() const { return of_; }
  bool compare_exchange_weak(T& /*known*/, T wanted) const {
    of_ = wanted;
    return true;
  }
  T& of_;
};

}  // namespace std
