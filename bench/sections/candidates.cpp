// The search of listed ids. The lists of one sample touch far more memory than the caches hold, so
// that every vector is met cold, as when each query of a host brings other candidates.
#include <algorithm>

#include "limits/limits.h"
#include "peers/absl_index.h"
#include "peers/peers.h"
#include "peers/selection.h"
#include "sections/sections.h"

namespace bench {
namespace {

// Lists of ids that contestants search one after the other.
struct Candidates {
  Candidates(const Ids& base_ids, std::int64_t list_length, std::int64_t row_bytes, Random& random)
      : length(list_length) {
    constexpr std::int64_t kColdBytes = 96 << 20;
    const auto lists = std::clamp<std::int64_t>(kColdBytes / (length * row_bytes), 1, 1000);
    for (std::int64_t i = 0; i < lists * length; ++i) {
      ids.push_back(base_ids[static_cast<std::size_t>(random.below(count_of(base_ids)))]);
    }
  }

  template <typename Search>
  void for_each_list(Search&& search) const {
    for (std::int64_t at = 0; at < count_of(ids); at += length) search(ids.data() + at);
  }

  std::int64_t length;
  Ids ids;
};

struct Arena {
  Arena(const Run& run, std::int64_t dim, Random& random)
      : base(permuted_ids((std::int64_t{run.pick(400, 100)} << 20) / (4 * dim), random), dim,
             random),
        id_to_row(row_table(base.absl.base_ids)),
        queries(dim, random) {}

  Table table() const { return {base_vectors(base.index), id_to_row.data(), base.dim}; }

  ChangedBase base;
  Ids id_to_row;
  Queries queries;
  Slots slots;
};

// A way to search one list: returns the best score.
using Search = float (*)(Arena& arena, const std::int64_t* ids, std::int64_t count,
                         const float* query);

float scatter_topk(Arena& arena, const std::int64_t* ids, std::int64_t count, const float* query) {
  Slots& slots = arena.slots;
  qx_index_scatter_topk(arena.base.index.get(), ids, static_cast<std::int32_t>(count), query,
                        slots.k, slots.ids.data(), slots.scores.data());
  return slots.scores.front();
}

float search_mvcc(Arena& arena, const std::int64_t* ids, std::int64_t count, const float* query) {
  arena.slots.search_mvcc(arena.base.index.get(), ids, count, query);
  return arena.slots.scores.front();
}

// One row at a time, each looked up and scored when its turn comes. With kMaps the maps of changed
// rows are asked before the table.
template <bool kMaps>
float search_plainly(Arena& arena, const std::int64_t* ids, std::int64_t count,
                     const float* query) {
  const Table table = arena.table();
  const AbslIndex& absl = arena.base.absl;
  Selection best(kResults);
  for (std::int64_t i = 0; i < count; ++i) {
    const float* row = nullptr;
    if (kMaps) {
      if (absl.is_deleted(ids[i])) continue;
      const auto changed = absl.delta_pos.find(ids[i]);
      if (changed != absl.delta_pos.end()) {
        row = arena.base.delta_vectors.data() + changed->second * table.dim;
      }
    }
    if (row == nullptr) row = row_vector(table, ids[i]);
    const float score = score_one_row(row, query, table.dim);
    best.offer(&score, i, 1);
  }
  return best.best();
}

// One kind of work: the library's function and the plain loop for the same.
struct Work {
  const char* function;
  int changed_percent;
  Search engine;
  Search plain;
};
constexpr Work kWorks[] = {{"scatter_topk", 0, scatter_topk, search_plainly<false>},
                           {"search_mvcc", 0, search_mvcc, search_plainly<false>},
                           {"search_mvcc", 1, search_mvcc, search_plainly<true>}};

void run_case(Run& run, Arena& arena, const Candidates& lists, const Work& work) {
  const float* const query = arena.queries.first();
  require(work.engine(arena, lists.ids.data(), lists.length, query) ==
              work.plain(arena, lists.ids.data(), lists.length, query),
          "one row at a time finds the same best score");
  Contestants contestants;
  const auto add = [&](const char* name, Role role, Search search) {
    contestants.push_back({name, role, [&arena, &lists, search] {
                             lists.for_each_list([&](const std::int64_t* ids) {
                               consume(search(arena, ids, lists.length, arena.queries.next()));
                             });
                           }});
  };
  add("qx_runtime", Role::kEngine, work.engine);
  add("one row at a time", Role::kBaseline, work.plain);
  add_limits(contestants, touch_loops(), [&](const TouchLoop& loop) {
    lists.for_each_list(
        [&](const std::int64_t* ids) { consume(loop.touch(arena.table(), ids, lists.length)); });
  });
  const std::int64_t items = count_of(lists.ids);
  run.compare({{"function", work.function},
               {"dim", arena.base.dim},
               {"ids", lists.length},
               {"changed", static_cast<double>(work.changed_percent)}},
              items * arena.base.dim * 4, items, contestants);
}

void run_candidates(Run& run) {
  Random random(2);
  for (const std::int64_t dim : {32, 128, 768}) {
    Arena arena(run, dim, random);
    const Candidates lists[] = {{arena.base.absl.base_ids, 1000, dim * 4, random},
                                {arena.base.absl.base_ids, 100000, dim * 4, random}};
    for (const int changed_percent : {0, 1}) {
      arena.base.change(changed_percent / 100.0, random);
      for (const Candidates& list : lists) {
        for (const Work& work : kWorks) {
          if (work.changed_percent == changed_percent) run_case(run, arena, list, work);
        }
      }
    }
  }
}

}  // namespace

const Section kCandidates = {
    "candidates", "search of listed ids, against touching their cache lines", run_candidates};

}  // namespace bench
