// The floating-point environment of the calling thread: the rounding mode, whether denormals are
// flushed, which exceptions trap, and their sticky flags. It belongs to the host, which may have
// set any of it; a library linked with fast-math switches flushing on for a whole process. The
// engine computes in the default environment and leaves the host's as it was, bit for bit.
#pragma once

#if defined(__x86_64__)
#include <xmmintrin.h>
#elif !defined(__aarch64__)
#include <cfenv>
#endif

namespace qx {

// The default environment, for as long as the object lives; then the host's is back. Reading it is
// a matter of nanoseconds, writing it is not, so it is written only where it differs.
class DefaultFpEnvironment {
 public:
  DefaultFpEnvironment(const DefaultFpEnvironment&) = delete;
  DefaultFpEnvironment& operator=(const DefaultFpEnvironment&) = delete;

#if defined(__x86_64__) || defined(__aarch64__)
  DefaultFpEnvironment() : host_(read()) {
    if ((host_ & ~kFlags) != kDefault) write(kDefault);
  }
  ~DefaultFpEnvironment() {
    if (read() != host_) write(host_);
  }

 private:
#if defined(__x86_64__)
  // MXCSR: every exception masked, round to nearest, denormals kept; the low six bits are the
  // flags.
  using State = unsigned;
  static constexpr State kDefault = 0x1F80;
  static constexpr State kFlags = 0x3F;

  static State read() { return _mm_getcsr(); }
  static void write(State state) { _mm_setcsr(state); }
#else
  // FPCR above FPSR, the flags: no trap, round to nearest, denormals kept, no alternative format.
  using State = unsigned long;
  static constexpr State kDefault = 0;
  static constexpr State kFlags = 0xFFFFFFFF;

  static State read() {
    State control;
    State flags;
    asm volatile("mrs %0, fpcr\n\tmrs %1, fpsr" : "=r"(control), "=r"(flags) : : "memory");
    return control << 32 | flags;
  }
  static void write(State state) {
    asm volatile("msr fpcr, %0\n\tmsr fpsr, %1"
                 :
                 : "r"(state >> 32), "r"(state & kFlags)
                 : "memory");
  }
#endif

  const State host_;
#else
  DefaultFpEnvironment() {
    std::fegetenv(&host_);
    std::fesetenv(FE_DFL_ENV);
  }
  ~DefaultFpEnvironment() { std::fesetenv(&host_); }

 private:
  std::fenv_t host_;
#endif
};

// Not inlined: to a compiler, an addition of two numbers at hand does not depend on the
// environment, and may be moved across its change. It may not be moved out of a call.
template <typename Compute>
[[gnu::noinline]] void call_out_of_line(Compute& compute) {
  compute();
}

// Calls compute() in the default environment. All arithmetic and all comparisons of the engine's
// reads are made in such calls. Nothing in them ends the process: its last line is written in the
// host's environment.
template <typename Compute>
void in_default_fp_environment(Compute compute) {
  const DefaultFpEnvironment environment;
  call_out_of_line(compute);
}

}  // namespace qx
