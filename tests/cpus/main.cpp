// Plays call sequences against the model and prints the digest of each, which must be the same on
// every CPU:
//   digest --best                  the kernels that the engine chooses here
//   digest KERNELS COUNT           a digest for each call sequence, under the named kernels
//   digest KERNELS SEED --trace    one call sequence, with its calls
// Exits with 3 if the kernels do not run here, 4 if the engine and the model disagree, and 5 if the
// call sequences did not call every function.
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string_view>

#include "call_sequences/player.h"
#include "kernels/kernels.h"

namespace {

constexpr std::size_t kFunctions = 30;

// Fewer call sequences may not call every function.
constexpr std::uint64_t kEnoughForAll = 500;

int play(std::uint64_t first, std::uint64_t last, bool trace) {
  std::set<std::string> functions;
  for (std::uint64_t seed = first; seed <= last; ++seed) {
    qx_test::Player player(qx_test::UnderKernels::kChosen, trace);
    const std::string disagreement =
        player.play(qx_test::draw_call_sequence(qx_test::Random(seed)));
    if (!disagreement.empty()) {
      std::fprintf(stderr, "call sequence %llu: %s\n", static_cast<unsigned long long>(seed),
                   disagreement.c_str());
      return 4;
    }
    for (const auto& [function, calls] : player.calls()) functions.insert(function);
    std::printf("%llu %s\n", static_cast<unsigned long long>(seed), player.digest().c_str());
  }
  return functions.size() == kFunctions || last - first < kEnoughForAll ? 0 : 5;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 2 && std::string_view(arguments[1]) == "--best") {
    std::puts(qx::kernels().name);
    return 0;
  }
  const bool trace = count == 4 && std::string_view(arguments[3]) == "--trace";
  const std::uint64_t last = count < 3 ? 0 : std::strtoull(arguments[2], nullptr, 10);
  if ((count != 3 && !trace) || last == 0) {
    std::fputs("usage: digest --best | KERNELS COUNT | KERNELS SEED --trace\n", stderr);
    return 2;
  }
  if (!qx::force_kernels(arguments[1])) return 3;
  return play(trace ? last : 1, last, trace);
}
