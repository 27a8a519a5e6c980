// Floating-point environments that a host may have set, and a check that a call restores them. It
// accesses the CPU's registers by code of its own, so that it notices what the engine does not
// restore.
#pragma once

#include <cfenv>
#include <cstdint>
#include <cstring>
#include <vector>
#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

namespace qx_test {

#if defined(__x86_64__)
// MXCSR: the flags in bits 0 to 5, flushing of denormal inputs in 6, masks in 7 to 12, the rounding
// mode in 13 and 14, flushing of denormal results in 15.
struct FpEnvironment {
  const char* name;
  std::uint32_t mxcsr;

  void set() const { _mm_setcsr(mxcsr); }
  static FpEnvironment current() { return {"current", _mm_getcsr()}; }
  friend bool operator==(const FpEnvironment& a, const FpEnvironment& b) {
    return a.mxcsr == b.mxcsr;
  }
};

inline const std::vector<FpEnvironment>& fp_environments() {
  static const std::vector<FpEnvironment> all = {
      {"default", 0x1F80},
      {"denormal results flushed", 0x9F80},
      {"denormal inputs flushed", 0x1FC0},
      {"denormals flushed, as by fast-math", 0x9FC0},
      {"rounds down", 0x3F80},
      {"rounds up", 0x5F80},
      {"rounds to zero", 0x7F80},
      {"every exception traps", 0x0000},
      {"every exception traps, denormals flushed, rounds up", 0xC040},
      {"every flag is set", 0x1FBF},
      {"the flag of inexact results is set", 0x1FA0},
      {"every flag is set, denormals flushed, rounds to zero", 0xFFFF}};
  return all;
}
#else
// Portable through <cfenv>; on AArch64 also the registers: bit 24 of FPCR flushes denormals.
struct FpEnvironment {
  const char* name;
  int rounding;
  int flags;
  std::uint64_t control = 0;

  void set() const {
    std::fesetenv(FE_DFL_ENV);
    std::fesetround(rounding);
    std::feraiseexcept(flags);
#if defined(__aarch64__)
    std::uint64_t fpcr;
    asm volatile("mrs %0, fpcr" : "=r"(fpcr));
    asm volatile("msr fpcr, %0" : : "r"(fpcr | control));
#endif
  }
  static FpEnvironment current() {
    FpEnvironment now{"current", std::fegetround(), std::fetestexcept(FE_ALL_EXCEPT)};
#if defined(__aarch64__)
    asm volatile("mrs %0, fpcr" : "=r"(now.control));
    now.control &= std::uint64_t{3} << 24;
#endif
    return now;
  }
  friend bool operator==(const FpEnvironment& a, const FpEnvironment& b) {
    return a.rounding == b.rounding && a.flags == b.flags && a.control == b.control;
  }
};

inline const std::vector<FpEnvironment>& fp_environments() {
  static const std::vector<FpEnvironment> all = {
    {"default", FE_TONEAREST, 0},
    {"rounds down", FE_DOWNWARD, 0},
    {"rounds up", FE_UPWARD, 0},
    {"rounds to zero, a flag is set", FE_TOWARDZERO, FE_INEXACT},
    {"every flag is set", FE_TONEAREST, FE_ALL_EXCEPT},
#if defined(__aarch64__)
    {"denormals flushed", FE_TONEAREST, 0, std::uint64_t{1} << 24},
    {"denormals flushed, rounds up, default NaNs", FE_UPWARD, 0, std::uint64_t{3} << 24},
#endif
  };
  return all;
}
#endif

// Makes a call in an environment. Returns true if the environment is the same afterwards.
template <typename Call>
[[gnu::noinline]] bool leaves_environment(const FpEnvironment& host, Call& call) {
  const FpEnvironment before = FpEnvironment::current();
  host.set();
  const FpEnvironment set = FpEnvironment::current();
  call();
  const FpEnvironment after = FpEnvironment::current();
  before.set();
  return after == set;
}

}  // namespace qx_test
