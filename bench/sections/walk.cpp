// The walk over visible rows: counting them and listing their ids.
#include <cstring>
#include <string>
#include <vector>

#include "harness/changes.h"
#include "limits/read.h"
#include "peers/absl_index.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kRows = 1000000;
constexpr std::int64_t kSparseLimit = 50000000;
constexpr std::int64_t kDim = 1;  // the walk reads no vector

// Shares of the ids that are in the delta, and as many among the tombstones, in per cent. The
// targets name 0, 1 and 10; the others show the shape between and beyond.
std::vector<double> shares(const Settings& settings) {
  if (settings.quick) return {0, 1, 10};
  return {0, 0.1, 1, 3, 10, 30};
}

struct Order {
  const char* name;
  Ids ids;
};

struct Arena {
  Arena(const Ids& base_ids, double share, Random& random) {
    const Floats vectors = random_floats(count_of(base_ids) * kDim, random);
    index = built_index(vectors.data(), base_ids, kDim);
    absl.base_ids = base_ids;
    const Changes changes = draw_changes(base_ids, share, random);
    apply_changes(changes, index.get(), absl, kDim, random);
    visible.resize(static_cast<std::size_t>(qx_index_visible_count(index.get())));
    copied.resize(base_ids.size());
  }

  Index index;
  AbslIndex absl;
  Ids visible;
  Ids copied;
};

// The least that a count must do is to read the ids.
void run_count(const Settings& settings, Results& results, Arena& arena, const Labels& labels) {
  const Ids& ids = arena.absl.base_ids;
  const std::size_t bytes = ids.size() * sizeof(std::int64_t);
  std::vector<Contestant> contestants = {
      {"qx_runtime", Role::kEngine, [&] { consume(qx_index_visible_count(arena.index.get())); }},
      {"absl::flat_hash_map loop", Role::kBaseline, [&] { consume(arena.absl.visible_count()); }}};
  add_read_limits(contestants, ids.data(), bytes);
  compare(settings, results, {"walk", labels, static_cast<std::int64_t>(bytes), count_of(ids)},
          contestants);
}

// The least that a list must do is to copy them.
void run_list(const Settings& settings, Results& results, Arena& arena, const Labels& labels) {
  const Ids& ids = arena.absl.base_ids;
  const std::size_t bytes = ids.size() * sizeof(std::int64_t);
  std::int64_t* const visible = arena.visible.data();
  const std::vector<Contestant> contestants = {
      {"qx_runtime", Role::kEngine,
       [&] { consume(qx_index_visible_ids(arena.index.get(), visible)); }},
      {"absl::flat_hash_map loop", Role::kBaseline,
       [&] { consume(arena.absl.visible_ids(visible)); }},
      {"copy the ids", Role::kLimit, [&] {
         std::memcpy(arena.copied.data(), ids.data(), bytes);
         consume(arena.copied);
       }}};
  compare(settings, results, {"walk", labels, static_cast<std::int64_t>(bytes), count_of(ids)},
          contestants);
}

void require_same_answer(Arena& arena) {
  Ids expected(arena.visible.size());
  require(arena.absl.visible_count() == count_of(expected), "both count as many visible rows");
  arena.absl.visible_ids(expected.data());
  qx_index_visible_ids(arena.index.get(), arena.visible.data());
  require(arena.visible == expected, "both list the same visible ids");
}

}  // namespace

void run_walk(const Settings& settings, Results& results) {
  Random random(3);
  const Order orders[] = {{"ascending", ascending_ids(kRows)},
                          {"permuted", permuted_ids(kRows, random)},
                          {"sparse", sparse_ids(kRows, kSparseLimit, random)}};
  for (const Order& order : orders) {
    for (const double share : shares(settings)) {
      Arena arena(order.ids, share / 100, random);
      require_same_answer(arena);
      run_count(settings, results, arena,
                {{"function", "visible_count"}, {"ids", order.name}, {"changed", share}});
      run_list(settings, results, arena,
               {{"function", "visible_ids"}, {"ids", order.name}, {"changed", share}});
    }
  }
}

}  // namespace bench
