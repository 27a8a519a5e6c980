// What Debian's emscripten does not have: of C++20, and the flags of floats, which WebAssembly has
// not either. Its programs have one thread.
#pragma once

#include <cfenv>
#include <cstddef>

#define FE_INEXACT 0

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
