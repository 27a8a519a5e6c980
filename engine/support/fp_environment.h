// The floating-point environment of the calling thread: the rounding mode, whether denormals are
// flushed, which exceptions trap, and their sticky flags. It belongs to the host, which may have
// set any of it; a library linked with fast-math switches flushing on for a whole process. The
// engine computes in the default environment and leaves the host's as it was, bit for bit.
#pragma once

#include <cstdint>
#if !defined(__x86_64__) && !defined(__aarch64__)
#include <cfenv>
#endif

namespace qx {

// The default environment, for as long as the object lives; then the host's is back. Reading it is
// a matter of nanoseconds, writing it is not, so it is written only where it differs.
class DefaultFpEnvironment {
 public:
  DefaultFpEnvironment(const DefaultFpEnvironment&) = delete;
  DefaultFpEnvironment& operator=(const DefaultFpEnvironment&) = delete;

#if defined(__x86_64__)
  DefaultFpEnvironment() : host_(read()) {
    if ((host_ & ~kFlags) != kDefault) write(kDefault);
  }
  ~DefaultFpEnvironment() {
    if (read() != host_) write(host_);
  }

 private:
  // MXCSR: every exception masked, round to nearest, denormals kept; the low six bits are the
  // flags.
  static constexpr std::uint32_t kDefault = 0x1F80;
  static constexpr std::uint32_t kFlags = 0x3F;

  static std::uint32_t read() {
    std::uint32_t mxcsr;
    asm volatile("stmxcsr %0" : "=m"(mxcsr) : : "memory");
    return mxcsr;
  }
  static void write(std::uint32_t mxcsr) { asm volatile("ldmxcsr %0" : : "m"(mxcsr) : "memory"); }

  const std::uint32_t host_;
#elif defined(__aarch64__)
  DefaultFpEnvironment() : host_control_(read_control()), host_flags_(read_flags()) {
    if (host_control_ != kDefault) write_control(kDefault);
  }
  ~DefaultFpEnvironment() {
    if (host_control_ != kDefault) write_control(host_control_);
    if (read_flags() != host_flags_) write_flags(host_flags_);
  }

 private:
  // FPCR: no trap, round to nearest, denormals kept, no alternative format.
  static constexpr std::uint64_t kDefault = 0;

  static std::uint64_t read_control() {
    std::uint64_t fpcr;
    asm volatile("mrs %0, fpcr" : "=r"(fpcr) : : "memory");
    return fpcr;
  }
  static void write_control(std::uint64_t fpcr) {
    asm volatile("msr fpcr, %0" : : "r"(fpcr) : "memory");
  }
  static std::uint64_t read_flags() {
    std::uint64_t fpsr;
    asm volatile("mrs %0, fpsr" : "=r"(fpsr) : : "memory");
    return fpsr;
  }
  static void write_flags(std::uint64_t fpsr) {
    asm volatile("msr fpsr, %0" : : "r"(fpsr) : "memory");
  }

  const std::uint64_t host_control_;
  const std::uint64_t host_flags_;
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
