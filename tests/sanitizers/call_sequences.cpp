// Plays random call sequences without a test framework, for tools that must see every instruction:
// play_call_sequences [--no-rebuilds] FIRST_SEED COUNT.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "call_sequences/player.h"

#if defined(__has_feature)
#if __has_feature(memory_sanitizer)
#define QX_TEST_MEMORY_SANITIZER 1
#endif
#endif

#if defined(QX_TEST_MEMORY_SANITIZER)
#include <sanitizer/msan_interface.h>

// The standard library is not compiled with the sanitizer, which therefore does not see what it
// writes into the nodes of the model's maps. So memory that the tests allocate by `new` counts as
// written: the linker replaces `new` by this function. The engine allocates by malloc, and its
// memory counts as unwritten until the engine writes it.
extern "C" {
void* __real__Znwm(std::size_t bytes);
void* __wrap__Znwm(std::size_t bytes) {
  void* const block = __real__Znwm(bytes);
  __msan_unpoison(block, bytes);
  return block;
}
}
#endif

int main(int count, char** arguments) {
  const bool no_rebuilds = count == 4 && std::strcmp(arguments[1], "--no-rebuilds") == 0;
  if (count != (no_rebuilds ? 4 : 3)) {
    std::fprintf(stderr, "usage: play_call_sequences [--no-rebuilds] FIRST_SEED COUNT\n");
    return 2;
  }
  const std::uint64_t first = std::strtoull(arguments[count - 2], nullptr, 10);
  const std::uint64_t sequences = std::strtoull(arguments[count - 1], nullptr, 10);
  qx_test::CallCounts calls;
  for (std::uint64_t seed = first; seed - first < sequences; ++seed) {
    qx_test::Player player(qx_test::UnderKernels::kAll, false);
    const std::string disagreement = player.play(qx_test::draw_call_sequence(
        qx_test::Random(seed),
        no_rebuilds ? qx_test::Rebuilds::kLeftOut : qx_test::Rebuilds::kAllowed));
    for (const auto& [function, number] : player.calls()) calls[function] += number;
    if (disagreement.empty()) continue;
    std::printf("seed %llu: %s\n", static_cast<unsigned long long>(seed), disagreement.c_str());
    return 1;
  }
  std::int64_t total = 0;
  for (const auto& [function, number] : calls) total += number;
  std::printf("%llu call sequences, %lld calls of %zu functions\n",
              static_cast<unsigned long long>(sequences), static_cast<long long>(total),
              calls.size());
  return sequences == 0 ? 1 : 0;
}
