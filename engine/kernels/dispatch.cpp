// Completes the tables of tables.h and chooses one of them once, by asking the
// CPU.
#include <atomic>
#include <cstring>

#include "kernels/tables.h"

namespace qx {
namespace {

// Initialised at compile time. They are not constexpr, since g++ under -fsanitize=undefined
// compares no address of a function with null at compile time, and initialises them at load time.
constexpr const Kernels& kPortable = portable::kEntries;
#if defined(__x86_64__)
const Kernels kAvx2 = inherit(avx2::kEntries, kPortable);
const Kernels kAvx512 = inherit(avx512::kEntries, kAvx2);
const Kernels kAvx512Vnni = inherit(avx512vnni::kEntries, kAvx512);
#elif defined(__aarch64__)
const Kernels kNeon = inherit(neon::kEntries, kPortable);
const Kernels kNeonDot = inherit(neondot::kEntries, kNeon);
#endif

constexpr const Kernels* kBestFirst[] = {
#if defined(__x86_64__)
    &kAvx512Vnni, &kAvx512, &kAvx2,
#elif defined(__aarch64__)
    &kNeonDot,
    &kNeon,
#endif
    &kPortable,   nullptr,
};

// Null until the first use. Threads that race there all store the same pointer, to a constant, so
// relaxed order is enough; a constant initial value needs no code at load time.
constinit std::atomic<const Kernels*> chosen{nullptr};

// The best kernels that run here and have this name, or any if it is null. Null if there are none.
const Kernels* best_supported(const char* name) {
  for (const Kernels* const* next = kBestFirst; *next != nullptr; ++next) {
    const bool is_meant = name == nullptr || std::strcmp((*next)->name, name) == 0;
    if (is_meant && (*next)->supported()) return *next;
  }
  return nullptr;
}

}  // namespace

const Kernels& kernels() {
  if (chosen.load(std::memory_order_relaxed) == nullptr) force_kernels(nullptr);
  return *chosen.load(std::memory_order_relaxed);
}

const Kernels* const* all_kernels() { return kBestFirst; }

bool force_kernels(const char* name) {
  const Kernels* const best = best_supported(name);
  if (best != nullptr) chosen.store(best, std::memory_order_relaxed);
  return best != nullptr;
}

}  // namespace qx
