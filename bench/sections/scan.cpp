// The exact search of a base in the second-level cache, in the third, or in memory.
#include <cmath>
#include <string>
#include <vector>

#include "harness/base_bytes.h"
#include "harness/data.h"
#include "kernels/kernels.h"
#include "limits/read.h"
#include "peers/flagged_engine.h"
#include "peers/flat.h"
#include "peers/one_row.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int32_t kResults = 10;

// A working set: the level of memory that it is meant for, and the dimensions that it is cut into.
struct Set {
  const char* name;
  std::int64_t bytes;
  bool in_memory;
  std::vector<std::int64_t> dims;
};

std::vector<Set> sets(const Settings& settings) {
  std::vector<std::int64_t> l2_dims = {2, 3, 8, 16, 32, 64, 100, 128, 200, 256, 384, 512, 768};
  std::vector<std::int64_t> l3_dims = {8, 32, 64, 100, 128, 200, 256, 384, 512, 768, 1024, 1536};
  std::vector<std::int64_t> dram_dims = {8, 32, 100, 128, 256, 384, 768, 1024, 1536};
  if (settings.quick) {
    l2_dims = {2, 3, 8, 32, 100, 128, 384, 768};
    l3_dims = {8, 32, 100, 128, 384, 768, 1024, 1536};
    dram_dims = {8, 128, 768, 1536};
  }
  // With --quick the large set is still four times a third-level cache of 32 MB.
  return {{"L2", 512 << 10, false, l2_dims},
          {"L3", 12 << 20, false, l3_dims},
          {"DRAM", std::int64_t{settings.pick(700, 128)} << 20, true, dram_dims}};
}

// Everything that searches one matrix. Limits and peers without a copy of their own read the
// engine's bytes where pages decide, in memory, and line-aligned ones in the caches.
struct Arena {
  Arena(const Settings& run_settings, const Set& set, const Matrix& data, Random& random)
      : settings(run_settings),
        index(built_index(data.values, ascending_ids(data.rows), data.dim)),
        matrix(set.in_memory ? Matrix{base_vectors(index.get()), data.rows, data.dim} : data),
        peers(make_flat_peers(matrix)),
        flagged(matrix),
        queries(data.dim, random) {}

  float search_engine() {
    const int32_t found =
        qx_index_search_full(index.get(), queries.next(), kResults, out_ids, out_scores);
    consume(found);
    return out_scores[0];
  }

  const Settings& settings;
  Index index;
  Matrix matrix;
  FlatPeers peers;
  FlaggedEngine flagged;
  Queries queries;
  std::int64_t out_ids[kResults] = {};
  float out_scores[kResults] = {};
};

void add_engine(std::vector<Contestant>& contestants, Arena& arena) {
  contestants.push_back({std::string("qx_runtime, ") + qx::kernels().name, Role::kEngine,
                         [&] { arena.search_engine(); },
                         [&] { use_chosen_kernel(arena.settings); }});
}

// The engine again, on each kernel that runs here but was not chosen.
void add_other_kernels(std::vector<Contestant>& contestants, Arena& arena) {
  const std::string chosen = qx::kernels().name;
  for (const qx::Kernels* const* kernel = qx::all_kernels(); *kernel != nullptr; ++kernel) {
    const char* const name = (*kernel)->name;
    if (name == chosen || !(*kernel)->supported()) continue;
    contestants.push_back(
        {name, Role::kKernel, [&] { arena.search_engine(); }, [name] { qx::force_kernels(name); }});
  }
}

void add_peers(std::vector<Contestant>& contestants, Arena& arena) {
  for (const auto& peer : arena.peers) {
    contestants.push_back({peer->name(), Role::kPeer, [&arena, searcher = peer.get()] {
                             consume(searcher->search(arena.queries.next(), kResults));
                           }});
  }
}

void add_compiled_loops(std::vector<Contestant>& contestants, Arena& arena) {
  contestants.push_back({"portable, -O3 -mavx2 -mfma", Role::kKernel,
                         [&] { consume(arena.flagged.search(arena.queries.next(), kResults)); }});
  contestants.push_back({"one row at a time, -O3 -mavx2 -mfma", Role::kBaseline, [&] {
                           consume(scan_one_row(arena.matrix, arena.queries.next(), kResults));
                         }});
}

// The peers add in another order, so their scores are close but not equal.
void require_same_answer(Arena& arena) {
  const float* const query = arena.queries.first();
  qx_index_search_full(arena.index.get(), query, kResults, arena.out_ids, arena.out_scores);
  const float best = arena.out_scores[0];
  const float tolerance = 1e-4f * std::sqrt(static_cast<float>(arena.matrix.dim));
  for (const auto& peer : arena.peers) {
    require(std::abs(peer->search(query, kResults) - best) <= tolerance,
            std::string(peer->name()) + " finds the same best score");
  }
  require(scan_one_row(arena.matrix, query, kResults) == best, "one row at a time finds it too");
  require(arena.flagged.search(query, kResults) == best, "and under other flags");
}

void run_case(const Settings& settings, Results& results, const Set& set, const Matrix& matrix) {
  Random random(static_cast<std::uint64_t>(matrix.dim));
  use_chosen_kernel(settings);
  Arena arena(settings, set, matrix, random);
  require_same_answer(arena);
  const std::int64_t bytes = matrix.rows * matrix.dim * static_cast<std::int64_t>(sizeof(float));

  std::vector<Contestant> contestants;
  add_engine(contestants, arena);
  add_read_limits(contestants, arena.matrix.values, static_cast<std::size_t>(bytes));
  add_other_kernels(contestants, arena);
  add_peers(contestants, arena);
  add_compiled_loops(contestants, arena);
  compare(settings, results, {"scan", {{"set", set.name}, {"dim", matrix.dim}}, bytes, matrix.rows},
          contestants);
  use_chosen_kernel(settings);
}

}  // namespace

void run_scan(const Settings& settings, Results& results) {
  Random random(1);
  for (const Set& set : sets(settings)) {
    // The same numbers, cut into rows of every length.
    const Floats values =
        random_floats(set.bytes / static_cast<std::int64_t>(sizeof(float)), random);
    for (const std::int64_t dim : set.dims) {
      run_case(settings, results, set, {values.data(), values.count() / dim, dim});
    }
  }
}

}  // namespace bench
