#include <algorithm>
#include <cstring>

#include "limits/limits.h"

namespace bench {
namespace {

// Each namespace below holds the same loops for another width. The pragma is the target attribute
// for several functions at once.
#pragma GCC push_options
#pragma GCC target("avx512f")
namespace avx512 {
typedef std::uint64_t Wide __attribute__((vector_size(64)));
#define LOAD_TEXT "64 bytes a load"
#include "limits/read_loops.inc"
#undef LOAD_TEXT
}  // namespace avx512
#pragma GCC pop_options

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {
typedef std::uint64_t Wide __attribute__((vector_size(32)));
#define LOAD_TEXT "32 bytes a load"
#include "limits/read_loops.inc"
#undef LOAD_TEXT
}  // namespace avx2
#pragma GCC pop_options

}  // namespace

std::span<const ReadLoop> read_loops() {
  if (__builtin_cpu_supports("avx512f")) return avx512::kLoops;
  return avx2::kLoops;
}

}  // namespace bench
