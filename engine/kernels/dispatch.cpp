// Completes the tables of tables.h and chooses one of them once, by asking the
// CPU.
#include <atomic>
#include <cstring>

#include "kernels/kernels.h"
#include "kernels/tables.h"

namespace qx {
namespace {

// Initialised at compile time. They are not constexpr, since g++ under -fsanitize=undefined
// compares no address of a function with null at compile time, and initialises them at load time.
constexpr const Kernels& kPortable = portable::kEntries;
#if defined(__x86_64__)
const Kernels kAvx2 = inherit(avx2::kEntries, kPortable);
const Kernels kAvx512 = inherit(avx512::kEntries, kAvx2);
#elif defined(__aarch64__)
const Kernels kNeon = inherit(neon::kEntries, kPortable);
#endif

constexpr const Kernels* kBestFirst[] = {
#if defined(__x86_64__)
    &kAvx512,
    &kAvx2,
#elif defined(__aarch64__)
    &kNeon,
#endif
    &kPortable,
    nullptr,
};

// Null until the first use. Threads that race there all store the same pointer, to a constant, so
// relaxed order is enough; a constant initial value needs no code at load time.
constinit std::atomic<const Kernels*> chosen{nullptr};

// The last of the list, before the null that ends it, runs everywhere.
const Kernels* best_supported() {
  const Kernels* const* candidate = kBestFirst;
  // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the null is never reached
  while (!(*candidate)->supported()) ++candidate;
  return *candidate;
}

}  // namespace

const Kernels& kernels() {
  const Kernels* now = chosen.load(std::memory_order_relaxed);
  if (now == nullptr) {
    now = best_supported();
    chosen.store(now, std::memory_order_relaxed);
  }
  return *now;
}

const Kernels* const* all_kernels() { return kBestFirst; }

bool force_kernels(const char* name) {
  if (name == nullptr) {
    chosen.store(nullptr, std::memory_order_relaxed);
    return true;
  }
  for (const Kernels* const* candidate = kBestFirst; *candidate != nullptr; ++candidate) {
    if (std::strcmp((*candidate)->name, name) != 0) continue;
    if (!(*candidate)->supported()) return false;
    chosen.store(*candidate, std::memory_order_relaxed);
    return true;
  }
  return false;
}

}  // namespace qx
