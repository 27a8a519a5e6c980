// Prints the digests of drawn lives of an index, which are the same on every CPU:
//   digest --best                  the kernels that the engine chooses here
//   digest KERNELS LIVES           a digest for each life, under the named kernels
//   digest KERNELS LIFE --trace    one life, with the digest after each call
// Ends with status 3 where the kernels do not run.
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "cpus/life.h"
#include "kernels/kernels.h"

int main(int count, char** arguments) {
  if (count == 2 && std::string_view(arguments[1]) == "--best") {
    std::puts(qx::kernels().name);
    return 0;
  }
  const bool trace = count == 4 && std::string_view(arguments[3]) == "--trace";
  const std::uint64_t last = count < 3 ? 0 : std::strtoull(arguments[2], nullptr, 10);
  if ((count != 3 && !trace) || last == 0) {
    std::fputs("usage: digest --best | KERNELS LIVES | KERNELS LIFE --trace\n", stderr);
    return 2;
  }
  if (!qx::force_kernels(arguments[1])) return 3;
  for (std::uint64_t seed = trace ? last : 1; seed <= last; ++seed) {
    qx_test::Life life(seed, trace);
    std::printf("%llu %s\n", static_cast<unsigned long long>(seed), life.play().c_str());
  }
  return 0;
}
