#include "limits/read.h"

#include <algorithm>
#include <cstring>

namespace bench {
namespace {

// Each namespace below holds the same loops for another width. The pragma is the target attribute
// for several functions at once.
#pragma GCC push_options
#pragma GCC target("avx512f")
namespace avx512 {
typedef std::uint64_t Wide __attribute__((vector_size(64)));
#include "limits/read_loops.inc"
}  // namespace avx512
#pragma GCC pop_options

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {
typedef std::uint64_t Wide __attribute__((vector_size(32)));
#include "limits/read_loops.inc"
}  // namespace avx2
#pragma GCC pop_options

std::vector<ReadLoop> find_loops() {
  if (__builtin_cpu_supports("avx512f")) {
    return {{"read linearly, 64 bytes a load", avx512::read_linearly},
            {"read astride lines, 64 bytes a load", avx512::read_astride},
            {"read with prefetch, 64 bytes a load", avx512::read_with_prefetch},
            {"read in four streams, 64 bytes a load", avx512::read_in_four_streams}};
  }
  return {{"read linearly, 32 bytes a load", avx2::read_linearly},
          {"read astride lines, 32 bytes a load", avx2::read_astride},
          {"read with prefetch, 32 bytes a load", avx2::read_with_prefetch},
          {"read in four streams, 32 bytes a load", avx2::read_in_four_streams}};
}

}  // namespace

const std::vector<ReadLoop>& read_loops() {
  static const std::vector<ReadLoop> loops = find_loops();
  return loops;
}

void add_read_limits(std::vector<Contestant>& contestants, const void* data, std::size_t bytes) {
  for (const ReadLoop& loop : read_loops()) {
    contestants.push_back(
        {loop.name, Role::kLimit, [read = loop.read, data, bytes] { consume(read(data, bytes)); }});
  }
}

}  // namespace bench
