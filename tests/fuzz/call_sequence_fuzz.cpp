// Bytes choose calls and their arguments; the engine must agree with the model, and release all
// memory except that of replaced bases.
#include <cstdlib>
#include <utility>

#include "call_sequences/player.h"
#include "fuzz/target.h"
#include "support/heap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  const qx_test::CallSequence sequence =
      qx_test::draw_call_sequence(qx_test::Random(std::span(bytes, count)));
  std::string disagreement;
  bool rebuilt = false;
  const qx_test::HeapLog log = qx_test::record_heap([&] {
    qx_test::Player player(qx_test::UnderKernels::kAll, false);
    disagreement = player.play(sequence);
    rebuilt = player.rebuilt();
  });
  qx_test::require(disagreement.empty(), disagreement);
  qx_test::require(rebuilt || log.still_held.empty(), "memory is held after the index was freed");
  // By contract the arrays of replaced bases are never released; a fuzzer would run out of memory.
  for (const void* const block : log.still_held) std::free(const_cast<void*>(block));
  return 0;
}
