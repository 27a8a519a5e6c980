// Plays call sequences against the model and prints digests, which must be the same on every CPU:
//   digest --best                     the kernels that the engine chooses here
//   digest KERNELS COUNT              a digest for each group of 50 call sequences
//   digest KERNELS SEED --group       a digest for each call sequence of the seed's group
//   digest KERNELS SEED --trace       one call sequence, with its calls
// Exits with 3 if the kernels do not run here, 4 if the engine and the model disagree, and 5 if the
// call sequences did not call every function.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string_view>

#include "call_sequences/player.h"
#include "kernels/kernels.h"

namespace {

using Seed = unsigned long long;

constexpr std::size_t kFunctions = 30;
constexpr Seed kGroup = 50;

// Fewer call sequences may not call every function.
constexpr Seed kEnoughForAll = 500;

std::set<std::string> functions;

// The digest of one call sequence. Ends the program if the engine and the model disagree.
std::string play(Seed seed, bool trace) {
  qx_test::Player player(qx_test::UnderKernels::kChosen, trace);
  const std::string disagreement = player.play(qx_test::draw_call_sequence(qx_test::Random(seed)));
  if (!disagreement.empty()) {
    std::fprintf(stderr, "call sequence %llu: %s\n", seed, disagreement.c_str());
    std::exit(4);
  }
  for (const auto& [function, calls] : player.calls()) functions.insert(function);
  return player.digest();
}

void print_each(Seed first, Seed last, bool trace) {
  for (Seed seed = first; seed <= last; ++seed) {
    const std::string digest = play(seed, trace);
    std::printf("%llu %s\n", seed, digest.c_str());
  }
}

int print_groups(Seed count) {
  for (Seed first = 1; first <= count; first += kGroup) {
    const Seed last = std::min(first + kGroup - 1, count);
    qx_test::Digest group;
    for (Seed seed = first; seed <= last; ++seed) {
      for (const char digit : play(seed, false)) group.add(static_cast<unsigned char>(digit));
    }
    std::printf("%llu-%llu %s\n", first, last, group.text().c_str());
  }
  return functions.size() == kFunctions || count <= kEnoughForAll ? 0 : 5;
}

}  // namespace

int main(int count, char** arguments) {
  const std::string_view option = count > 1 ? arguments[count - 1] : "";
  if (count == 2 && option == "--best") {
    std::puts(qx::kernels().name);
    return 0;
  }
  const bool trace = count == 4 && option == "--trace";
  const bool group = count == 4 && option == "--group";
  const Seed number = count < 3 ? 0 : std::strtoull(arguments[2], nullptr, 10);
  if ((count != 3 && !trace && !group) || number == 0) {
    std::fputs("usage: digest --best | KERNELS COUNT | KERNELS SEED (--group | --trace)\n", stderr);
    return 2;
  }
  if (!qx::force_kernels(arguments[1])) return 3;
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // all is there when a call ends the process
  if (count == 3) return print_groups(number);
  const Seed first = trace ? number : (number - 1) / kGroup * kGroup + 1;
  print_each(first, trace ? number : first + kGroup - 1, trace);
  return 0;
}
