// The exact search of a base in the second-level cache, in the third, or in memory.
#include <string>
#include <vector>

#include "kernels/kernels.h"
#include "limits/limits.h"
#include "peers/peers.h"
#include "read/pruner.h"
#include "sections/sections.h"

namespace bench {
namespace {

using Dims = std::vector<std::int64_t>;

// A working set: the level of memory that it is meant for, and the dimensions that it is cut into.
struct Set {
  const char* name;
  std::int64_t bytes;
  bool in_memory;
  Dims dims;
};

// With --quick the large set is still four times a third-level cache of 32 MB.
std::vector<Set> sets(const Run& run) {
  return {{"L2", 512 << 10, false,
           run.pick(Dims{2, 3, 8, 16, 32, 64, 100, 128, 200, 256, 384, 512, 768},
                    Dims{2, 3, 8, 32, 100, 128, 384, 768})},
          {"L3", 12 << 20, false,
           run.pick(Dims{8, 32, 64, 100, 128, 200, 256, 384, 512, 768, 1024, 1536},
                    Dims{8, 32, 100, 128, 384, 768, 1024, 1536})},
          {"DRAM", std::int64_t{run.pick(700, 128)} << 20, true,
           run.pick(Dims{8, 32, 100, 128, 256, 384, 768, 1024, 1536}, Dims{8, 128, 768, 1536})}};
}

// The library compiled another way, and the plain loop.
constexpr Other kSameBits[] = {{flagged_engine, Role::kKernel, true},
                               {one_row, Role::kBaseline, true}};

// Limits and peers without a copy of their own read the engine's bytes where pages decide, in
// memory, and line-aligned ones in the caches.
void run_case(Run& run, const Set& set, const Matrix& data) {
  Random random(static_cast<std::uint64_t>(data.dim));
  run.use_chosen_kernel();
  const Index index = built_index(data.values, ascending_ids(data.rows), data.dim);
  const Matrix matrix = set.in_memory ? Matrix{base_vectors(index), data.rows, data.dim} : data;
  const std::int64_t bytes = matrix.rows * matrix.dim * 4;
  Queries queries(data.dim, random);
  Slots slots;
  const auto search = [&] { return slots.search_full(index.get(), queries.next()); };

  const std::string chosen = qx::kernels().name;
  Contestants contestants = {
      {"qx_runtime, " + chosen, Role::kEngine, search, [&] { run.use_chosen_kernel(); }},
      {"without codes", Role::kKernel, search, [&] {
         run.use_chosen_kernel();
         qx::force_judge("estimates");
       }}};
  add_read_limits(contestants, matrix.values, bytes);
  // The engine again, on each kernel that runs here but was not chosen.
  for (const qx::Kernels* const* kernel = qx::all_kernels(); *kernel != nullptr; ++kernel) {
    const char* const name = (*kernel)->name;
    if (name == chosen || !(*kernel)->supported()) continue;
    contestants.push_back({name, Role::kKernel, search, [&run, name] {
                             run.use_chosen_kernel();
                             qx::force_kernels(name);
                           }});
  }
  slots.search_full(index.get(), queries.first());
  add_others(contestants, kPeers, matrix, queries, kResults, slots.scores.front());
  add_others(contestants, kSameBits, matrix, queries, kResults, slots.scores.front());
  run.compare({{"set", set.name}, {"dim", matrix.dim}}, bytes, matrix.rows, contestants);
  run.use_chosen_kernel();
}

void run_scan(Run& run) {
  Random random(1);
  for (const Set& set : sets(run)) {
    // The same numbers, cut into rows of every length.
    const Floats values = random_floats(set.bytes / 4, random);
    for (const std::int64_t dim : set.dims) {
      run_case(run, set, {values.data(), values.count() / dim, dim});
    }
  }
}

}  // namespace

const Section kScan = {
    "scan", "exact search of the whole base, against reading its bytes and four peers", run_scan};

}  // namespace bench
